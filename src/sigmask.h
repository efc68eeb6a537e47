// Which thread lets which signal in, and when.
//
// The signal handlers log, and one of them writes to the database, so they must never run in the
// middle of such a call. Once the options are parsed every thread keeps the daemon's signals
// blocked; the main thread lets them in between the steps of its start-up, while it waits for a
// datagram and now and then when it need not wait, and workers let in SIGUSR1 alone, their pause
// signal.
#pragma once

#include <csignal>

// Blocks SIGTERM, SIGHUP, SIGUSR1 and SIGUSR2 in the calling thread and in all that it starts.
void block_daemon_signals();

// Runs the handlers of pending signals now. SIGUSR1 stays out once a pool exists (`pool_exists`):
// from then on it is the workers' pause signal. Main thread.
void admit_pending_signals(bool pool_exists);

// The mask for ppoll() in the main thread's wait for a datagram.
sigset_t waiting_signal_mask();

// Lets the pause signal in. Worker threads, once they have installed its handler.
void open_pause_signal();
