/**
 * The process: its main loop, its one controller and its signal handlers.
 */
#pragma once

#include "CADAgentd.h"

#include <glib.h>

/** The main loop; null until main creates it, and never reset. */
extern GMainLoop* loop;

/** The one controller; null until its construction is complete and after its deletion. */
extern CADAgentd* gpadagentd;

/** Creates the controller and returns the result of its Start. */
bool adagentd_Start();

/** Quits the main loop on SIGTERM, SIGHUP and SIGINT. */
void sig_quit(int nSignal);

/** Tears the controller down on SIGTERM without quitting the loop. Installed for no signal. */
void sigterm_handler(int nSignal);
