#include "signals.h"

#include "counters.h"
#include "report.h"
#include "sigmask.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <pthread.h>
#include <syslog.h>
#include <unistd.h>

std::atomic<int> shutting_down;

static pthread_t signal_thread;
static sigset_t awaited; // by the thread

static void system_shutdown() {
    shutting_down = 1;
}

// Does what a signal asks for. Runs as a handler for SIGSEGV only.
static void sig_handler(int number) {
    if (number == SIGSEGV) {
        // A fault inside the logger or the allocator must not hang the process here for ever.
        signal(SIGSEGV, SIG_DFL);
        alarm(5);
    }
    syslog(LOG_INFO, "Processing signal %d\n", number);
    switch (number) {
    case SIGUSR1:
        log_config(1);
        break;
    case SIGUSR2:
        log_config(1);
        write_stats();
        break;
    case SIGTERM:
        syslog(LOG_INFO, "Processing signal SIGTERM");
        [[fallthrough]]; // the lines of the lesser signals are logged too
    case SIGINT:
        syslog(LOG_INFO, "Processing signal SIGINT");
        [[fallthrough]];
    case SIGABRT:
        syslog(LOG_INFO, "Processing signal SIGABRT");
        system_shutdown();
        break;
    default:
        exit(number);
    }
}

void set_signal_handlers() {
    for (const int number : {SIGUSR1, SIGUSR2, SIGHUP, SIGTERM, SIGSEGV})
        signal(number, sig_handler);
}

void handle_pending_signals(bool has_workers) {
    const sigset_t set = daemon_signals(!has_workers);
    const timespec at_once = {};
    for (int number; (number = sigtimedwait(&set, nullptr, &at_once)) > 0;)
        sig_handler(number);
}

// Ends with the signal that end_signal_thread() sends: nobody else in this process sends one.
static void *serve_signals(void *) {
    for (;;) {
        siginfo_t info;
        const int number = sigwaitinfo(&awaited, &info);
        if (number > 0 && info.si_pid == getpid())
            return nullptr;
        if (number > 0)
            sig_handler(number);
    }
}

void start_signal_thread(bool has_workers) {
    awaited = daemon_signals(!has_workers);
    if (pthread_create(&signal_thread, nullptr, serve_signals, nullptr) != 0) {
        syslog(LOG_CRIT, "Cannot start the signal thread");
        exit(EXIT_FAILURE);
    }
}

void end_signal_thread() {
    pthread_kill(signal_thread, SIGUSR2);
    pthread_join(signal_thread, nullptr);
}
