// What the daemon does when it gets a signal.
//
// Signals are not handled where they interrupt something but taken from the set of pending ones
// (sigmask.h keeps them blocked): by the main thread between the steps of its start-up, and while
// the daemon serves by one thread that does nothing else. So what they do may log and write to the
// database. Those that nobody takes, because a report is being written or a shutdown is under way,
// wait. SIGSEGV alone interrupts.
#pragma once

#include <atomic>

// 1 once the daemon shall stop; the receive loop sees it after the next datagram.
extern std::atomic<int> shutting_down;

// Installs sig_handler() for SIGSEGV, and for the others so that none of them is ignored because
// the daemon's parent ignored it. Main thread, before the start-up.
void set_signal_handlers();

// Acts on the signals that are pending now. SIGUSR1 is left alone once there are workers: from then
// on it is their pause signal. Main thread, during start-up.
void handle_pending_signals(bool has_workers);

// Starts the thread that acts on signals from now on, and ends it when the one it acts on is done
// with. Ends the process with status 1 without a thread. SIGUSR1 as above. Main thread.
void start_signal_thread(bool has_workers);
void end_signal_thread();
