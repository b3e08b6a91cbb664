/**
 * The binding to the agent library: opens it with the dynamic loader and looks
 * up its entry points.
 */
#pragma once

#include <string>

/** The entry points that the daemon calls. It ignores every result but the update's. */
typedef int (*FnAgentInit)();
typedef int (*FnAgentClear)();
/** Takes the stored image's version; returns non-zero when it has downloaded a newer image. */
typedef int (*FnAgentUpdate)(const char*);
typedef int (*FnAgentSetSoVersion)(const char*);
/** Writes a version of at most 19 characters and a NUL. */
typedef int (*FnAgentGetSoVersion)(char*);
/** Takes a service URL path. */
typedef int (*FnAgentConfigServer)(const char*);

class CADLibs {
public:
    CADLibs();
    /** Runs Destory. */
    ~CADLibs();
    CADLibs(const CADLibs&) = delete;
    CADLibs& operator=(const CADLibs&) = delete;

    /**
     * Opens a library file; see dlopen(3). Does not close one opened before.
     * @return false, with an error logged, when the loader reports one
     */
    bool Start(std::string strLibName);

    /** Closes the library, if one is open. */
    void Destory();

    // Each looks up one entry point, on every call. Returns null, with an error
    // logged, when no library is open or the library lacks the entry point.
    void* GetAdAgentInit();
    void* GetAdAgentClear();
    void* GetAdAgentRegister();
    void* GetAdAgentUnRegister();
    void* GetAdAgentRequest();
    void* GetAdAgentRequestSync();
    void* GetAdAgentReport();
    void* GetAdAgentLaunch();
    void* GetAdAgentUpdate();
    void* GetAdAgentSetSoVersion();
    void* GetAdAgentGetSoVersion();
    void* GetAdAgentPsidGet();
    void* GetAdAgentConfigServer();

    /** Looks up an exported symbol; see dlsym(3). */
    void* m_GetHanlder(std::string sHanderName);

private:
    void* m_sDlHandle;
};
