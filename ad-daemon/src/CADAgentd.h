/**
 * The daemon's controller: selects and loads the agent library, waits for the
 * network and the viewer's consent, and then has the library fetch its
 * configuration and runs the image update.
 *
 * Everything runs on the main loop's thread and blocks it, for minutes during a
 * download. Failures are logged and do not end the process.
 */
#pragma once

#include "ADLibs.h"
#include "network_connection.h"
#include "settings_store.h"

#include <string>

class CADAgentd {
public:
    /** Runs t_Initialize. */
    CADAgentd();
    /** Runs Destory. */
    ~CADAgentd();
    CADAgentd(const CADAgentd&) = delete;
    CADAgentd& operator=(const CADAgentd&) = delete;

    /**
     * The start gate: does the work, once per process, when the network is up and
     * consent is given.
     * @return false when the network is down or the consent key cannot be read
     */
    bool Start();

    /** Releases the library, the network watch and the connection. Must run only once. */
    void Destory();

private:
    void t_Initialize();

    // Network watch
    bool m_IsValidNetwork();
    connection_profile_h m_GetConnectionProfile();
    int RegisterNetWorkStateChangeCB();
    void UnRegisterNetWorkStateChangeCB();
    static void m_NetworkStateChangeCB(connection_profile_state_e eState, void* pUserData);
    static void m_NetWorkTypeChangeCB(connection_type_e eType, void* pUserData);

    // Settings watchers and configuration request
    static void m_VConfLanguageChangeCB(keynode_t* pNode, void* pUserData);
    static void m_VConfTermChangeCB(keynode_t* pNode, void* pUserData);
    /** For the country code; registered for no key. */
    static void m_CountryCodeChangeCB(keynode_t* pNode, void* pUserData);
    /** Waits for the settings store without a time-out. Returns 1. */
    int m_RequestData();

    // Firmware version tracking
    /** True when the version file holds the running firmware's version. */
    bool m_CheckFirmVersion();
    void m_WriteFirmVersion();

    // Agent library selection and manifest
    /** The text of a child of a manifest's root element, or the empty string. */
    std::string m_GetXmlValue(std::string strFile, std::string strFirstKey,
                              std::string strSecondKey);
    /** The valid library copy; discards the updatable one when the firmware copy is newer. */
    std::string m_GetValidSoFile();
    /** Creates the directories that an update writes to. Returns true. */
    bool m_CheckZelPath();

    // Image update
    /** Returns true. */
    bool m_Update();
    /** The library's non-zero result when a new image is in place, else 0. */
    int m_DownloadImg();
    /** The stored image's version, or "0.00". */
    std::string m_GetImgVersion();
    /** 0 when the mount point cannot be created, else 1. */
    int m_ReplaceLibSo();

    CADLibs* m_pADLibHandler;
    connection_profile_h m_hProfile;
    connection_h m_hConnection;
    bool m_bStartDone;
};
