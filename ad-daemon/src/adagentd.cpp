#include "adagentd.h"

#include "ADLog.h"

#include <csignal>
#include <cstdio>

#include <glib-object.h>

GMainLoop* loop = nullptr;
CADAgentd* gpadagentd = nullptr;

void sig_quit(int nSignal) {
    if (nSignal != SIGTERM && nSignal != SIGHUP && nSignal != SIGINT) return;
    AD_LOG("adagentd is stopped by signal, which is [%d]", nSignal);
    g_main_loop_quit(loop);
}

void sigterm_handler(int nSignal) {
    if (nSignal != SIGTERM) return;
    if (gpadagentd) gpadagentd->Destory();
    AD_LOG("Mounter-Server stopped by kill signal");
}

bool adagentd_Start() {
    AD_LOG("MOX Mounter Start...");
    gpadagentd = new CADAgentd();
    return gpadagentd->Start();
}

int main() {
    // Line by line into a pipe as well, so that a killed daemon leaves no line behind.
    setvbuf(stdout, nullptr, _IOLBF, 0);

    AD_LOG("main");
    G_GNUC_BEGIN_IGNORE_DEPRECATIONS
    g_type_init();
    G_GNUC_END_IGNORE_DEPRECATIONS

    loop = g_main_loop_new(nullptr, TRUE);
    if (!loop) {
        AD_LOG_ERR("g_main_loop_new failed");
        return -1;
    }

    signal(SIGTERM, sig_quit);
    signal(SIGHUP, sig_quit);
    signal(SIGINT, sig_quit);

    adagentd_Start();
    g_main_loop_run(loop);

    if (gpadagentd) {
        delete gpadagentd;
        gpadagentd = nullptr;
    }
    g_main_loop_unref(loop);

    AD_LOG("reset signal handler to default");
    signal(SIGTERM, SIG_DFL);
    signal(SIGINT, SIG_DFL);
    signal(SIGHUP, SIG_DFL);
    return 0;
}
