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

#include "tcpstream.h"

#include <cstdint>
#include <netinet/in.h>

// A query, on the heap. Whoever holds it owns it, with its message and its reply.
struct TcpQuery {
    TcpQuery *next; // in a list of this file

    // Which connection it came on: that one if it still has this generation.
    uint32_t connection, generation;
    sockaddr_in client;
    uint32_t size; // of the message as it came
    TcpMessage *message;
    TcpMessage *reply; // if there is one
    bool is_forwarded; // the thread is to see to the reply

    // For tcpforward.cpp.
    TcpQuery *earlier, *later; // in the order of deadlines
    TcpQuery *next_of_id;
    int64_t deadline; // microseconds of the monotonic clock
    int16_t upstream; // or NO_UPSTREAM
    uint16_t id;      // that went out
    uint16_t question_end;
    uint8_t tries;
};

// Listens and starts the thread, if it is switched on. Without a listener it is an error line and
// no more. Main thread, behind start_relay().
void start_tcp();

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

// --- for tcpforward.cpp --------------------------------------------------------------------------

// Ends a query with what its client gets, which may be null. Takes both. The thread.
void finish_tcp_query(TcpQuery *query, TcpMessage *reply);

// What epoll tells with an event: of which kind of thing it is, which one, and in which generation.
enum class TcpEvent : uint16_t { WAKE, LISTENER, CLIENT, UPSTREAM };
inline uint64_t tcp_event(TcpEvent kind, uint32_t index, uint32_t generation) {
    return uint64_t{generation} << 32 | static_cast<uint32_t>(kind) << 16 | index;
}
