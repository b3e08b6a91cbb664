#include "ad_player.h"

const char* ad_player_version(void) { return AD_PLAYER_VERSION; }
