// Which thread lets which signal in, and when.
//
// The signal handlers log, and one of them writes to the database, so they must never run in the
// middle of such a call. Once the options are parsed every thread keeps the daemon's signals
// blocked; the main thread lets them in between the steps of its start-up and handles them while it
// waits for a datagram, and workers let in SIGUSR1 alone, their pause signal.
#pragma once

#include <csignal>

// Blocks SIGTERM, SIGHUP, SIGUSR1 and SIGUSR2 in the calling thread and in all that it starts.
void block_daemon_signals();

// Runs the handlers of pending signals now. SIGUSR1 stays out once there are workers: from then on
// it is their pause signal. Main thread.
void admit_pending_signals(bool has_workers);

// From now on signals reach the main thread's handler at any time, which has to ask is_deferred()
// first, and are handled within a SignalWindow: that takes no system calls, as a mask of its own
// for every wait would. SIGUSR1 as above. Main thread; block_daemon_signals() ends it.
void defer_signals(bool has_workers);

// Whether the handler of a signal must return at once: it will be called again in the next window.
// Handlers.
bool is_deferred(int number);

// Signals are handled while one lives, those that were deferred in its constructor. Main thread.
struct SignalWindow {
    SignalWindow();
    ~SignalWindow();
    SignalWindow(const SignalWindow &) = delete;
    SignalWindow &operator=(const SignalWindow &) = delete;
};

// Lets the pause signal in. Worker threads, once they have installed its handler.
void open_pause_signal();
