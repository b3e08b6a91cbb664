/**
 * The daemon's controller: chooses and hosts the agent library, waits for the
 * network and the viewer's consent, and then has the library fetch its
 * configuration and runs the image update.
 *
 * Everything runs on the thread of the main loop and may block it for as long
 * as the work takes. Failures are logged and never end the process.
 */
#ifndef CAD_AGENTD_H
#define CAD_AGENTD_H

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
     * The start gate: with the network up and consent given, does the work,
     * once per process.
     * @return false when the network is down or the consent cannot be read
     */
    bool Start();

    /** Releases the library, the network watch and the connection. To be run once. */
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
    /** For a country key; nothing registers it. */
    static void m_CountryCodeChangeCB(keynode_t* pNode, void* pUserData);
    /** Waits, without limit, for the settings store's marker file. Always 1. */
    int m_RequestData();

    // Firmware version tracking
    /** True when the version file names the running firmware. */
    bool m_CheckFirmVersion();
    void m_WriteFirmVersion();

    // Agent library selection and manifest
    /** The text of a manifest's child element, or the empty string. */
    std::string m_GetXmlValue(std::string strFile, std::string strFirstKey,
                              std::string strSecondKey);
    /** The library copy that is valid; discards the updatable one when the firmware is newer. */
    std::string m_GetValidSoFile();
    /** Ensures the directories that an update writes into. Always true. */
    bool m_CheckZelPath();

    // Image update
    /** Always true. */
    bool m_Update();
    /** The library's own non-zero result when a new image is in place, else 0. */
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

#endif
