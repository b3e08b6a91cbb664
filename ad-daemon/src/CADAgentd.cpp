#include "CADAgentd.h"

#include "ADFile.h"
#include "ADLog.h"
#include "ADManifest.h"
#include "ADPaths.h"
#include "ADUtils.h"
#include "system_information.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char* CONSENT_KEY = "db/menu/kelo_home/homedatacontrol/defaultdisclaimeragree";
constexpr const char* LANGUAGE_KEY = "db/menu_widget/language";
constexpr int CONSENT_AGREED = 1;

/** The services whose configuration the agent library fetches, in this order. */
constexpr const char* TILE_SERVICE_PATH = "/TileAd/v2";
constexpr const char* APPS_SERVICE_PATH = "/AppsAd/v2";

/** The version of an image or a library whose version cannot be read. */
constexpr const char* UNKNOWN_VERSION = "0.00";

/** The size of the buffer for the agent library's version; the entry point takes no length. */
constexpr size_t SO_VERSION_SIZE = 20;

constexpr int NETWORK_TRIES = 3;
constexpr useconds_t RECONNECT_SETTLE_US = 9000;
constexpr useconds_t SETTINGS_POLL_US = 10000;
constexpr useconds_t BETWEEN_REQUESTS_US = 4000000;
constexpr useconds_t BEFORE_UPDATE_US = 10000000;

/** Casts an address from the binding to the entry point's type. */
template <typename Fn>
Fn ToFunction(void* pAddress) {
    return reinterpret_cast<Fn>(pAddress);
}

/** Versions are decimal fractions: 2.10 is lower than 2.9. An empty text is 0. */
float ToNumber(const std::string& strVersion) {
    return strVersion.empty() ? 0.0F : static_cast<float>(strtod(strVersion.c_str(), nullptr));
}

/** Has the agent library fetch the configuration of every service. */
void FetchConfiguration(FnAgentConfigServer fnAgentConfigServer) {
    fnAgentConfigServer(TILE_SERVICE_PATH);
    fnAgentConfigServer(APPS_SERVICE_PATH);
}

/** The name of a node's key; for a node without one, what printf(3) makes of null. */
const char* GetKeyName(keynode_t* pNode) {
    const char* pName = vconf_keynode_get_name(pNode);
    return pName ? pName : "(null)";
}

/** Opens the version file for writing unless it is a FIFO, whose opening may block, or a device. */
FILE* CreateVersionFile() {
    struct stat sInfo = {};
    if (stat(AD_FIRMWARE_VERSION_FILE, &sInfo) == 0 && !S_ISREG(sInfo.st_mode)) return nullptr;
    return fopen(AD_FIRMWARE_VERSION_FILE, "w");
}

}  // namespace

CADAgentd::CADAgentd()
    : m_pADLibHandler(nullptr), m_hProfile(nullptr), m_hConnection(nullptr), m_bStartDone(false) {
    AD_LOG("Construct");
    t_Initialize();
}

CADAgentd::~CADAgentd() {
    AD_LOG("Destory");
    Destory();
}

void CADAgentd::t_Initialize() {
    AD_LOG("t_Initialize In");
    vconf_notify_key_changed(CONSENT_KEY, m_VConfTermChangeCB, this);
    vconf_notify_key_changed(LANGUAGE_KEY, m_VConfLanguageChangeCB, this);

    if (!m_CheckFirmVersion()) {
        if (check_existed(AD_OPT_LIB_PATH)) ad_remove_lib_so_path("remove_usr_lib_file");
        m_WriteFirmVersion();
    }

    CADLibs* pNewLibs = nullptr;
    const std::string strSoFile = m_GetValidSoFile();
    if (!strSoFile.empty()) {
        AD_LOG("t_Initialize so file is %s", strSoFile.c_str());
        if (!m_pADLibHandler) {
            pNewLibs = m_pADLibHandler = new (std::nothrow) CADLibs();
            if (!pNewLibs) AD_LOG_ERR("New CADLibs failed");
        }
    }
    if (pNewLibs) {
        const bool bDownloaded = check_existed(AD_OPT_LIB_FWK_FILE) != 0;
        const bool bLoaded = bDownloaded && pNewLibs->Start(AD_OPT_LIB_FWK_FILE);
        if (bLoaded) {
            AD_LOG("Successfully get so");
        } else {
            AD_LOG("Successfully get /usr/lib agent so");
            pNewLibs->Start(AD_FIRMWARE_LIB_FWK_FILE);
        }
        if (bDownloaded && !bLoaded) {
            AD_LOG("Remove adagent /opt/usr/lib");
            if (check_existed(AD_OPT_LIB_PATH)) ad_remove_lib_so_path("remove_usr_lib_file");
            m_WriteFirmVersion();
        }
        const auto fnAgentInit = ToFunction<FnAgentInit>(pNewLibs->GetAdAgentInit());
        if (fnAgentInit) fnAgentInit();
    }

    const int nRet = connection_create(&m_hConnection);
    if (nRet != 0) AD_LOG_ERR("connection_create is failed %d", nRet);
    RegisterNetWorkStateChangeCB();
    if (m_hConnection) connection_set_type_changed_cb(m_hConnection, m_NetWorkTypeChangeCB, this);
}

bool CADAgentd::Start() {
    AD_LOG("[CADAgentd] Start");
    if (m_bStartDone) {
        AD_LOG("Already done. Do not launch \"Start\" function");
        return true;
    }

    bool bNetwork = false;
    for (int nTry = 0; nTry < NETWORK_TRIES && !bNetwork; ++nTry) bNetwork = m_IsValidNetwork();
    if (!bNetwork) {
        AD_LOG_ERR("Network is unstable or disconnected, Please check network");
        return false;
    }
    AD_LOG("Network is Working");

    int nConsent = 0;
    if (vconf_get_int(CONSENT_KEY, &nConsent) != 0) {
        AD_LOG_ERR("[CADAgentd] T&C did not agree !!!");
        return false;
    }
    AD_LOG("[CADAgentd] T&C is = [%d].", nConsent);
    if (nConsent == CONSENT_AGREED) {
        m_CheckZelPath();
        m_RequestData();
        m_Update();
        m_bStartDone = true;
    }
    AD_LOG("[CADAgentd] Start end");
    return true;
}

void CADAgentd::Destory() {
    if (m_pADLibHandler) {
        const auto fnAgentClear = ToFunction<FnAgentClear>(m_pADLibHandler->GetAdAgentClear());
        if (fnAgentClear) fnAgentClear();
        m_pADLibHandler->Destory();
        delete m_pADLibHandler;
        m_pADLibHandler = nullptr;
    }
    UnRegisterNetWorkStateChangeCB();
    connection_destroy(m_hConnection);
}

// --- Network watch ---------------------------------------------------------

bool CADAgentd::m_IsValidNetwork() {
    connection_type_e eType = CONNECTION_TYPE_DISCONNECTED;
    if (connection_get_type(m_hConnection, &eType) != 0) {
        eType = CONNECTION_TYPE_DISCONNECTED;
        AD_LOG_ERR("Get connection type error");
    } else {
        AD_LOG("connection type: %d", eType);
    }

    bool bRet = false;
    switch (eType) {
        case CONNECTION_TYPE_WIFI: {
            connection_wifi_state_e eState = {};
            bRet = connection_get_wifi_state(m_hConnection, &eState) == 0 &&
                   eState == CONNECTION_WIFI_STATE_CONNECTED;
            break;
        }
        case CONNECTION_TYPE_CELLULAR: {
            connection_cellular_state_e eState = {};
            bRet = connection_get_cellular_state(m_hConnection, &eState) == 0 &&
                   eState == CONNECTION_CELLULAR_STATE_CONNECTED;
            break;
        }
        case CONNECTION_TYPE_ETHERNET: {
            connection_ethernet_state_e eState = {};
            AD_LOG("--------CONNECTION_TYPE_ETHERNET----------");
            bRet = connection_get_ethernet_state(m_hConnection, &eState) == 0 &&
                   eState == CONNECTION_ETHERNET_STATE_CONNECTED;
            AD_LOG("------------------");
            break;
        }
        case CONNECTION_TYPE_BT: {
            connection_bt_state_e eState = {};
            bRet = connection_get_bt_state(m_hConnection, &eState) == 0 &&
                   eState == CONNECTION_BT_STATE_CONNECTED;
            break;
        }
        default:
            AD_LOG("----connection disconnected!----\n");
            break;
    }
    AD_LOG("----bRet is:%d----\n", bRet);
    return bRet;
}

connection_profile_h CADAgentd::m_GetConnectionProfile() {
    connection_profile_h hProfile = nullptr;
    connection_profile_iterator_h hIterator = nullptr;
    AD_LOG("GetConnectionProfile enter! ");

    connection_type_e eType = CONNECTION_TYPE_DISCONNECTED;
    if (connection_get_type(m_hConnection, &eType) != 0) {
        eType = CONNECTION_TYPE_DISCONNECTED;
        AD_LOG_ERR("Get connection type error");
    } else {
        AD_LOG_ERR("connection type: %d", eType);  // at the error level on success as well
    }

    connection_profile_type_e eWanted = CONNECTION_PROFILE_TYPE_ETHERNET;
    switch (eType) {
        case CONNECTION_TYPE_WIFI:
            eWanted = CONNECTION_PROFILE_TYPE_WIFI;
            AD_LOG("connection type: WIFI");
            break;
        case CONNECTION_TYPE_CELLULAR:
            eWanted = CONNECTION_PROFILE_TYPE_CELLULAR;
            AD_LOG("connection type: CELLULAR ");
            break;
        case CONNECTION_TYPE_ETHERNET:
            AD_LOG("connection type: ETHERNET");
            break;
        case CONNECTION_TYPE_BT:
            eWanted = CONNECTION_PROFILE_TYPE_BT;
            AD_LOG("connection type: BT");
            break;
        default:
            AD_LOG_ERR("connection type: %d,not wifi,ethernet,bt,celluar ", eType);
            break;
    }

    const int nRet = connection_get_profile_iterator(
        m_hConnection, CONNECTION_ITERATOR_TYPE_REGISTERED, &hIterator);
    if (nRet != 0) {
        AD_LOG_ERR("Fail to get profile iterator [%d]", nRet);
        return nullptr;
    }

    // Without a profile of the wanted type, the last one taken is the result.
    while (connection_profile_iterator_has_next(hIterator)) {
        if (connection_profile_iterator_next(hIterator, &hProfile) != 0) {
            AD_LOG_ERR("Fail to get profile handle");
            break;
        }
        connection_profile_type_e eProfileType = {};
        if (connection_profile_get_type(hProfile, &eProfileType) != 0) {
            AD_LOG_ERR("Fail to get profile type");
            break;
        }
        if (eProfileType == eWanted) break;
    }
    if (hIterator) connection_destroy(hIterator);

    const auto nProfile = static_cast<unsigned int>(reinterpret_cast<uintptr_t>(hProfile));
    AD_LOG("profile = %x", nProfile);
    return hProfile;
}

int CADAgentd::RegisterNetWorkStateChangeCB() {
    if (!m_hProfile) {
        m_hProfile = m_GetConnectionProfile();
        if (!m_hProfile) {
            AD_LOG_ERR("GetConnectionProfile failed");
            return -1;
        }
    }
    return connection_profile_set_state_changed_cb(m_hProfile, m_NetworkStateChangeCB, this);
}

void CADAgentd::UnRegisterNetWorkStateChangeCB() {
    AD_LOG("UnRegisterNetWorkStateChangeCB in");
    connection_profile_unset_state_changed_cb(m_hProfile);
    m_hProfile = nullptr;
}

void CADAgentd::m_NetworkStateChangeCB(connection_profile_state_e eState, void* pUserData) {
    if (!pUserData) {
        AD_LOG_ERR("pUserData is NULL");
        return;
    }
    if (eState != CONNECTION_PROFILE_STATE_CONNECTED) {
        AD_LOG("Current Network State is %d", eState);
        return;
    }
    AD_LOG("Network is reconnected, Try Start");
    usleep(RECONNECT_SETTLE_US);
    static_cast<CADAgentd*>(pUserData)->Start();
}

void CADAgentd::m_NetWorkTypeChangeCB(connection_type_e eType, void* pUserData) {
    if (!pUserData) {
        AD_LOG_ERR("pUserData is NULL");
        return;
    }
    switch (eType) {
        case CONNECTION_TYPE_WIFI:
        case CONNECTION_TYPE_CELLULAR:
        case CONNECTION_TYPE_ETHERNET:
        case CONNECTION_TYPE_BT:
            break;
        default:
            AD_LOG_ERR("Unknown Type, %d", eType);
            return;
    }

    AD_LOG("Check Profile is registered or not");
    auto* pAgentd = static_cast<CADAgentd*>(pUserData);
    if (!pAgentd->m_hProfile) {
        pAgentd->RegisterNetWorkStateChangeCB();
        pAgentd->Start();
    }
}

// --- Settings watchers and configuration request ---------------------------

void CADAgentd::m_VConfLanguageChangeCB(keynode_t* pNode, void* pUserData) {
    AD_LOG("[CADAgentd] m_VConfLanguageChangeCB");
    if (!pNode || !pUserData) {
        AD_LOG_ERR(
            "[CADAgentd] m_VConfLanguageChangeCB has NULL parameter,pNode = %p,pUserData = %p!",
            static_cast<void*>(pNode), pUserData);
        return;
    }

    const char* pName = GetKeyName(pNode);
    AD_LOG("[CADAgentd] Vconf key %s changed, reset config server", pName);
    CADLibs* pADLibHandler = static_cast<CADAgentd*>(pUserData)->m_pADLibHandler;
    if (!pADLibHandler) {
        AD_LOG_ERR("[CADAgentd] pADLibHandler is NULL.");
        return;
    }
    const auto fnAgentConfigServer =
        ToFunction<FnAgentConfigServer>(pADLibHandler->GetAdAgentConfigServer());
    if (!fnAgentConfigServer) {
        AD_LOG_ERR("[CADAgentd] fnAgentConfigServer is NULL.");
        return;
    }
    FetchConfiguration(fnAgentConfigServer);
}

void CADAgentd::m_CountryCodeChangeCB(keynode_t* pNode, void* pUserData) {
    AD_LOG("[CADAgentd] m_CountryCodeChangeCB");
    if (!pNode || !pUserData) {
        AD_LOG_ERR(
            "[CADAgentd] m_CountryCodeChangeCB has NULL parameter,response = %p,pUserData = %p!",
            static_cast<void*>(pNode), pUserData);
        return;
    }

    const char* pName = GetKeyName(pNode);
    AD_LOG("[CADAgentd] Vconf key %s changed, reset config server", pName);
    CADLibs* pADLibHandler = static_cast<CADAgentd*>(pUserData)->m_pADLibHandler;
    if (!pADLibHandler) {
        AD_LOG_ERR("[CADAgentd] pADLibHandler is NULL.");
        return;
    }
    const auto fnAgentConfigServer =
        ToFunction<FnAgentConfigServer>(pADLibHandler->GetAdAgentConfigServer());
    if (!fnAgentConfigServer) {
        AD_LOG_ERR("[CADAgentd] fnAgentConfigServer is NULL.");
        return;
    }
    FetchConfiguration(fnAgentConfigServer);
}

void CADAgentd::m_VConfTermChangeCB(keynode_t* pNode, void* pUserData) {
    AD_LOG("[CADAgentd] CADAgentd::m_VConfTermChangeCB was called");
    if (!pNode || !pUserData) {
        AD_LOG_ERR(
            "[CADAgentd] m_VConfTermChangeCB has NULL parameter,response = %p,pUserData = %p!",
            static_cast<void*>(pNode), pUserData);
        return;
    }

    const char* pName = GetKeyName(pNode);
    AD_LOG("[CADAgentd] Vconf key %s changed, retry to get the PSID and AD service config URL",
           pName);
    const int nType = vconf_keynode_get_type(pNode);
    const std::string strName = GetKeyName(pNode);
    if (nType != SETTINGS_TYPE_INT) {
        AD_LOG_ERR("Unknown Type(%d)\n", nType);
        return;
    }

    const int nValue = vconf_keynode_get_int(pNode);
    AD_LOG("key = %s, value = %d(int)", strName.c_str(), nValue);
    if (nValue != CONSENT_AGREED) return;

    CADLibs* pADLibHandler = static_cast<CADAgentd*>(pUserData)->m_pADLibHandler;
    if (!pADLibHandler) return;
    AD_LOG("[CADAgentd]  START TO GET AD Config Server URL");
    const auto fnAgentConfigServer =
        ToFunction<FnAgentConfigServer>(pADLibHandler->GetAdAgentConfigServer());
    if (!fnAgentConfigServer) {
        AD_LOG_ERR("[CADAgentd] fnAgentConfigServer is NULL.");
        return;
    }
    FetchConfiguration(fnAgentConfigServer);
}

int CADAgentd::m_RequestData() {
    AD_LOG("[CADAgentd] m_RequestData");
    if (!check_existed(AD_OPT_LIB_FWK_FILE) && !check_existed(AD_FIRMWARE_LIB_FWK_FILE)) return 1;

    while (!check_existed(AD_SETTINGS_READY_FILE)) {
        AD_LOG("[CADAgentd] Vconf is not ready, sleep!");
        usleep(SETTINGS_POLL_US);
    }
    AD_LOG("[CADAgentd] Vconf is ready!");

    FnAgentConfigServer fnAgentConfigServer = nullptr;
    if (!m_pADLibHandler) {
        AD_LOG_ERR("[CADAgentd] m_pADLibHandler is NULL.");
    } else {
        fnAgentConfigServer =
            ToFunction<FnAgentConfigServer>(m_pADLibHandler->GetAdAgentConfigServer());
        if (!fnAgentConfigServer) {
            AD_LOG_ERR("[CADAgentd] fnAgentConfigServer is NULL.");
        } else {
            fnAgentConfigServer(TILE_SERVICE_PATH);
        }
    }

    usleep(BETWEEN_REQUESTS_US);
    if (fnAgentConfigServer) {
        fnAgentConfigServer(APPS_SERVICE_PATH);
    } else {
        AD_LOG_ERR("[CADAgentd] fnAgentConfigServer is NULL.");
    }
    return 1;
}

// --- Firmware version tracking ---------------------------------------------

bool CADAgentd::m_CheckFirmVersion() {
    AD_LOG("m_CheckFirmVersion");
    std::string strCurVersion;
    char* pVersion = nullptr;
    const int nStatus = system_info_get_value_string(SYSTEM_INFO_KEY_FIRMWARE_VERSION, &pVersion);
    if (nStatus != 0) {
        AD_LOG("Failed getting Firmware version. status= %d", nStatus);
    } else if (pVersion) {
        strCurVersion = pVersion;
        free(pVersion);
    }
    AD_LOG("Current Firmware Version= %s", strCurVersion.c_str());

    bool bRet = false;
    std::string strFileVersion;
    if (!ad_read_small_file(AD_FIRMWARE_VERSION_FILE, &strFileVersion)) {
        AD_LOG("No File");
    } else if (strFileVersion.empty()) {
        AD_LOG("No data");
    } else {
        AD_LOG("File Firmware Version= %s", strFileVersion.c_str());
        if (strFileVersion == strCurVersion) {
            AD_LOG("Firmware version is same");
            bRet = true;
        }
    }
    return bRet;
}

void CADAgentd::m_WriteFirmVersion() {
    AD_LOG("m_WriteFirmVersion");
    FILE* pFile = CreateVersionFile();
    if (!pFile) {
        AD_LOG("Fail to Open File");
        return;
    }

    char* pVersion = nullptr;
    const int nStatus = system_info_get_value_string(SYSTEM_INFO_KEY_FIRMWARE_VERSION, &pVersion);
    if (nStatus != 0) AD_LOG("Failed getting Firmware version. status= %d", nStatus);

    // Without a version the file stays empty, which the next check takes for a change.
    const std::string strVersion = pVersion ? pVersion : "";
    fwrite(strVersion.c_str(), strlen(strVersion.c_str()), 1, pFile);
    AD_LOG("Save Firm File done : %s", strVersion.c_str());
    free(pVersion);
    fclose(pFile);
}

// --- Agent library selection and manifest ----------------------------------

std::string CADAgentd::m_GetXmlValue(std::string strFile, std::string strFirstKey,
                                     std::string strSecondKey) {
    AD_LOG("[CADAgentd] m_GetXmlValue, file %s, first key %s, secodn key %s", strFile.c_str(),
           strFirstKey.c_str(), strSecondKey.c_str());
    std::string strValue;
    if (strFirstKey.empty() || strSecondKey.empty()) {
        AD_LOG_ERR("[CADAgentd]input sKey is empty.");
        return strValue;
    }
    if (!check_existed(strFile.c_str())) {
        AD_LOG_ERR("[CADAgentd]zelADAgent Xml file %s not existed.", strFile.c_str());
        return strValue;
    }

    TiXmlDocument oDocument(strFile.c_str());
    LoadManifest(&oDocument);
    TiXmlHandle oHandle(&oDocument);
    const TiXmlElement* pElement =
        oHandle.FirstChild(strFirstKey.c_str()).FirstChildElement(strSecondKey.c_str()).ToElement();
    if (pElement && pElement->GetText()) {
        strValue = pElement->GetText();
        AD_LOG("[CADAgentd] m_GetXmlValue so version = %s", strValue.c_str());
    }
    return strValue;
}

std::string CADAgentd::m_GetValidSoFile() {
    if (!check_existed(AD_OPT_LIB_FWK_FILE)) return AD_FIRMWARE_LIB_FWK_FILE;

    const std::string strFirmVersion = m_GetXmlValue(AD_FIRMWARE_XML_FILE, "Zel", "Version");
    const std::string strCacheVersion = m_GetXmlValue(AD_CACHE_XML_FILE, "Cache", "SoVersion");
    if (strFirmVersion == strCacheVersion) return AD_OPT_LIB_FWK_FILE;

    const float fFirmVersion = ToNumber(strFirmVersion);
    const float fCacheVersion = ToNumber(strCacheVersion);
    if (!(fCacheVersion < fFirmVersion)) return AD_OPT_LIB_FWK_FILE;

    AD_LOG(
        "[CADAgentd] lib so version smaller than zelADAgent version, lib so ver is %f and "
        "zelADAgent ver is %f",
        static_cast<double>(fCacheVersion), static_cast<double>(fFirmVersion));
    if (check_existed(AD_OPT_LIB_PATH)) ad_remove_lib_so_path("remove_usr_lib_path");
    if (!check_existed(AD_OPT_LIB_PATH)) ad_mounter_create("create_path_usr_lib");
    if (check_existed(AD_IMG_FILE)) ad_remove_lib_so_path("remove_zel_adagent_img_file");
    return AD_FIRMWARE_LIB_FWK_FILE;
}

bool CADAgentd::m_CheckZelPath() {
    AD_LOG("[CADAgentd] m_CheckZelPath");
    if (!check_existed(AD_OPT_LIB_PATH)) ad_mounter_create("create_path_usr_lib");
    if (!check_existed(AD_AGENT_DATA_PATH)) ad_mounter_create("create_path_apps_adagent");
    if (!check_existed(AD_IMG_MOUNT_PATH)) ad_mounter_create("create_path_apps_zeladagent");
    AD_LOG("[CADAgentd] Don't check /opt/usr/apps/adagent/zelADAgentCache.xml");
    ad_mounter_create("create_file_apps_zeladagent_xml");
    if (!check_existed(AD_PACKAGE_PATH)) ad_mounter_create("create_path_zeladagent");
    if (!check_existed(AD_IMG_PATH)) ad_mounter_create("create_path_zeladagent_img");
    return true;
}

// --- Image update ----------------------------------------------------------

bool CADAgentd::m_Update() {
    AD_LOG("[CADAgentd] m_Update");
    usleep(BEFORE_UPDATE_US);
    AD_LOG("[CADAgentd] m_DownloadImg begin");
    if (m_DownloadImg() != 0) m_ReplaceLibSo();
    return true;
}

int CADAgentd::m_DownloadImg() {
    AD_LOG("[CADAgentd] m_DownloadImg begin");
    const std::string strImgVersion = m_GetImgVersion();
    AD_LOG("[CADAgentd] m_DownloadImg,strImgVersion = %s.", strImgVersion.c_str());
    if (!check_existed(AD_OPT_LIB_FWK_FILE) && !check_existed(AD_FIRMWARE_LIB_FWK_FILE)) {
        AD_LOG("[CADAgentd] m_DownloadImg end");
        return 0;
    }

    int nRet = 0;
    AD_LOG("[CADAgentd] call update API.");
    if (!m_pADLibHandler) {
        AD_LOG_ERR("[CADAgentd] m_pADLibHandler is NULL.");
    } else {
        const auto fnAgentUpdate = ToFunction<FnAgentUpdate>(m_pADLibHandler->GetAdAgentUpdate());
        if (!fnAgentUpdate) {
            AD_LOG_ERR("[CADAgentd] fnAgentUpdate is NULL.");
        } else {
            nRet = fnAgentUpdate(strImgVersion.c_str());
        }
    }

    if (nRet != 0) {
        AD_LOG("[CADAgentd] Download img from server success, replace img file.");
        if (!ad_replace_img()) {
            AD_LOG_ERR("[CADAgentd] Replace %s to %s failed.", AD_DOWNLOADED_IMG_FILE, AD_IMG_FILE);
            nRet = 0;
        }
    }
    AD_LOG("[CADAgentd] m_DownloadImg end");
    return nRet;
}

std::string CADAgentd::m_GetImgVersion() {
    AD_LOG("[CADAgentd] Parse xml version, srcXmlFile = %s", AD_IMG_XML_FILE);
    std::string strImgVersion = UNKNOWN_VERSION;
    bool bMount = false;
    if (!check_existed(AD_IMG_FILE)) return strImgVersion;

    AD_LOG("[CADAgentd] m_GetImgVersion, %s exist.", AD_IMG_FILE);
    if (!check_existed(AD_IMG_MOUNT_PATH) && !ad_mounter_create("create_path_apps_zeladagent")) {
        AD_LOG("[CADAgentd] ad_mounter_create %s failed.", AD_IMG_MOUNT_PATH);
        return strImgVersion;
    }
    if (!check_existed(AD_IMG_XML_FILE)) {
        AD_LOG("[CADAgentd] m_DownloadImg, %s is not exist, mount img", AD_IMG_XML_FILE);
        if (!ad_mount()) {
            AD_LOG("[CADAgentd] m_DownloadImg, mount img file %s to %s failed", AD_IMG_FILE,
                   AD_IMG_MOUNT_PATH);
        } else {
            bMount = true;
        }
    }
    // An image without a manifest stays mounted.
    if (!check_existed(AD_IMG_XML_FILE)) return strImgVersion;

    AD_LOG("[CADAgentd] m_DownloadImg, Parse img version.");
    auto pDocument = std::make_unique<TiXmlDocument>(AD_IMG_XML_FILE);
    AD_LOG("[CADAgentd] test xml 1111");
    LoadManifest(pDocument.get());
    TiXmlElement* pRoot = pDocument->FirstChildElement();
    if (pRoot) {
        AD_LOG("[CADAgentd] test xml 2222");
        const TiXmlElement* pVersion = pRoot->FirstChildElement("Version");
        const char* pVerText = pVersion ? pVersion->GetText() : nullptr;
        if (pVerText) {
            AD_LOG("[CADCacheMgr] begin to assign pVerText");
            strImgVersion = pVerText;
            AD_LOG("[CADAgentd] Version = %s", strImgVersion.c_str());
        }
    }
    pDocument.reset();

    AD_LOG("bMount = %d.", bMount);
    if (bMount && !ad_umount()) AD_LOG("Umount %s failed.", AD_IMG_MOUNT_PATH);
    return strImgVersion;
}

int CADAgentd::m_ReplaceLibSo() {
    AD_LOG("[CADAgentd] m_ReplaceLibSo start");
    const std::string strImgVersion = m_GetImgVersion();
    std::string strSoVersion = UNKNOWN_VERSION;
    const bool bTarget = check_existed(AD_OPT_LIB_FWK_FILE) != 0;
    if (!bTarget) AD_LOG("[CADAgentd] ADAG_TARGET_LIB_SO_FILE not existed.");

    AD_LOG("[CADAgentd] m_ReplaceLibSo, call get so version API");
    char szSoVersion[SO_VERSION_SIZE] = {0};
    if (!m_pADLibHandler) {
        AD_LOG_ERR("[CADAgentd] m_pADLibHandler is NULL.");
    } else {
        const auto fnAgentGetSoVer =
            ToFunction<FnAgentGetSoVersion>(m_pADLibHandler->GetAdAgentGetSoVersion());
        if (!fnAgentGetSoVer) {
            AD_LOG_ERR("[CADAgentd] fnAgentGetSoVer is NULL.");
        } else {
            fnAgentGetSoVer(szSoVersion);
            // A version that fills the buffer has no NUL.
            strSoVersion.assign(szSoVersion, strnlen(szSoVersion, sizeof(szSoVersion)));
        }
    }
    AD_LOG("[CADAgentd] strSoVersion = %s, strImgVersion = %s.", strSoVersion.c_str(),
           strImgVersion.c_str());

    if (bTarget && strSoVersion == strImgVersion) {
        AD_LOG("[CADAgentd] m_ReplaceLibSo, Don't need replace so");
        AD_LOG("[CADAgentd] m_ReplaceLibSo end");
        return 1;
    }

    AD_LOG("[CADAgentd] m_ReplaceLibSo, Copy Lib");
    if (!check_existed(AD_IMG_MOUNT_PATH) && !ad_mounter_create("create_path_apps_zeladagent")) {
        AD_LOG("[CADAgentd] ad_mounter_create %s failed.", AD_IMG_MOUNT_PATH);
        return 0;
    }
    if (ad_mount()) {
        AD_LOG("[CADAgentd] m_DownloadImg, mount img file %s to %s success", AD_IMG_FILE,
               AD_IMG_MOUNT_PATH);
        if (!ad_copy()) {
            AD_LOG("[CADAgentd] InstallLib %s to %s failed.", AD_IMG_LIB_FWK_FILE,
                   AD_OPT_LIB_FWK_FILE);
        } else if (!m_pADLibHandler) {
            AD_LOG_ERR("[CADAgentd] m_pADLibHandler is NULL.");
        } else {
            const auto fnAgentSetSoVer =
                ToFunction<FnAgentSetSoVersion>(m_pADLibHandler->GetAdAgentSetSoVersion());
            if (!fnAgentSetSoVer) {
                AD_LOG_ERR("[CADAgentd] fnAgentGetSoVer is NULL.");
            } else {
                fnAgentSetSoVer(strImgVersion.c_str());
            }
        }
        if (!ad_umount()) AD_LOG("Umount %s failed.", AD_IMG_MOUNT_PATH);
    }
    AD_LOG("[CADAgentd] m_ReplaceLibSo end");
    return 1;
}
