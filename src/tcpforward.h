// Forwarding over TCP: connections to upstream servers, and the queries that wait there for their
// answers. All of it belongs to the thread of tcp.cpp.
//
// There is one connection at a time that takes queries, to the server in use; it is opened when a
// query needs it and shared by all. Others still have queries of before: to a server that was in
// use then, or one on which a query was waited for in vain. A server that closes its connection
// costs each query there a second try. Answers are matched as relay.h does it. None of this has a
// part in which server is in use.
#pragma once

#include "tcpquery.h"

#include <cstdint>

// Ends a query with what its client gets, which may be null. Takes both.
using FinishTcpQuery = void (*)(TcpQuery *query, TcpMessage *reply);

// Starts with no connection and no query; what is opened is watched by that epoll.
void start_tcp_forwarding(int epoll_fd, FinishTcpQuery finish);

// Ends all connections and frees all queries.
void end_tcp_forwarding();

// Takes a query and sees to it that it is finished, now or later, unless it is forgotten.
void forward_tcp_query(TcpQuery *query);

// Frees the queries of a client connection that is no more.
void forget_tcp_queries(uint32_t connection, uint32_t generation);

// Acts on an event of a connection to an upstream server.
void serve_upstream(uint32_t index, uint32_t generation, uint32_t events);

// Ends what is to end and sends again what is to be sent again. Returns when it is to be called
// next, unless something happens: microseconds of the monotonic clock, INT64_MAX for never.
int64_t tend_upstreams();
