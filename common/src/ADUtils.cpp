#include "ADUtils.h"

#include "ADFile.h"
#include "ADLog.h"
#include "ADPaths.h"
#include "base/unique_fd.h"

#include <cstdio>
#include <cstdlib>
#include <string>

#include <unistd.h>

namespace {

/** The size of the buffer for command lines of fixed form; longer ones are cut. */
constexpr size_t COMMAND_BUFFER_SIZE = 255;

}  // namespace

int system_cmd(const char* pCommand) {
    AD_LOG("system command:[%s]", pCommand);
    if (!pCommand) {
        AD_LOG_ERR("Input system command is NULL");
        return 0;
    }

    const int nStatus = system(pCommand);
    if (nStatus == -1) {
        AD_LOG_ERR("system error, failed to create sub process %s.", pCommand);
        return 0;
    }

    const int nExitStatus = (nStatus >> 8) & 0xFF;
    AD_LOG("system return value = [0x%x]", nStatus);
    if ((nStatus & 0x7F) != 0) {
        // 0 whatever ended the child.
        AD_LOG_ERR("exit value = [%d]", 0);
        return 0;
    }
    if (nExitStatus != 0) {
        AD_LOG_ERR("run sub process failed, exit status code: %d.", nExitStatus);
        return 0;
    }
    AD_LOG("run sub process successfully.");
    return 1;
}

int check_existed(const char* pName) {
    AD_LOG("[check_existed]:[%s]", pName);
    if (!pName) return 0;

    if (access(pName, F_OK) == 0) {
        AD_LOG("[check_existed] Path/File:[%s] exist", pName);
        return 1;
    }
    AD_LOG_ERR("[check_existed] Path/File:[%s] not exist", pName);
    return 0;
}

int ad_mounter_create(const char* pName) {
    AD_LOG("ad_mounter_create in");
    if (!pName) {
        AD_LOG_ERR("ad_mounter_create input scommand is NULL");
        return 0;
    }

    AD_LOG("ad_mounter_create with command:%s", pName);
    char szCommand[COMMAND_BUFFER_SIZE] = {0};
    snprintf(szCommand, sizeof(szCommand), "ad-mounter --create %s", pName);
    AD_LOG("ad_mounter_create, syscmd:%s", szCommand);
    if (!system_cmd(szCommand)) {
        AD_LOG_ERR("ad_mounter_create, system_cmd %s failed", szCommand);
        return 0;
    }
    AD_LOG("ad_mounter_create, syscmd done.");
    return 1;
}

int ad_remove_lib_so_path(const char* pName) {
    AD_LOG("ad_remove_lib_so_path in");
    if (!pName) {
        AD_LOG_ERR("ad_remove_lib_so_path input scommand is NULL");
        return 0;
    }

    AD_LOG("ad_remove_lib_so_path with command:%s", pName);
    char szCommand[COMMAND_BUFFER_SIZE] = {0};
    snprintf(szCommand, sizeof(szCommand), "ad-mounter --remove %s", pName);
    AD_LOG("ad_remove_lib_so_path, syscmd:%s", szCommand);
    if (!system_cmd(szCommand)) {
        AD_LOG_ERR("ad_remove_lib_so_path, system_cmd %s failed", szCommand);
        return 0;
    }
    AD_LOG("ad_remove_lib_so_path, syscmd done.");
    return 1;
}

int ad_mount() {
    AD_LOG("[ad_mount] source[%s], dest[%s]", AD_IMG_FILE, AD_IMG_MOUNT_PATH);
    if (!check_existed(AD_IMG_FILE)) {
        AD_LOG_ERR("[ad_mount] source img [%s] is not existed", AD_IMG_FILE);
        return 0;
    }
    if (!check_existed(AD_IMG_MOUNT_PATH)) {
        AD_LOG_ERR("[ad_mount] dest path [%s] is not existed", AD_IMG_MOUNT_PATH);
        if (!ad_mounter_create("create_path_apps_zeladagent")) {
            AD_LOG("[CADAgentd] ad_mounter_create %s failed.", AD_IMG_MOUNT_PATH);
            return 0;
        }
    }

    char szCommand[COMMAND_BUFFER_SIZE] = {0};
    snprintf(szCommand, sizeof(szCommand), "ad-mounter --mount %s %s", AD_IMG_FILE,
             AD_IMG_MOUNT_PATH);
    if (!system_cmd(szCommand)) {
        AD_LOG_ERR("[ad_mount] Mount failed !!\n");
        return 0;
    }
    AD_LOG("[ad_mount] Mount done !!\n");
    return 1;
}

int ad_umount() {
    AD_LOG("[ad_umount] Umount[%s]\n", AD_IMG_MOUNT_PATH);
    char szCommand[COMMAND_BUFFER_SIZE] = {0};
    snprintf(szCommand, sizeof(szCommand), "ad-mounter --umount %s", AD_IMG_MOUNT_PATH);
    const int nResult = system_cmd(szCommand);
    AD_LOG("[ad_umount] umount done !!\n");
    return nResult;
}

int ad_replace_img() {
    AD_LOG("[CADAgentd] ReplaceFile, use [%s] replace [%s].", AD_DOWNLOADED_IMG_FILE, AD_IMG_FILE);
    if (!check_existed(AD_DOWNLOADED_IMG_FILE)) {
        AD_LOG_ERR("img file [%s] is not existed", AD_DOWNLOADED_IMG_FILE);
        return 0;
    }
    if (!check_existed(AD_IMG_PATH)) {
        AD_LOG_ERR("[ad_mount] dest path [%s] is not existed", AD_IMG_PATH);
        if (!ad_mounter_create("create_path_zeladagent_img")) {
            AD_LOG("[CADAgentd] ad_mounter_create %s failed.", AD_IMG_PATH);
            return 0;
        }
    }

    char szCommand[COMMAND_BUFFER_SIZE] = {0};
    snprintf(szCommand, sizeof(szCommand), "ad-mounter --replaceimg %s %s", AD_DOWNLOADED_IMG_FILE,
             AD_IMG_FILE);
    const int nResult = system_cmd(szCommand);
    AD_LOG("ReplaceFile done !!\n");
    return nResult;
}

int ad_copy_lib(const char* pSrc, const char* pDest) {
    if (!pSrc || !pDest) {
        AD_LOG_ERR("[ad_copy_lib] input lib so path is NULL");
        return 0;
    }
    AD_LOG("[ad_copy_lib] use [%s] replace [%s].", pSrc, pDest);
    if (!check_existed(pSrc)) {
        AD_LOG_ERR("[ad_copy_lib] libFileName [%s] is not existed", pSrc);
        return 0;
    }
    if (!check_existed(AD_OPT_LIB_PATH) && !ad_mounter_create("create_path_usr_lib")) {
        AD_LOG_ERR("[ad_copy_lib] ad_mounter_create %s failed.", AD_OPT_LIB_PATH);
        return 0;
    }

    long nSrcSize = 0;
    if (const base::UniqueFd oFile{ad_open_file(pSrc)}) {
        nSrcSize = lseek(oFile.get(), 0, SEEK_END);
        AD_LOG("[ad_copy_lib] CopyLib, srcLibSize = %ld", nSrcSize);
    }

    const std::string strCommand = std::string("ad-mounter --copylib ") + pSrc + " " + pDest;
    if (!system_cmd(strCommand.c_str())) {
        AD_LOG_ERR("[ad_copy_lib] copylib failed !!\n");
        return 0;
    }

    long nDestSize = 0;
    if (const base::UniqueFd oFile{ad_open_file(pDest)}) {
        nDestSize = lseek(oFile.get(), 0, SEEK_END);
        AD_LOG("[ad_copy_lib] destLibSize = %ld", nDestSize);
    }
    // A size is -1 when it cannot be determined.
    if (nDestSize > 0 && nDestSize == nSrcSize) {
        AD_LOG("[ad_copy_lib] copy lib with correct size !!\n");
        return 1;
    }
    AD_LOG_ERR("[ad_copy_lib] copy lib with error size !!\n");
    return 0;
}

int ad_copy_lib_fwk() {
    AD_LOG("[ad_copy_lib_fwk] use [%s] replace [%s].", AD_IMG_LIB_FWK_FILE, AD_OPT_LIB_FWK_FILE);
    return ad_copy_lib(AD_IMG_LIB_FWK_FILE, AD_OPT_LIB_FWK_FILE);
}

int ad_copy_lib_player() {
    AD_LOG("[ad_copy_lib_player] use [%s] replace [%s].", AD_IMG_LIB_PLAYER_FILE,
           AD_OPT_LIB_PLAYER_FILE);
    return ad_copy_lib(AD_IMG_LIB_PLAYER_FILE, AD_OPT_LIB_PLAYER_FILE);
}

int ad_copy_path(const char* pSrc, const char* pDest) {
    if (!check_existed(pSrc)) {
        AD_LOG_ERR("[ad_copy_path] Path [%s] is not existed", pSrc);
        return 0;
    }

    const std::string strCommand = std::string("ad-mounter --copy_all ") + pSrc + " " + pDest;
    const int nResult = system_cmd(strCommand.c_str());
    if (!nResult) AD_LOG_ERR("[ad_copy_path] remove path [%s] failed.", strCommand.c_str());
    return nResult;
}

int ad_copy_player_res() {
    if (check_existed(AD_PLAYER_RES_PATH)) {
        const std::string strCommand =
            std::string("ad-mounter --remove ") + "remove_player_res_path";
        if (!system_cmd(strCommand.c_str())) {
            AD_LOG_ERR("[ad_copy_path] remove path [%s] failed.", strCommand.c_str());
            return 0;
        }
    }

    AD_LOG("[ad_copy_player_res] use [%s] replace [%s].", AD_IMG_PLAYER_RES_PATH,
           AD_PLAYER_RES_PATH);
    return ad_copy_path(AD_IMG_PLAYER_RES_PATH, AD_PLAYER_RES_PATH);
}

int ad_copy() {
    // The message names another function.
    AD_LOG("ad_remove_lib_so_path in");
    if (!ad_copy_lib_fwk()) {
        AD_LOG_ERR("ad_copy failed in ad_copy_lib_fwk");
        return 0;
    }
    if (!ad_copy_lib_player()) {
        AD_LOG_ERR("ad_copy failed in ad_copy_lib_player");
        return 0;
    }
    if (!ad_copy_player_res()) {
        AD_LOG_ERR("ad_copy failed in ad_copy_player_res");
        return 0;
    }
    return 1;
}
