// Which signals the daemon acts on, and which thread lets one in.
//
// Once the options are parsed every thread keeps them blocked, so that no handler ever runs in the
// middle of a call; signals.h takes them one by one. Only workers let in SIGUSR1, their pause
// signal.
#pragma once

#include <csignal>

// SIGTERM, SIGHUP and SIGUSR2, and SIGUSR1 if it is no pause signal yet.
sigset_t daemon_signals(bool with_sigusr1);

// Blocks all four in the calling thread and in all that it starts.
void block_daemon_signals();

// Lets the pause signal in. Worker threads, once they have installed its handler.
void open_pause_signal();
