/**
 * The binding to the agent library: opens it with the dynamic loader and
 * hands out the addresses of its entry points.
 */
#ifndef AD_LIBS_H
#define AD_LIBS_H

#include <string>

/** What the entry points look like that the daemon calls; their results are not examined, but for
 * the update's. */
typedef int (*FnAgentInit)();
typedef int (*FnAgentClear)();
/** Takes the installed image's version; non-zero when a newer image was downloaded. */
typedef int (*FnAgentUpdate)(const char*);
typedef int (*FnAgentSetSoVersion)(const char*);
/** Writes at most 19 characters and a NUL. */
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
     * Opens a library file; see dlopen(3). An earlier one is not closed.
     * @return false, with a log line, when the loader reports an error
     */
    bool Start(std::string strLibName);

    /** Closes the library, if one is open. */
    void Destory();

    // Each gives the address of one exported function, or null with a log line
    // when no library is open or the library lacks it. Nothing is cached.
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

    /** Looks one exported symbol up by name; see dlsym(3). */
    void* m_GetHanlder(std::string sHanderName);

private:
    void* m_sDlHandle;
};

#endif
