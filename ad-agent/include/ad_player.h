/**
 * The player library, libad-player-fwk.so. It is installed beside the agent library and
 * has no player yet, only its version.
 */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/** Returns the library's version, such as "1.0.0": static text, never NULL. */
__attribute__((visibility("default"))) const char* ad_player_version(void);

#ifdef __cplusplus
}
#endif
