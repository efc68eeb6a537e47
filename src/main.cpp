// The process entry: options, banner, signal handlers, and then the server until it stops.

#include "config.h"
#include "log.h"
#include "server.h"
#include "sigmask.h"
#include "signals.h"
#include "strutils.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <syslog.h>
#include <unistd.h>

static constexpr const char *ARCHITECTURE = "MIPS"; // on every build; front ends show it
static constexpr const char *NOTICE[] = {"Copyright (C) 2026", "The Vantrelle project"};

static void cleanup() {
    syslog(LOG_DEBUG, "%s (%s) Performing Cleanup...", PRODUCT_NAME, PRODUCT_VERSION);
}

// Goes to the log, not to the terminal, and advertises -f, which the parser does not know.
static void usage() {
    syslog(LOG_INFO, "Usage -p <listen port> -u <dns address> -m <max threads> "
                     "-t <upstream dns timeout> -s <socket buffer size> -l <log level[0..8]> "
                     "[-f run in foreground]\n");
}

static void brag() {
    syslog(LOG_INFO, "%s v%s %s", PRODUCT_NAME, PRODUCT_VERSION, ARCHITECTURE);
    syslog(LOG_INFO, "%s %s", NOTICE[0], NOTICE[1]);
    printf("%s v%s %s\n", PRODUCT_NAME, PRODUCT_VERSION, ARCHITECTURE);
    printf("%s %s\n", NOTICE[0], NOTICE[1]);
    fflush(stdout);
}

// Ends the process; bringing the daemon back is the service supervisor's job.
static void restart() {
    syslog(LOG_INFO, "Restarting PID: %u\n", static_cast<unsigned>(oDNS.pid));
    raise(SIGHUP);
}

static void reject_option() {
    if (optopt > 0)
        syslog(LOG_WARNING, "Unknown option: %c", optopt);
    usage();
    exit(EXIT_SUCCESS);
}

// The setting that an option stores its number or its text in; null for another kind of option.
static int32_t *number_for(int option) {
    switch (option) {
    case 'm':
        return &oDNS.thread_pool;
    case 'p':
        return &oDNS.port;
    case 's':
        return &oDNS.socket_buffer_size;
    case 't':
        return &oDNS.dns_timeout;
    case 'x':
        return &oDNS.log_stats_interval;
    default:
        return nullptr;
    }
}

static char **text_for(int option) {
    switch (option) {
    case 'c':
        return &oDNS.path;
    case 'i':
        return &oDNS.interface;
    case 'u':
        return &oDNS.upstream_dns[0];
    case 'y':
        return &oDNS.upstream_dns[1];
    default:
        return nullptr;
    }
}

// Each option takes effect at once. The stored settings replace all of them but the log level.
static void apply_option(int option, char *argument) {
    if (int32_t *number = number_for(option))
        *number = decimal(argument);
    if (char **text = text_for(option))
        *text = argument;
    switch (option) {
    case 'a':
        oDNS.admin_enabled = 1;
        break;
    case 'b':
        raise(SIGUSR1); // before the handlers are installed: ends the process
        break;
    case 'l':
        oDNS.log_level = decimal(argument);
        set_log_mask(oDNS.log_level);
        break;
    case 'n':
        printf("%s", PRODUCT_VERSION);
        exit(EXIT_SUCCESS);
    case 'r':
        restart(); // before the handlers are installed: ends the process
        break;
    case 'v':
        brag();
        exit(EXIT_SUCCESS);
    case '?':
        reject_option();
        break;
    default:
        break;
    }
}

int main(int argc, char **argv) {
    atexit(cleanup);
    set_logged_priorities(127);
    openlog("vantrelled", LOG_PID | LOG_CONS | LOG_NDELAY, LOG_LOCAL0);
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread runs yet
    for (int option; (option = getopt(argc, argv, "abc:i:l:m:np:rs:t:u:vx:y:?")) != -1;)
        apply_option(option, optarg);
    block_daemon_signals();
    oDNS.pid = getpid();
    brag();
    set_signal_handlers();
    server_run();
    return 0;
}
