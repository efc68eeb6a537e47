// The DNS forwarder: start-up and shutdown in a fixed order, the listening socket and its receive
// loop, the classification of each query, and the four counters with their reports. What is passed
// on goes through forward.h.
//
// main() calls server_run(), the signal handlers call the reports, the database calls
// reload_stats() once, and the bus thread reads counters and calls get_block_rate(). A worker runs
// _process_request() for each datagram, unless the receive loop could divert it at once; both hold
// `lock` meanwhile, so there is one request at a time.
#pragma once

#include <atomic>
#include <cstdint>
#include <netinet/in.h>

// Longest datagram taken, without EDNS (RFC 1035, 4.2.1); longer ones are cut.
inline constexpr int MAX_MESSAGE = 512;

// What becomes of a request.
enum class Decision : uint8_t { OPEN, FORWARD, FORWARD_AND_RECORD, DIVERT };

// One received datagram. The receive loop allocates what it queues with malloc(); the worker that
// runs it, or the pool's destruction, frees it.
struct DnsRequest {
    uint8_t message[MAX_MESSAGE + 4]; // zero-filled behind the datagram
    int32_t length;                   // as the receive returned it
    sockaddr_in client;               // all zero for the first datagram after the start
    Decision decision;                // OPEN unless the receive loop made it
};

// 1 once the daemon shall stop; the receive loop sees it after the next datagram.
extern std::atomic<int> shutting_down;

// Runs the daemon until it is told to stop. Main thread. Ends the process when start-up fails:
// status 1 without an address or an upstream socket, 6 without a mutex, abort without a listener.
void server_run();

// Classifies one request, forwards or diverts it and frees it. `job` is a DnsRequest *. Returns
// null. Worker.
void *_process_request(void *job);

// Sends the local answer to a query: the query itself with response code 3 (name error) and one A
// record for 255.255.255.255 behind it. `blocked` is 1 when a list decided it, which counts.
// `message` has `length` bytes. Holder of `lock`.
void divert(const uint8_t *message, int32_t length, sockaddr_in client, int blocked);

// Reports the settings to the log, and with a non-zero argument the counters (which writes them)
// and the list sizes. Main thread.
void log_config(int with_stats);

// The same report to standard output, in one line. Without a caller in the daemon.
void print_config(int with_stats);

// Pauses the workers and empties the main and local black and white lists and the list of excluded
// devices, which the next lookup loads again; the list of blocked devices stays. Without a caller
// in the daemon.
void reload_lists();
