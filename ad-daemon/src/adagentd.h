/**
 * The process: its one controller, its signal handlers.
 */
#ifndef ADAGENTD_H
#define ADAGENTD_H

#include "CADAgentd.h"

#include <glib.h>

/** The main loop; null before main has made it. */
extern GMainLoop* loop;

/** The one controller; null before its construction is complete and after its deletion. */
extern CADAgentd* gpadagentd;

/** Creates the controller and starts it; returns what CADAgentd::Start returns. */
bool adagentd_Start();

/** Ends the main loop on SIGTERM, SIGHUP and SIGINT. */
void sig_quit(int nSignal);

/** Tears the controller down on SIGTERM, without ending the loop. Installed for no signal. */
void sigterm_handler(int nSignal);

#endif
