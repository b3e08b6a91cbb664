// What makes a library of tests/guard an agent library, and further ways to take a box down.
#include <fcntl.h>
#include <signal.h>
#include <stddef.h>
#include <sys/time.h>
#include <unistd.h>

#define ENTRY_POINT(name) \
    int name(void);       \
    int name(void) { return 0; }
ENTRY_POINT(ad_agent_clear)
ENTRY_POINT(ad_agent_register)
ENTRY_POINT(ad_agent_unregister)
ENTRY_POINT(ad_agent_request)
ENTRY_POINT(ad_agent_request_sync)
ENTRY_POINT(ad_agent_report)
ENTRY_POINT(ad_agent_launch)
ENTRY_POINT(ad_agent_update)
ENTRY_POINT(ad_agent_set_soversion)
ENTRY_POINT(ad_agent_get_soversion)
ENTRY_POINT(ad_agent_psid_get)
ENTRY_POINT(ad_agent_config_server)

#if defined KIND_hang_later || defined KIND_panic
static void hang(int number) {
    (void)number;
    for (;;) {
        pause();
    }
}
#endif

#ifdef KIND_hang_later
// In a handler on the main thread: its loop stops.
__attribute__((constructor)) static void hang_later(void) {
    signal(SIGALRM, hang);
    const struct itimerval later = {{0, 0}, {2, 0}};
    setitimer(ITIMER_REAL, &later, NULL);
}
#endif

#ifdef KIND_panic
// Whoever finds the file cuts the power: no user's library makes the kernel reboot.
__attribute__((constructor)) static void panic(void) {
    close(creat("/opt/usr/apps/adagent/panic", 0644));
    hang(0);
}
#endif
