/**
 * The fixed paths of the device. A _PATH is a directory, a _FILE is a file.
 */
#pragma once

/** The updatable copy of the libraries. */
constexpr const char* AD_OPT_LIB_PATH = "/opt/usr/lib";
constexpr const char* AD_OPT_LIB_FWK_FILE = "/opt/usr/lib/libad-agent-fwk.so";
constexpr const char* AD_OPT_LIB_PLAYER_FILE = "/opt/usr/lib/libad-player-fwk.so";

/** The firmware copy of the agent library, the firmware's manifest and the player resources. */
constexpr const char* AD_FIRMWARE_LIB_FWK_FILE = "/usr/lib/libad-agent-fwk.so";
constexpr const char* AD_FIRMWARE_XML_FILE = "/usr/bin/zels/zelADAgent/zelADAgent.xml";
constexpr const char* AD_PLAYER_RES_PATH = "/usr/bin/zels/zelADAgent/adplayer/res";

/** The agent library's data: the manifest of the updatable copy and the downloaded image. */
constexpr const char* AD_AGENT_DATA_PATH = "/opt/usr/apps/adagent";
constexpr const char* AD_CACHE_XML_FILE = "/opt/usr/apps/adagent/zelADAgentCache.xml";
constexpr const char* AD_DOWNLOADED_IMG_FILE = "/opt/usr/apps/adagent/zelADAgent.img";

/** The agent package's download directory, and the stored image with its directory. */
constexpr const char* AD_PACKAGE_PATH = "/opt/down/zels/zelADAgent";
constexpr const char* AD_IMG_PATH = "/opt/down/zels/zelADAgent_img";
constexpr const char* AD_IMG_FILE = "/opt/down/zels/zelADAgent_img/zelADAgent.img";

/** The stored image's mount point, and the contents of the mounted image. */
constexpr const char* AD_IMG_MOUNT_PATH = "/opt/usr/apps/zelADAgent";
constexpr const char* AD_IMG_XML_FILE = "/opt/usr/apps/zelADAgent/zelADAgent.xml";
constexpr const char* AD_IMG_LIB_FWK_FILE = "/opt/usr/apps/zelADAgent/libad-agent-fwk.so";
constexpr const char* AD_IMG_LIB_PLAYER_FILE = "/opt/usr/apps/zelADAgent/libad-player-fwk.so";
constexpr const char* AD_IMG_PLAYER_RES_PATH = "/opt/usr/apps/zelADAgent/adplayer/res";

/** The firmware version that the updatable copy was accepted for. */
constexpr const char* AD_FIRMWARE_VERSION_FILE = "/opt/media/Documents/adagentversion.txt";

/** Exists once the settings store is ready. */
constexpr const char* AD_SETTINGS_READY_FILE = "/tmp/vconf_ready";
