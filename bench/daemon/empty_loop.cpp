// The program that the daemon's start time, memory and wake-ups are compared with.
#include <cstdio>

#include <glib-object.h>
#include <glib.h>

int main() {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    G_GNUC_BEGIN_IGNORE_DEPRECATIONS
    g_type_init();
    G_GNUC_END_IGNORE_DEPRECATIONS
    GMainLoop* loop = g_main_loop_new(nullptr, TRUE);
    printf("ready\n");
    g_main_loop_run(loop);
    g_main_loop_unref(loop);
    return 0;
}
