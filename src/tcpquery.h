// A query over TCP on its way through the daemon: what tcp.cpp and tcpforward.cpp know of it both.
#pragma once

#include "tcpstream.h"

#include <cstdint>
#include <cstdlib>
#include <netinet/in.h>

inline constexpr int16_t NO_UPSTREAM = -1;

// A query, on the heap. Whoever holds it owns it, with its message and its reply.
struct TcpQuery {
    TcpQuery *next; // in a list of tcp.cpp

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

inline void free_tcp_query(TcpQuery *query) {
    free(query->message);
    free(query->reply);
    free(query);
}

// What epoll tells with an event: of which kind of thing it is, which one, and in which generation.
enum class TcpEvent : uint16_t { WAKE, LISTENER, CLIENT, UPSTREAM };
inline uint64_t tcp_event(TcpEvent kind, uint32_t index, uint32_t generation) {
    return uint64_t{generation} << 32 | static_cast<uint32_t>(kind) << 16 | index;
}
