// The other way to forward: many queries at once, while `concurrent_queries` is above 0.
//
// request.cpp hands queries over here instead of to forward.h. A query is sent and then waits in a
// table for its answer, so that no worker does. One thread takes the answers and ends what got none
// in time; it alone moves on to the next server. The table, the sockets and, in this way of
// forwarding, the failover fields of oDNS are guarded by a mutex of this file, which is held for a
// system call or a few and never while the database is waited for.
//
// An answer is believed when it comes to the socket that its query went out from, from the server
// that the kernel tied the socket to, with the query's random id and with its question.
#pragma once

#include <cstdint>
#include <netinet/in.h>

// Starts the relay if it is switched on. Should it not start, it is switched off: then queries are
// forwarded one after the other. Main thread, once the listening socket is open.
void start_relay();

// Ends the thread and forgets all queries; those that come later are dropped. Main thread, before
// the listening socket is closed.
void end_relay();

// Sends a query to the upstream server in use and returns; the answer goes to the client when it
// comes. A query that no answer could be matched with is returned to its client as malformed. False
// when the query was not forwarded, and not counted. Worker, holder of `lock`.
bool relay_request(const uint8_t *message, int32_t length, sockaddr_in client);

// Queries that wait for an address which is no longer in use move to the new one. Any thread, also
// while there is no relay.
void relay_upstreams_changed();

// The upstream server in use. Any thread, while there is a relay.
sockaddr_in relay_upstream();
