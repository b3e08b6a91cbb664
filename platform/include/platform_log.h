/**
 * The platform log: one function that takes a printf-style message.
 */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/** Log buffers. The daemon writes to the main one only. */
enum platform_log_id { PLATFORM_LOG_MAIN = 0 };

/** The priorities that the daemon uses. */
enum platform_log_priority { PLATFORM_LOG_NORMAL = 2, PLATFORM_LOG_ERROR = 16 };

/**
 * Writes one message to the platform log.
 *
 * @param log_id    a platform_log_id
 * @param priority  a platform_log_priority
 * @param tag       names the program; borrowed for the call
 * @param format    a printf(3) format, followed by its arguments; all borrowed
 * @return the number of bytes written, or a negative value on failure. The
 *         daemon ignores it.
 *
 * May be called from any thread and from a signal handler.
 */
/* The name is the platform's.
   NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl*,readability-identifier-naming) */
int __dlog_print(int log_id, int priority, const char* tag, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

#ifdef __cplusplus
}
#endif
