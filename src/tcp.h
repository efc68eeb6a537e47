// Queries that come over TCP (RFC 7766), while `tcp_connections` is above 0: a client that was told
// of a cut answer asks again this way.
//
// One thread accepts connections, reads queries from them, forwards them (tcpforward.h) and sends
// the answers; it waits for none of them. What a query brings about is decided by a worker, since
// that may have to wait for the database: request.cpp does it, with the functions below. There is
// one job for that in the pool at most, which does one query and goes to the end of the queue if
// there are more, so that a datagram waits for one of them and not for a flood.
//
// Connections, and all that is on its way on them, are the thread's alone. A mutex of this file
// guards the two lists by which queries get to the worker and back; it is held for moments.
#pragma once

#include "tcpquery.h"

// Listens and starts the thread, if it is switched on. Without a listener it is an error line and
// no more. `decide` gets each query, on a worker: process_tcp_query() of request.h. Main thread,
// behind start_relay().
void start_tcp(void (*decide)(TcpQuery *query));

// Ends the thread, which closes the listener and all connections. Main thread, before the listening
// socket is closed.
void end_tcp();

// --- for request.cpp -----------------------------------------------------------------------------

// Sends a local reply, which is `message`; none when it is null. Takes both. Worker.
void reply_over_tcp(TcpQuery *query, TcpMessage *message);

// Forwards a query and counts it. One that no answer could be matched with is returned to its
// client as malformed, or dropped; false then, and it was not counted. Takes the query. Worker,
// holder of `lock`.
bool forward_over_tcp(TcpQuery *query);
