/**
 * The diagnostic log: AD_LOG at the normal level, AD_LOG_ERR at the error level.
 *
 * A statement takes a printf(3) format and its arguments and writes the message
 * to the platform log and to standard output. It evaluates the arguments twice,
 * so they must have no side effects.
 */
#pragma once

#include "platform_log.h"

#include <cstdio>

#include <sys/syscall.h>
#include <unistd.h>

#define AD_LOG_TAG "AD_DAEMON"
#define AD_LOG_COLOUR_NORMAL "\033[0m"
#define AD_LOG_COLOUR_ERROR "\033[31m"

// __FILE_NAME__ is the base name of __FILE__, as a literal.
#define AD_LOG_STATEMENT(priority, colour, format, ...)                                            \
    do {                                                                                           \
        const long nPlatformTid = syscall(SYS_gettid);                                             \
        __dlog_print(PLATFORM_LOG_MAIN, priority, AD_LOG_TAG,                                      \
                     "%s: %s(%d) > " colour " [%s:%d] [Thread Id:[%ld]] " format, __FILE_NAME__,   \
                     __FUNCTION__, __LINE__, __FUNCTION__, __LINE__, nPlatformTid, ##__VA_ARGS__); \
        const long nOutputTid = syscall(SYS_gettid);                                               \
        printf(colour " [(Thread Id:%ld): %s(%d)] " format "\n", nOutputTid, __FUNCTION__,         \
               __LINE__, ##__VA_ARGS__);                                                           \
    } while (0)

#define AD_LOG(format, ...) \
    AD_LOG_STATEMENT(PLATFORM_LOG_NORMAL, AD_LOG_COLOUR_NORMAL, format, ##__VA_ARGS__)

#define AD_LOG_ERR(format, ...) \
    AD_LOG_STATEMENT(PLATFORM_LOG_ERROR, AD_LOG_COLOUR_ERROR, format, ##__VA_ARGS__)
