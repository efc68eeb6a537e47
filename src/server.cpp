#include "server.h"

#include "admin_ubus.h"
#include "blacklist.h"
#include "blockedlist.h"
#include "check.h"
#include "config.h"
#include "counters.h"
#include "forward.h"
#include "guards.h"
#include "ledutils.h"
#include "log.h"
#include "netutils.h"
#include "recorder.h"
#include "relay.h"
#include "report.h"
#include "request.h"
#include "signals.h"
#include "statsdb.h"
#include "tcp.h"
#include "thpool.h"
#include "whitelist.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

// Waiting jobs beyond which datagrams are dropped: while an upstream is silent a flood then costs a
// few megabytes and not the router.
static constexpr int MAX_WAITING_JOBS = 4096;
static constexpr time_t DROP_WARNING_INTERVAL = 10; // seconds

static bool has_workers() {
    return oDNS.pool && oDNS.pool->alive_count > 0;
}

// --- receive loop --------------------------------------------------------------------------------

static void log_receive_error(int code) {
    switch (code) {
    case EINTR:
        syslog(LOG_WARNING, "The operation was interrupted by a signal before any data was read. "
                            "See Primitives Interrupted by Signals.");
        break;
    case EBADF:
        syslog(LOG_WARNING, "The socket argument is not a valid file descriptor.");
        break;
    case EWOULDBLOCK:
        syslog(LOG_WARNING, "Operation would block");
        break;
    case ENOTSOCK:
        syslog(LOG_WARNING, "File descriptor socket is not a socket.");
        break;
    case ENOTCONN:
        syslog(LOG_WARNING, "You never connected this socket.");
        break;
    default:
        break;
    }
}

// Waits for the next datagram. Sets its length, and the sender's address as far as `address_length`
// allows. No signal ends the wait: a stop shows after the next datagram only.
static void receive(DnsRequest &received, socklen_t &address_length) {
    const ssize_t length =
        recvfrom(oDNS.listenfd, received.message, MAX_MESSAGE, 0,
                 reinterpret_cast<sockaddr *>(&received.client), &address_length);
    received.length = static_cast<int32_t>(length);
    const size_t filled = length > 0 ? static_cast<size_t>(length) : 0;
    memset(received.message + filled, 0, sizeof received.message - filled);
}

static bool queue_is_full() {
    static time_t warned_at;
    if (thpool_jobqueue_length(oDNS.pool) < MAX_WAITING_JOBS)
        return false;
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (warned_at == 0 || now.tv_sec - warned_at >= DROP_WARNING_INTERVAL) {
        syslog(LOG_WARNING, "Job queue is full, dropping queries");
        warned_at = now.tv_sec;
    }
    return true;
}

// Whether the receive loop may answer a query itself: handing it to a worker costs more than all
// the rest. What may have to wait is left to a worker, an upstream server's answer and rows that
// are written at once, and so is everything while each step is traced.
static bool needs_no_worker() {
    return (!oDNS.record_traffic || records_late()) && !is_logged(LOG_DEBUG) &&
           thpool_is_idle(oDNS.pool);
}

static void queue_request(const DnsRequest &received) {
    if (queue_is_full())
        return;
    auto *job = static_cast<DnsRequest *>(malloc(sizeof(DnsRequest)));
    if (!job)
        return;
    *job = received;
    if (thpool_add_work(oDNS.pool, _process_request, job) != 0)
        free(job);
}

static void take_request(DnsRequest &received) {
    syslog(LOG_DEBUG, "Request size: %ld", static_cast<long>(received.length));
    received.decision = Decision::OPEN;
    if (!needs_no_worker() || !answer_at_once(received))
        queue_request(received);
}

static void main_loop() {
    syslog(LOG_INFO, "Startup Complete.");
    syslog(LOG_DEBUG, "Starting main loop");
    DnsRequest received = {};
    // 0 for the first receive only, which therefore takes no address: the client of the first
    // datagram is never answered. Kept; whoever starts the daemon sends one query to prime it.
    socklen_t address_length = 0;
    while (!shutting_down) {
        receive(received, address_length);
        if (received.length < 0 && !shutting_down)
            log_receive_error(errno);
        else
            take_request(received);
    }
    syslog(LOG_DEBUG, "Exiting Main Loop");
}

// --- start-up ------------------------------------------------------------------------------------

static int set_interface_address(const char *interface, char **destination) {
    InterfaceAddress address = {};
    get_address_from_interface(interface, &address);
    syslog(LOG_INFO, "Back from checking interfaces");
    if (!destination) {
        syslog(LOG_DEBUG, "Null host pointer");
        return -1;
    }
    if (!*address.ipv4) {
        syslog(LOG_WARNING, "Unable to determine IP, using localhost");
        *destination = strdup("127.0.0.1");
    } else {
        syslog(LOG_DEBUG, " Host pointer OK");
        *destination = strdup(address.ipv4);
    }
    return 0;
}

static void create_base_directory() {
    struct stat status;
    if (stat(oDNS.path, &status) == 0)
        return;
    syslog(LOG_INFO, "Creating directory %s", oDNS.path);
    if (mkdir(oDNS.path, S_IRWXU) != 0)
        syslog(LOG_WARNING, "Cannot create directory %s", oDNS.path);
}

static void start_ubus_thread() {
    syslog(LOG_DEBUG, "Starting ubus thread");
    pthread_t handle;
    if (pthread_create(&handle, nullptr, admin_ubus_main, nullptr) == 0)
        pthread_detach(handle);
}

static void init_lists_and_stats() {
    multi_led_yellow();
    const bool has_database = init_stats();
    handle_pending_signals(false);
    init_black_list();
    handle_pending_signals(false);
    init_white_list();
    init_blocked_device_list();
    end_start_up_waits();
    if (has_database)
        start_recorder();
    multi_led_red();
}

static void init_lock() {
    if (pthread_mutex_init(&lock, nullptr) != 0) {
        syslog(LOG_ERR, "Mutex init failed");
        exit(6);
    }
}

static void server_init() {
    shutting_down = 0;
    load_config();
    handle_pending_signals(false);
    start_init_leds();
    set_interface_address(oDNS.interface, &oDNS.listen_address);
    create_base_directory();
    close_admin_gate(); // until the lists are there
    if (oDNS.admin_enabled)
        start_ubus_thread();
    init_lists_and_stats();
    handle_pending_signals(false);
    oDNS.pool = thpool_init(oDNS.thread_pool);
    thpool_run_in_turn(oDNS.pool); // `lock` would make them wait for each other anyway
    init_lock();
    open_admin_gate();
    log_config(0);
    handle_pending_signals(has_workers());
}

static void _open_ns_socket() {
    require((oDNS.listenfd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) >= 0,
            "(oDNS.listenfd = socket(AF_INET, SOCK_DGRAM, 0)) >= 0", "server: _open_ns_socket");
    const int fd = oDNS.listenfd;
    syslog(LOG_DEBUG, "Listen Socket descriptor: %d", fd);
    sockaddr_in sin = {};
    sin.sin_family = AF_INET;
    sin.sin_port = htons(static_cast<uint16_t>(oDNS.port));
    sin.sin_addr.s_addr = inet_addr(oDNS.listen_address);
    require(bind(fd, reinterpret_cast<sockaddr *>(&sin), sizeof sin) == 0,
            "bind(oDNS.listenfd, (struct sockaddr *) &sin, sizeof (sin)) == 0",
            "server: _open_ns_socket");
    syslog(LOG_DEBUG, "Bind completed");
    // On purpose behind the bind, where it changes nothing for this socket: a port that is taken
    // must end the start.
    const int reuse = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
    const int size = oDNS.socket_buffer_size;
    if (size > 0 && setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size) != 0)
        syslog(LOG_ERR, "Error setting receive buffer size to: %d", size);
    // No receive time-out: the socket blocks until a datagram comes.
}

// Makes the router itself ask this daemon first and the primary upstream after it.
static void _fix_resolv() {
    const OwnedFile file(fopen("/etc/resolv.conf", "we"));
    if (!file)
        return;
    const auto write_line = [&file](const char *keyword, const char *value) {
        char line[36]; // cuts a longer line, line end included
        snprintf(line, sizeof line, "%s %s\n", keyword, value);
        fputs(line, file.get());
    };
    write_line("search", "wlan");
    write_line("nameserver", "127.0.0.1");
    write_line("nameserver", shown(copy_upstream(0).get()));
}

static void open_sockets() {
    if (!oDNS.listen_address)
        return;
    syslog(LOG_INFO, "Opening sockets");
    _open_ns_socket();
    _open_upstream_dns_connection();
    start_relay();
    start_tcp(process_tcp_query);
    _fix_resolv();
    multi_led_blue();
    handle_pending_signals(has_workers());
}

// --- shutdown ------------------------------------------------------------------------------------

// Closes the socket. Its number leads nowhere from now on and is the caller's to keep until the
// workers are gone: one of them may be about to send on it, which must not reach another file.
static UniqueFd _close_dns_listener() {
    UniqueFd number(oDNS.listenfd.exchange(-1));
    const UniqueFd nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
    if (number && nowhere)
        dup3(nowhere.get(), number.get(), O_CLOEXEC);
    return number;
}

static void _stop_threadpool() {
    thpool_destroy(oDNS.pool, free); // frees the requests that no worker took
    oDNS.pool = nullptr;
}

static void _close_database() {
    if (oDNS.db)
        close_database();
}

static void server_shutdown() {
    shutting_down = 1;
    // A worker that a stray pause signal holds may have any lock, the log's included.
    thpool_resume(oDNS.pool);
    syslog(LOG_INFO, "Shutting down ...");
    end_edits();
    end_signal_thread(); // what reports read is taken down from here on
    // For good: what the bus thread reads is taken down now. If that thread is stuck in a call, the
    // settings are left to the end of the process.
    const bool bus_is_out = close_admin_gate();
    end_tcp();
    end_relay();
    {
        const UniqueFd listener = _close_dns_listener();
        _stop_threadpool();
    }
    _close_upstream_dns_connection();
    pthread_mutex_destroy(&lock);
    write_stats();
    end_recorder();
    black_list_cleanup();
    white_list_cleanup();
    blocked_device_list_cleanup();
    _close_database();
    if (bus_is_out)
        _free_config();
    shutdown_multi_led();
    syslog(LOG_INFO, "Shutdown Complete");
}

void server_run() {
    shutting_down = 0;
    server_init();
    open_sockets();
    start_signal_thread(has_workers());
    main_loop();
    server_shutdown();
}

void reload_lists() {
    // While `lock` is held no worker is in the middle of a request.
    const MutexGuard guard(lock);
    thpool_pause(oDNS.pool);
    syslog(LOG_DEBUG, "Cleaning up list");
    black_list_cleanup();
    syslog(LOG_DEBUG, "Blacklist done");
    white_list_cleanup();
    syslog(LOG_DEBUG, "Whitelist done");
    thpool_resume(oDNS.pool);
}
