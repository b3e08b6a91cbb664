/**
 * The player library, libad-player-fwk.so. It is installed beside the agent
 * library and plays nothing yet: it tells its version.
 */
#ifndef AD_PLAYER_H
#define AD_PLAYER_H

#ifdef __cplusplus
extern "C" {
#endif

/** Gives the library's version, such as "1.0.0": static text, never NULL. */
__attribute__((visibility("default"))) const char* ad_player_version(void);

#ifdef __cplusplus
}
#endif

#endif
