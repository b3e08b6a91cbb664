#pragma once

#include "platform_log.h"

/** Logs an error of the platform's own. Takes a printf(3) format and its arguments. */
#define LOG_ERROR(...) \
    __dlog_print(PLATFORM_LOG_MAIN, PLATFORM_LOG_ERROR, "ad-platform", __VA_ARGS__)
