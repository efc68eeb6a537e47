#include "sigmask.h"

#include <initializer_list>
#include <pthread.h>

static sigset_t set_of_daemon_signals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGTERM, SIGHUP, SIGUSR1, SIGUSR2})
        sigaddset(&set, number);
    return set;
}

void block_daemon_signals() {
    const sigset_t set = set_of_daemon_signals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void admit_pending_signals(bool pool_exists) {
    sigset_t set = set_of_daemon_signals();
    if (pool_exists)
        sigdelset(&set, SIGUSR1);
    sigset_t before;
    pthread_sigmask(SIG_UNBLOCK, &set, &before); // pending ones are delivered before it returns
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

sigset_t waiting_signal_mask() {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    for (const int number : {SIGTERM, SIGHUP, SIGUSR2})
        sigdelset(&mask, number);
    return mask;
}

void open_pause_signal() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}
