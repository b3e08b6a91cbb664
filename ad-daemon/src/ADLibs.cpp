#include "ADLibs.h"

#include "ADLog.h"

#include <dlfcn.h>

CADLibs::CADLibs() : m_sDlHandle(nullptr) { AD_LOG("Construct"); }

CADLibs::~CADLibs() {
    AD_LOG("Destory");
    Destory();
}

bool CADLibs::Start(std::string strLibName) {
    AD_LOG("[CADLibs] Start, lib so name is %s", strLibName.c_str());
    bool bRet = false;
    if (strLibName.empty()) {
        AD_LOG_ERR("ERROR: Input lib so name is empty");
    } else {
        m_sDlHandle = dlopen(strLibName.c_str(), RTLD_LAZY);
        // dlerror(3) decides, not the handle, and reading it clears it for the lookups.
        const char* pError = dlerror();
        if (pError) {
            AD_LOG_ERR("ERROR: Can't dlopen %s and error code is %s", strLibName.c_str(), pError);
        } else {
            bRet = true;
        }
    }
    AD_LOG("[CADLibs] Start end");
    return bRet;
}

void CADLibs::Destory() {
    AD_LOG("[CADLibs] Destory");
    if (!m_sDlHandle) return;

    AD_LOG("[CADLibs] begine to dlclose.");
    dlclose(m_sDlHandle);
    m_sDlHandle = nullptr;
}

void* CADLibs::m_GetHanlder(std::string sHanderName) {
    AD_LOG("[CADLibs] m_GetHanlder");
    if (!m_sDlHandle) {
        AD_LOG_ERR("[CADLibs] m_GetHanlder, m_sDlHandle is NULL");
        return nullptr;
    }
    if (sHanderName.empty()) {
        AD_LOG_ERR("[CADLibs] m_GetHanlder, input sHanderName is empty");
        return nullptr;
    }

    void* pHandler = dlsym(m_sDlHandle, sHanderName.c_str());
    const char* pError = dlerror();
    if (pError) {
        AD_LOG_ERR("[CADLibs] m_GetHanlder, dlsym %s failed and error code is %s",
                   sHanderName.c_str(), pError);
        return nullptr;
    }
    return pHandler;
}

void* CADLibs::GetAdAgentInit() {
    AD_LOG("[CADLibs] GetAdAgentInit");
    return m_GetHanlder("ad_agent_init");
}

void* CADLibs::GetAdAgentClear() {
    AD_LOG("[CADLibs] GetAdAgentClear");
    return m_GetHanlder("ad_agent_clear");
}

void* CADLibs::GetAdAgentRegister() {
    AD_LOG("[CADLibs] GetAdAgentRegister");
    return m_GetHanlder("ad_agent_register");
}

void* CADLibs::GetAdAgentUnRegister() {
    AD_LOG("[CADLibs] GetAdAgentUnRegister");
    return m_GetHanlder("ad_agent_unregister");
}

void* CADLibs::GetAdAgentRequest() {
    // The message names GetAdAgentUnRegister; the lookup does not.
    AD_LOG("[CADLibs] GetAdAgentUnRegister");
    return m_GetHanlder("ad_agent_request");
}

void* CADLibs::GetAdAgentRequestSync() {
    AD_LOG("[CADLibs] GetAdAgentRequestSync");
    return m_GetHanlder("ad_agent_request_sync");
}

void* CADLibs::GetAdAgentReport() {
    AD_LOG("[CADLibs] GetAdAgentReport");
    return m_GetHanlder("ad_agent_report");
}

void* CADLibs::GetAdAgentLaunch() {
    AD_LOG("[CADLibs] GetAdAgentLaunch");
    return m_GetHanlder("ad_agent_launch");
}

void* CADLibs::GetAdAgentUpdate() {
    AD_LOG("[CADLibs] GetAdAgentUpdate");
    return m_GetHanlder("ad_agent_update");
}

void* CADLibs::GetAdAgentSetSoVersion() {
    AD_LOG("[CADLibs] GetAdAgentSetSoVersion");
    return m_GetHanlder("ad_agent_set_soversion");
}

void* CADLibs::GetAdAgentGetSoVersion() {
    AD_LOG("[CADLibs] GetAdAgentGetSoVersion");
    return m_GetHanlder("ad_agent_get_soversion");
}

void* CADLibs::GetAdAgentPsidGet() {
    AD_LOG("[CADLibs] GetAdAgentPsidGet");
    return m_GetHanlder("ad_agent_psid_get");
}

void* CADLibs::GetAdAgentConfigServer() {
    AD_LOG("[CADLibs] GetAdAgentConfigServer");
    return m_GetHanlder("ad_agent_config_server");
}
