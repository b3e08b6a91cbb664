/**
 * The places on the device that more than one unit works with.
 */
#ifndef AD_PATHS_H
#define AD_PATHS_H

/** The updatable library copy's directory, and the two libraries in it. */
#define AD_OPT_LIB_PATH "/opt/usr/lib"
#define AD_OPT_LIB_FWK_FILE "/opt/usr/lib/libad-agent-fwk.so"
#define AD_OPT_LIB_PLAYER_FILE "/opt/usr/lib/libad-player-fwk.so"

/** The library copy that came with the firmware. */
#define AD_FIRMWARE_LIB_FWK_FILE "/usr/lib/libad-agent-fwk.so"

/** Where the agent library leaves a downloaded image. */
#define AD_DOWNLOADED_IMG_FILE "/opt/usr/apps/adagent/zelADAgent.img"

/** The stored image, its directory, and where it is mounted. */
#define AD_IMG_PATH "/opt/down/zels/zelADAgent_img"
#define AD_IMG_FILE "/opt/down/zels/zelADAgent_img/zelADAgent.img"
#define AD_IMG_MOUNT_PATH "/opt/usr/apps/zelADAgent"

/** What the mounted image shows. */
#define AD_IMG_XML_FILE "/opt/usr/apps/zelADAgent/zelADAgent.xml"
#define AD_IMG_LIB_FWK_FILE "/opt/usr/apps/zelADAgent/libad-agent-fwk.so"
#define AD_IMG_LIB_PLAYER_FILE "/opt/usr/apps/zelADAgent/libad-player-fwk.so"
#define AD_IMG_PLAYER_RES_PATH "/opt/usr/apps/zelADAgent/adplayer/res"

/** The installed player resources. */
#define AD_PLAYER_RES_PATH "/usr/bin/zels/zelADAgent/adplayer/res"

#endif
