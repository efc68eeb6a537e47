// The settings-and-state record of the daemon and its loading at start.
//
// There is exactly one record, oDNS. Command-line options write into it first (main.cpp), then
// load_config() fills it from the configuration store, and from then on every part of the daemon
// reads and writes the fields it needs directly. Fields that two threads touch and one changes
// while the daemon serves are atomics, but for the counters (see counters.h) and for what tells
// which server is in use (current_dns, dns_timeouts, secondary_since): who forwards has `lock`, or
// the mutex of relay.h. The upstream texts, which the bus thread replaces under a running worker,
// are reached through upstream_address(), copy_upstream() and replace_upstreams() alone.
#pragma once

#include "guards.h"
#include "localanswer.h"

#include <atomic>
#include <cstdint>
#include <ctime>
#include <netinet/in.h>
#include <pthread.h>

struct sqlite3;
struct thpool;

inline constexpr const char *PRODUCT_NAME = "Vantrelle";
inline constexpr const char *PRODUCT_VERSION = VANTRELLE_VERSION; // the file VERSION
inline constexpr int UPSTREAM_SLOTS = 4;

// Texts marked "owned" are heap copies that _free_config() releases; an option of the
// command line may leave a text of the argument vector in one of them until load_config() runs.
struct Settings {
    char *path;                          // base directory for list files; owned
    char *interface;                     // name of the interface to listen on; owned
    char *listen_address;                // dotted IPv4 address of `interface`; owned
    char *hostname;                      // "Vantrelle-" and 8 hexadecimal digits; owned
    char *spare;                         // never set; released with the other texts
    char *upstream_dns[UPSTREAM_SLOTS];  // dotted IPv4 addresses, slot 0 is the primary; owned
    int32_t port;                        // listening port
    int32_t upstream_port;               // where upstream servers are asked; 0: the same as `port`
    int32_t dns_timeout;                 // wait for an upstream answer, milliseconds, not negative
    int32_t concurrent_queries;          // that may wait for an answer at a time; 0: see relay.h
    int32_t tcp_connections;             // of clients at a time, 200 at most; 0: no TCP
    BlockAnswer block_answer;            // how blocked queries are answered
    int32_t block_ttl;                   // of built answers, seconds, 0 to 86400
    int32_t ignore_case;                 // 1: names are folded to lower case before they are used
    int32_t socket_buffer_size;          // receive buffer of the listening socket; -1: not set
    int32_t thread_pool;                 // number of workers
    std::atomic<int32_t> log_level;      // 0..7: priorities up to this one are logged
    int32_t admin_enabled;               // whether the bus thread is started
    int32_t log_stats_interval;          // requests between two summary rows
    int32_t stats_write_delay;           // seconds that rows may wait in memory; see recorder.h
    int32_t stats_max_size;              // MiB of the database in use, see prune.h; 0: no limit
    int32_t current_dns;                 // slot in use; -1 for a moment: back to the primary
    sqlite3 *db;                         // open statistics database, or null
    std::atomic<int32_t> record_traffic; // 1: record requests and list hits
    std::atomic<int32_t> disabled;       // 1: forward everything
    char *board;                         // board name; owned
    int32_t dns_max_time_on_secondary;   // seconds
    int32_t pid;
    int32_t debug;     // set_traces() takes both;
    int32_t debug_sql; // log.h says which turns on what
    uint64_t requests; // the four counters, see counters.h
    uint64_t errors;
    uint64_t resets;
    uint64_t blocked;
    std::atomic<int32_t> listenfd; // -1 when closed
    int32_t upstreamfd;            // -1 when closed
    thpool *pool;
    int64_t start_time;      // seconds since the epoch
    int32_t dns_timeouts;    // consecutive time-outs since the last answer or switch
    int64_t secondary_since; // seconds since the epoch of the last switch; 0: never
};

extern Settings oDNS;

// Serialises the processing of requests: a worker, or the receive loop, holds it for the whole of
// one. The server initialises and destroys it.
extern pthread_mutex_t lock;

// Fills oDNS from the configuration store, with a default for every missing option, and sets the
// log mask. Main thread, once, before any other thread exists. Never fails: a reader that cannot
// read logs why and the default stands.
void load_config();

// Frees the owned texts. Main thread, when nobody else reads them any more.
void _free_config();

// The address of an upstream slot in network order; 0.0.0.0 for a slot outside 0..3 and
// INADDR_NONE for a text that is no address. Any thread.
in_addr_t upstream_address(int slot);

// The port that upstream servers are asked on, in network order. Any thread.
in_port_t upstream_port();

// A copy of the text of slot 0..3, null when it is not set. Any thread.
OwnedText copy_upstream(int slot);

// Replaces all four texts by copies of the given ones. Any thread, without `lock`.
void replace_upstreams(const char *const (&texts)[UPSTREAM_SLOTS]);
