#include "sigmask.h"

#include <initializer_list>
#include <pthread.h>

sigset_t daemon_signals(bool with_sigusr1) {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGTERM, SIGHUP, SIGUSR2})
        sigaddset(&set, number);
    if (with_sigusr1)
        sigaddset(&set, SIGUSR1);
    return set;
}

void block_daemon_signals() {
    const sigset_t set = daemon_signals(true);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void open_pause_signal() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}
