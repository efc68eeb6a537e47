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
#include "netutils.h"
#include "sigmask.h"
#include "statsdb.h"
#include "svrutils.h"
#include "thpool.h"
#include "utils.h"
#include "whitelist.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <initializer_list>
#include <strings.h>
#include <sys/stat.h>
#include <syslog.h>

std::atomic<int> shutting_down;

// Waiting jobs beyond which datagrams are dropped: while an upstream is silent a flood then costs a
// few megabytes and not the router.
static constexpr int MAX_WAITING_JOBS = 4096;
static constexpr time_t DROP_WARNING_INTERVAL = 10; // seconds

static const char *shown(const char *text) {
    return text ? text : "(null)";
}

static bool has_workers() {
    return oDNS.pool && oDNS.pool->alive_count > 0;
}

static unsigned long thread_id() {
    return static_cast<unsigned long>(pthread_self());
}

// Reports

// Where a report's lines go, each with the text of its format.
typedef void (*ReportLine)(const char *format, ...) __attribute__((format(printf, 1, 2)));

__attribute__((format(printf, 1, 2))) static void line_to_log(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vsyslog(LOG_INFO, format, arguments);
    va_end(arguments);
}

// Writes no line break: the lines of a printed report run together, and are kept so.
__attribute__((format(printf, 1, 2))) static void line_to_stdout(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::vprintf(format, arguments);
    va_end(arguments);
}

static const char *flag_text(int flag) {
    return flag ? "True" : "False";
}

static void report_upstreams(ReportLine line) {
    line("Primary Upstream DNS: %s", shown(copy_upstream(0).get()));
    line("Secondary Upstream DNS: %s", shown(copy_upstream(1).get()));
    line("Tertiary Upstream DNS: %s", shown(copy_upstream(2).get()));
    line("Quaternary Upstream DNS: %s", shown(copy_upstream(3).get()));
}

static void report_settings(ReportLine line) {
    char uptime[TIME_TEXT_SIZE];
    time2String(uptime, time(nullptr) - oDNS.start_time);
    line("Host Name: %s", shown(oDNS.hostname));
    line("Listening on Interface: %s", shown(oDNS.interface));
    line("Listen on ipv4: %s#%d", shown(oDNS.listen_address), oDNS.port);
    report_upstreams(line);
    line("Upstream DNS Timeout: %d", oDNS.dns_timeout);
    if (oDNS.socket_buffer_size != -1)
        line("Socket Buffer Size %d", oDNS.socket_buffer_size);
    line("Admin Enabled: %s", flag_text(oDNS.admin_enabled));
    line("Thread pool size: %d", oDNS.thread_pool);
    line("Log stats interval: %d", oDNS.log_stats_interval);
    line("Log level: %d", oDNS.log_level.load());
    line("Log all Traffic: %s", flag_text(oDNS.record_traffic));
    line("Disabled: %s", flag_text(oDNS.disabled));
    line("Debug: %s", flag_text(oDNS.debug));
    line("Uptime: %s", uptime);
    line("PID: %u", static_cast<unsigned>(getpid()));
    line("Base Directory: %s", shown(oDNS.path));
}

static void report_list_sizes(ReportLine line) {
    line("Blacklist Size: %s", commaprint(get_black_list_size()));
    line("Local Blacklist Size: %s", commaprint(get_local_black_list_size()));
    line("Whitelist Size: %s", commaprint(get_white_list_size()));
    line("Local Whitelist Size: %s", commaprint(get_local_white_list_size()));
    line("Local Admin List Size: %s", commaprint(get_local_device_list_size()));
}

static void report(ReportLine line, int with_stats) {
    report_settings(line);
    if (!with_stats)
        return;
    log_stats();
    report_list_sizes(line);
}

void log_config(int with_stats) {
    report(line_to_log, with_stats);
}

void print_config(int with_stats) {
    line_to_stdout("Vantrelle v%s", PRODUCT_VERSION);
    report(line_to_stdout, with_stats);
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

// Classification and diversion

static int is_reverse(const char *name, sockaddr_in client) {
    // IPv6 reverse names are not recognised.
    if (std::strlen(name) < 13 || !std::strstr(name, "in-addr.arpa"))
        return 0;
    syslog(LOG_DEBUG, "%s is a reverse lookup (%s)", name, socket2ip(client));
    return 1;
}

static bool is_own_name(const char *name) {
    if (strcasecmp(name, "vantrelle") == 0 || strcasecmp(name, "vantrelle.localdomain") == 0)
        return true;
    const size_t length = std::strlen(oDNS.hostname);
    if (strncasecmp(name, oDNS.hostname, length) != 0)
        return false;
    // The buffer cuts the suffix to ".loca"; queries for the full name go through the lists. Kept.
    char with_suffix[24];
    std::snprintf(with_suffix, sizeof with_suffix, "%s.local", oDNS.hostname);
    return !name[length] || strcasecmp(name, with_suffix) == 0;
}

static int is_local(const char *name, sockaddr_in client) {
    if (!is_own_name(name))
        return 0;
    syslog(LOG_INFO, "%s is local server (%s)", name, socket2ip(client));
    return 1;
}

void divert(const uint8_t *message, int32_t length, sockaddr_in client, int blocked) {
    // A pointer to the question's name (RFC 1035, 4.1.4), type A, class IN, 1345 seconds to live,
    // 4 bytes of data: 255.255.255.255.
    static constexpr uint8_t ANSWER[] = {0xC0, 0x0C, 0x00, 0x01, 0x00, 0x01, 0x00, 0x00,
                                         0x05, 0x41, 0x00, 0x04, 0xFF, 0xFF, 0xFF, 0xFF};
    syslog(LOG_DEBUG, "Diverting");
    if (blocked == 1) {
        update_stats(1, 1, 0, 0);
        multi_led_red();
    } else {
        multi_led_green();
    }
    if (length < 0)
        length = 0;
    uint8_t reply[MAX_MESSAGE + sizeof ANSWER] = {};
    std::memcpy(reply, message, static_cast<size_t>(length));
    reply[2] = 0x80;  // a response; opcode, authority, truncation and recursion desired are cleared
    reply[3] |= 0x83; // recursion available, name error
    reply[6] = 0;     // one answer
    reply[7] = 1;
    reply[10] = reply[11] = 0; // no additional records, though the query's own may still follow
    std::memcpy(reply + length, ANSWER, sizeof ANSWER);
    const ssize_t sent =
        send_datagram(oDNS.listenfd, reply, length + static_cast<int32_t>(sizeof ANSWER), client);
    if (sent < 0)
        syslog(LOG_ERR, "[%lu] Divert Received error: %s %d\n", thread_id(), error_text(),
               static_cast<int>(sent));
}

// The first rule that matches decides. Blocked devices win over everything, white over black.
static Decision decide(const char *name, sockaddr_in client) {
    if (oDNS.disabled == 1 || is_local(name, client) || is_reverse(name, client))
        return Decision::FORWARD;
    const Query query{name, socket2ip(client)};
    if (is_blocked_device(query))
        return Decision::DIVERT;
    if (is_whitelisted(query))
        return Decision::FORWARD_AND_RECORD;
    return is_blacklisted(query) ? Decision::DIVERT : Decision::FORWARD_AND_RECORD;
}

// Decides unless that is done, and diverts what is blocked. Returns whether it was. Sets the name.
static bool divert_if_blocked(DnsRequest &request, char (&name)[QUERY_NAME_SIZE]) {
    extract_url(name, request.message, QUESTION_OFFSET, request.client);
    if (request.decision == Decision::OPEN)
        request.decision = decide(name, request.client);
    if (request.decision != Decision::DIVERT)
        return false;
    divert(request.message, request.length, request.client, 1);
    return true;
}

static void answer(DnsRequest &request) {
    char name[QUERY_NAME_SIZE] = "";
    if (divert_if_blocked(request, name))
        return;
    forward_request(request.message, request.length, request.client);
    if (request.decision == Decision::FORWARD_AND_RECORD && oDNS.record_traffic == 1)
        record_request(name, request.client);
}

void *_process_request(void *job) {
    const MutexGuard guard(lock);
    const bool timed = is_logged(LOG_DEBUG); // reading the processor clock is a system call
    const clock_t start = timed ? clock() : 0;
    if (timed)
        debugLog("Request Start", start);
    {
        const std::unique_ptr<DnsRequest, FreeMemory> request(static_cast<DnsRequest *>(job));
        answer(*request);
    }
    if (timed) {
        syslog(LOG_DEBUG, "Request End: %lf",
               static_cast<double>(clock() - start) / CLOCKS_PER_SEC);
        syslog(LOG_DEBUG, "_____________________________________________________________");
    }
    return nullptr;
}

// Receive loop

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
// allows. Signals are handled here and do not end the wait: a stop shows after the next datagram
// only.
static void receive(DnsRequest &received, socklen_t &address_length) {
    const SignalWindow window;
    ssize_t length;
    do // most C libraries resume the call themselves behind a handler
        length = recvfrom(oDNS.listenfd, received.message, MAX_MESSAGE, 0,
                          reinterpret_cast<sockaddr *>(&received.client), &address_length);
    while (length < 0 && errno == EINTR);
    received.length = static_cast<int32_t>(length);
    const size_t filled = length > 0 ? static_cast<size_t>(length) : 0;
    std::memset(received.message + filled, 0, sizeof received.message - filled);
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

// Diverts a query here and now when no other is being answered or waits: handing it to a worker
// costs more than all the rest. What may have to wait is left to a worker, an upstream server's
// answer and rows of the database, and so is everything while each step is traced.
static bool divert_at_once(DnsRequest &received) {
    received.decision = Decision::OPEN;
    if (oDNS.record_traffic || is_logged(LOG_DEBUG) || !thpool_take_turn(oDNS.pool))
        return false;
    bool diverted = false;
    {
        const MutexGuard guard(lock);
        char name[QUERY_NAME_SIZE] = "";
        diverted = !is_report_due(read_counter(oDNS.requests) + 1) && divert_if_blocked(received, name);
    }
    thpool_end_turn(oDNS.pool);
    return diverted;
}

static void queue_request(const DnsRequest &received) {
    if (queue_is_full())
        return;
    auto *job = static_cast<DnsRequest *>(std::malloc(sizeof(DnsRequest)));
    if (!job)
        return;
    *job = received;
    if (thpool_add_work(oDNS.pool, _process_request, job) != 0)
        std::free(job);
}

static void take_request(DnsRequest &received) {
    syslog(LOG_DEBUG, "Request size: %ld", static_cast<long>(received.length));
    if (!divert_at_once(received))
        queue_request(received);
}

static void main_loop() {
    syslog(LOG_INFO, "Startup Complete.");
    syslog(LOG_DEBUG, "Starting main loop");
    DnsRequest received = {};
    // 0 for the first receive only, which therefore takes no address: the client of the first
    // datagram is never answered. Kept; whoever starts the daemon sends one query to prime it.
    socklen_t address_length = 0;
    defer_signals(has_workers());
    while (!shutting_down) {
        receive(received, address_length);
        if (received.length < 0 && !shutting_down)
            log_receive_error(errno);
        else
            take_request(received);
    }
    block_daemon_signals();
    syslog(LOG_DEBUG, "Exiting Main Loop");
}

// Start-up

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
    init_stats();
    admit_pending_signals(false);
    init_black_list();
    admit_pending_signals(false);
    init_white_list();
    init_blocked_device_list();
    end_start_up_waits();
    multi_led_red();
}

static void init_lock() {
    if (pthread_mutex_init(&lock, nullptr) != 0) {
        syslog(LOG_ERR, "Mutex init failed");
        std::exit(6);
    }
}

static void server_init() {
    shutting_down = 0;
    load_config();
    admit_pending_signals(false);
    start_init_leds();
    set_interface_address(oDNS.interface, &oDNS.listen_address);
    create_base_directory();
    close_admin_gate(); // until the lists are there
    if (oDNS.admin_enabled)
        start_ubus_thread();
    init_lists_and_stats();
    admit_pending_signals(false);
    oDNS.pool = thpool_init(oDNS.thread_pool);
    thpool_run_in_turn(oDNS.pool); // `lock` would make them wait for each other anyway
    init_lock();
    open_admin_gate();
    log_config(0);
    admit_pending_signals(has_workers());
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
    const int reuse = 1; // set behind the bind, where it changes nothing for this socket; kept
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
    const int size = oDNS.socket_buffer_size;
    if (size > 0 && setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size) != 0)
        syslog(LOG_ERR, "Error setting receive buffer size to: %d", size);
    // No receive time-out: the socket blocks until a datagram comes.
}

// Makes the router itself ask this daemon first and the primary upstream after it.
static void _fix_resolv() {
    const OwnedFile file(std::fopen("/etc/resolv.conf", "we"));
    if (!file)
        return;
    const auto write_line = [&file](const char *keyword, const char *value) {
        char line[36]; // cuts a longer line, line end included
        std::snprintf(line, sizeof line, "%s %s\n", keyword, value);
        std::fputs(line, file.get());
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
    _fix_resolv();
    multi_led_blue();
    admit_pending_signals(has_workers());
}

// Shutdown

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
    thpool_destroy(oDNS.pool, std::free); // frees the requests that no worker took
    oDNS.pool = nullptr;
}

static void _close_database() {
    if (oDNS.db)
        close_database();
}

static void _free_config() {
    for (char *&text : oDNS.upstream_dns)
        std::free(std::exchange(text, nullptr));
    for (char **text : {&oDNS.path, &oDNS.interface, &oDNS.listen_address, &oDNS.hostname,
                        &oDNS.spare, &oDNS.board})
        std::free(std::exchange(*text, nullptr));
}

static void server_shutdown() {
    shutting_down = 1;
    // A worker that a stray pause signal holds may have any lock, the log's included.
    thpool_resume(oDNS.pool);
    syslog(LOG_INFO, "Shutting down ...");
    end_edits();
    // For good: what the bus thread reads is taken down now. If that thread is stuck in a call, the
    // settings are left to the end of the process.
    const bool bus_is_out = close_admin_gate();
    {
        const UniqueFd listener = _close_dns_listener();
        _stop_threadpool();
    }
    _close_upstream_dns_connection();
    pthread_mutex_destroy(&lock);
    write_stats();
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
    main_loop();
    server_shutdown();
}
