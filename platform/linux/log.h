#pragma once

#include "platform_log.h"

/** One line of the platform's own, as an error. A printf(3) format and its arguments. */
#define log_error(...) \
    __dlog_print(PLATFORM_LOG_MAIN, PLATFORM_LOG_ERROR, "ad-platform", __VA_ARGS__)
