// An agent library for each way to take the daemon down: KIND_... chooses.
#include <signal.h>
#include <stdlib.h>
#include <sys/time.h>
#include <unistd.h>

#ifdef KIND_constructor
__attribute__((constructor)) static void crash_at_once(void) { abort(); }
#endif

#ifdef KIND_later
static void on_alarm(int number) {
    (void)number;
    abort();
}
#endif

int ad_agent_init(void);

int ad_agent_init(void) {
#if defined KIND_init
    raise(SIGSEGV);
#elif defined KIND_immediate_exit
    _exit(3);
#elif defined KIND_exit
    exit(0);
#elif defined KIND_later
    signal(SIGALRM, on_alarm);
    const struct itimerval soon = {{0, 0}, {0, 300000}};
    setitimer(ITIMER_REAL, &soon, NULL);
#elif defined KIND_hang
    for (;;) {
        pause();
    }
#endif
    return 0;
}
