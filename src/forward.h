// The upstream connection: one UDP socket to one of four resolvers at a time, with failover.
//
// The server opens and closes the socket, request.cpp forwards queries. A worker calls everything
// else and holds `lock`, so that one request at a time uses the socket.
#pragma once

#include <cstdint>
#include <netinet/in.h>

// Opens the upstream socket; ends the process with status 1 when none is to be had. Main thread at
// start, worker.
void _open_upstream_dns_connection();

// Closes the upstream socket. Main thread when the workers are gone, worker.
void _close_upstream_dns_connection();

// Passes a query to the current upstream resolver, waits dns_timeout milliseconds and relays the
// answer unchanged: the first datagram that comes once the query is sent. Worker.
void forward_request(const uint8_t *message, int32_t length, sockaddr_in client);

// Moves to another upstream slot when it is time to: after time-outs, and before a query is sent
// also from a secondary that was used for long. Worker; in relay.h's way whoever holds the mutex
// there.
void switch_after_timeouts();
void choose_upstream();

// Moves to the next upstream slot in the ring, whether it answers or not. As above.
void switch_dns();

// Returns to the primary upstream. Without a caller in the daemon.
void dns_config_changed();
