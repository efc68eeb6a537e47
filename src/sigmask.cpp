#include "sigmask.h"

#include <iterator>
#include <pthread.h>

static constexpr int DAEMON_SIGNALS[] = {SIGTERM, SIGHUP, SIGUSR1, SIGUSR2};

// Of the main thread and its handlers alone.
static volatile std::sig_atomic_t deferring;
static volatile std::sig_atomic_t deferred[std::size(DAEMON_SIGNALS)];

static sigset_t set_of_daemon_signals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : DAEMON_SIGNALS)
        sigaddset(&set, number);
    return set;
}

static sigset_t set_for_main_thread(bool has_workers) {
    sigset_t set = set_of_daemon_signals();
    if (has_workers)
        sigdelset(&set, SIGUSR1);
    return set;
}

void block_daemon_signals() {
    const sigset_t set = set_of_daemon_signals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void admit_pending_signals(bool has_workers) {
    const sigset_t set = set_for_main_thread(has_workers);
    sigset_t before;
    pthread_sigmask(SIG_UNBLOCK, &set, &before); // pending ones are delivered before it returns
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void defer_signals(bool has_workers) {
    deferring = 1;
    const sigset_t set = set_for_main_thread(has_workers);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

bool is_deferred(int number) {
    bool noted = false;
    for (size_t i = 0; deferring && i < std::size(DAEMON_SIGNALS); i++)
        if (DAEMON_SIGNALS[i] == number) {
            deferred[i] = 1;
            noted = true;
        }
    return noted;
}

SignalWindow::SignalWindow() {
    deferring = 0; // first: a signal that comes during the loop is handled or found by it
    for (size_t i = 0; i < std::size(DAEMON_SIGNALS); i++)
        if (deferred[i]) {
            deferred[i] = 0;
            raise(DAEMON_SIGNALS[i]); // returns when the handler has
        }
}

SignalWindow::~SignalWindow() {
    deferring = 1;
}

void open_pause_signal() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}
