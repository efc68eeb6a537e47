#include "config.h"

#include "log.h"
#include "netutils.h"
#include "uciutils.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstring>
#include <syslog.h>

Settings oDNS;
pthread_mutex_t lock;

// Guards the upstream texts for as long as it takes to read or replace them.
static pthread_mutex_t upstream_lock = PTHREAD_MUTEX_INITIALIZER;

// "Vantrelle", a hyphen and the end of the hardware address.
static char *make_hostname() {
    constexpr size_t SIZE = 19;
    // The interface is fixed: the host name is built before the configured interface is read.
    const OwnedText mac(getMacAddress("apcli0"));
    char *hostname = static_cast<char *>(calloc(1, SIZE));
    if (hostname)
        snprintf(hostname, SIZE, "%s-%s", PRODUCT_NAME, mac ? mac.get() : "");
    return hostname;
}

static void reset_state() {
    oDNS.start_time = time(nullptr);
    oDNS.listenfd = -1;
    oDNS.upstreamfd = -1;
    oDNS.requests = oDNS.errors = oDNS.resets = oDNS.blocked = 0;
    oDNS.current_dns = 0;
    oDNS.dns_timeouts = 0;
    oDNS.secondary_since = 0;
    oDNS.socket_buffer_size = -1;
    oDNS.admin_enabled = 1;
    oDNS.start_time = time(nullptr);
}

// A negative time-out would wait for ever; -1 is taken for a missing one already.
static int read_dns_timeout() {
    constexpr int DEFAULT = 2000;
    const int timeout = get_uci_int_with_default("vantrelle.@main[0].dns_timeout", DEFAULT);
    if (timeout >= 0)
        return timeout;
    syslog(LOG_WARNING, "Negative dns_timeout %d, using default %d", timeout, DEFAULT);
    return DEFAULT;
}

// More than the largest port would be cut to another one by the socket address.
static int read_upstream_port() {
    const int port = get_new_uci_int("vantrelle.@main[0].upstream_port", 0);
    if (port >= 0 && port <= UINT16_MAX)
        return port;
    syslog(LOG_WARNING, "upstream_port %d is no port, using the one listened on", port);
    return 0;
}

static int read_concurrent_queries() {
    constexpr int MAX = 4096;
    const int queries = get_new_uci_int("vantrelle.@main[0].concurrent_queries", 0);
    return queries < 0 ? 0 : queries > MAX ? MAX : queries;
}

// To be read behind concurrent_queries: one query at a time could only be served by waiting.
static int read_tcp_connections() {
    constexpr int MAX = 200;
    const int connections = get_new_uci_int("vantrelle.@main[0].tcp_connections", 0);
    if (connections <= 0)
        return 0;
    if (oDNS.concurrent_queries > 0)
        return connections < MAX ? connections : MAX;
    syslog(LOG_WARNING, "tcp_connections needs concurrent_queries above 0, serving no TCP");
    return 0;
}

static BlockAnswer read_block_answer() {
    BlockAnswer answer = BlockAnswer::NONE;
    const OwnedText name(get_new_uci_string("vantrelle.@main[0].block_answer"));
    if (name && *name && !find_block_answer(name.get(), answer))
        syslog(LOG_WARNING,
               "Unknown block_answer %s, using none; known: none, nxdomain, nodata, null, refused",
               name.get());
    return answer;
}

// To be read behind block_answer, without which it makes no difference.
static int read_block_ttl() {
    constexpr int DEFAULT = 60, MAX = 86400;
    const int ttl = get_new_uci_int("vantrelle.@main[0].block_ttl", DEFAULT);
    if (ttl >= 0 && ttl <= MAX)
        return ttl;
    if (oDNS.block_answer != BlockAnswer::NONE)
        syslog(LOG_WARNING, "block_ttl %d is not within 0 and %d, using default %d", ttl, MAX,
               DEFAULT);
    return DEFAULT;
}

static int read_stats_write_delay() {
    constexpr int MAX = 3600;
    const int delay = get_new_uci_int("vantrelle.@main[0].stats_write_delay", 0);
    return delay < 0 ? 0 : delay > MAX ? MAX : delay;
}

// Empty tables and a list of some thousand names need most of a mebibyte.
static int read_stats_max_size() {
    constexpr int MIN = 2, MAX = 4095;
    const int size = get_new_uci_int("vantrelle.@main[0].stats_max_size", 0);
    return size <= 0 ? 0 : size < MIN ? MIN : size > MAX ? MAX : size;
}

// The stored settings replace what the command line set: of the options only the log level
// survives, as the default of its key.
static void read_settings() {
    oDNS.log_level = get_uci_int_with_default("vantrelle.@main[0].log_level", oDNS.log_level);
    set_log_mask(oDNS.log_level);
    for (int slot = 0; slot < UPSTREAM_SLOTS; slot++)
        oDNS.upstream_dns[slot] = get_upstream_dns(slot + 1);
    oDNS.dns_timeout = read_dns_timeout();
    oDNS.disabled = get_uci_int_with_default("vantrelle.@main[0].disabled", 0);
    oDNS.record_traffic = get_uci_int_with_default("vantrelle.@main[0].record_traffic", 1);
    oDNS.dns_max_time_on_secondary =
        get_uci_int_with_default("vantrelle.@main[0].dns_max_time_on_secondary", 600);
    oDNS.log_stats_interval =
        get_uci_int_with_default("vantrelle.@main[0].log_stats_interval", 100);
    oDNS.port = get_uci_int_with_default("vantrelle.@main[0].port", 53);
    oDNS.thread_pool = get_uci_int_with_default("vantrelle.@main[0].thread_pool", 5);
    oDNS.socket_buffer_size =
        get_uci_int_with_default("vantrelle.@main[0].socket_buffer_size", 65535);
    // A first reading without a default is dropped; a missing board is logged twice.
    OwnedText(get_uci_string("vantrelle.@main[0].board")).reset();
    oDNS.debug = get_uci_int_with_default("vantrelle.@logging[0].debug", 0);
    oDNS.debug_sql = get_uci_int_with_default("vantrelle.@logging[0].debug_sql", 0);
    set_traces(oDNS.debug, oDNS.debug_sql);
    oDNS.interface = get_uci_string_with_default("vantrelle.@main[0].interface", "apcli0");
    oDNS.board = get_uci_string_with_default("vantrelle.@main[0].board", "Unknown");
    oDNS.path = get_uci_string_with_default("vantrelle.@main[0].path", "/etc/vantrelle");
    oDNS.concurrent_queries = read_concurrent_queries();
    oDNS.tcp_connections = read_tcp_connections();
    oDNS.upstream_port = read_upstream_port();
    oDNS.block_answer = read_block_answer();
    oDNS.block_ttl = read_block_ttl();
    oDNS.ignore_case = get_new_uci_int("vantrelle.@main[0].ignore_case", 0);
    oDNS.stats_write_delay = read_stats_write_delay();
    oDNS.stats_max_size = read_stats_max_size();
}

void load_config() {
    syslog(LOG_DEBUG, "Start Load Config");
    reset_state();
    oDNS.hostname = make_hostname();
    syslog(LOG_DEBUG, "Hostname %s", oDNS.hostname);
    oDNS.upstream_dns[0] = nullptr;
    oDNS.disabled = 0;
    oDNS.debug = 0;
    oDNS.debug_sql = 0;
    set_traces(false, false);
    read_settings();
    syslog(LOG_DEBUG, "Done Load Config");
}

void _free_config() {
    for (char *&text : oDNS.upstream_dns)
        free(std::exchange(text, nullptr));
    for (char **text : {&oDNS.path, &oDNS.interface, &oDNS.listen_address, &oDNS.hostname,
                        &oDNS.spare, &oDNS.board})
        free(std::exchange(*text, nullptr));
}

in_addr_t upstream_address(int slot) {
    if (slot < 0 || slot >= UPSTREAM_SLOTS)
        return INADDR_ANY;
    const MutexGuard guard(upstream_lock);
    const char *text = oDNS.upstream_dns[slot];
    return text ? inet_addr(text) : INADDR_ANY;
}

in_port_t upstream_port() {
    return htons(static_cast<uint16_t>(oDNS.upstream_port ? oDNS.upstream_port : oDNS.port));
}

OwnedText copy_upstream(int slot) {
    const MutexGuard guard(upstream_lock);
    const char *text = oDNS.upstream_dns[slot];
    return OwnedText(text ? strdup(text) : nullptr);
}

void replace_upstreams(const char *const (&texts)[UPSTREAM_SLOTS]) {
    const MutexGuard guard(upstream_lock);
    for (int slot = 0; slot < UPSTREAM_SLOTS; slot++) {
        char *copy = strdup(texts[slot]);
        if (!copy)
            continue; // out of memory: the old address stays in use
        free(oDNS.upstream_dns[slot]);
        oDNS.upstream_dns[slot] = copy;
    }
}
