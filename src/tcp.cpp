#include "tcp.h"

#include "config.h"
#include "counters.h"
#include "guards.h"
#include "ledutils.h"
#include "message.h"
#include "relay.h"
#include "tcpforward.h"
#include "thpool.h"
#include "utils.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <initializer_list>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>
#include <utility>

static constexpr int NONE = -1;
static constexpr int64_t NEVER = INT64_MAX;

// What a client gets: enough for a device that asks for a page, and little for one that means harm.
static constexpr int MAX_PER_CLIENT = 5;
static constexpr int MAX_OUT = 16; // queries of a connection
static constexpr size_t MAX_OUT_BYTES = size_t{64} << 10;
static constexpr size_t UNSENT_TO_READ = size_t{128} << 10; // from that on it is not read
static constexpr size_t MAX_UNSENT = size_t{1} << 20;
static constexpr int SEND_BUFFER = 64 << 10;
static constexpr int64_t IDLE_TIME = 10 * US_PER_S;
static constexpr int64_t MESSAGE_TIME = 2 * US_PER_S; // without progress inside of one
static constexpr int64_t SEND_TIME = 10 * US_PER_S;   // in which the kernel takes nothing

// What the kernel holds of a closed connection counts against no limit of ours, and stays for as
// long as the client does not take it. So one is kept until the client has its answers, but for
// some bytes that it may be slow to acknowledge.
static constexpr int MAX_UNDELIVERED = 4096;
static constexpr int64_t TIME_TO_LOOK = 50 * US_PER_MS; // again, at a client that sends no more

// What the thread does before it looks after others again.
static constexpr int EVENTS_AT_ONCE = 32;
static constexpr int MESSAGES_AT_ONCE = 16;
static constexpr int ACCEPTS_AT_ONCE = 16;

static constexpr int64_t TIME_WITHOUT_MEANS = US_PER_S; // in which no connection is accepted

namespace {

// Times are of the last: anything happened; bytes came, or reading began again; the kernel took
// bytes, or there were first ones to take.
struct Connection {
    TcpStream stream;
    uint32_t generation;
    sockaddr_in client;
    int out;          // queries that are not answered
    size_t out_bytes; // of those
    bool has_ended;   // the client sends no more
    bool is_broken;   // to be closed
    int undelivered;  // bytes that the kernel has for the client, as they were last seen
    int64_t active_at, read_at, taken_at;
};

// The thread's own.
struct Server {
    pthread_t thread;
    int epoll_fd, listener;
    int64_t accepts_at; // again; NEVER while it does
    Connection *connections;
};

struct QueryList {
    TcpQuery *first = nullptr, *last = nullptr;
};

// Between the thread and the worker. Guarded by tcp_mutex.
struct Exchange {
    bool is_running; // the rest is valid
    bool is_ending;  // the thread shall end
    bool has_job;    // one is in the pool or at work
    void (*decide)(TcpQuery *);
    int wake_fd;
    QueryList pending; // to be decided
    QueryList decided; // to be answered or forwarded
};

} // namespace

static Server server;
static Exchange exchange;
static pthread_mutex_t tcp_mutex = PTHREAD_MUTEX_INITIALIZER;

// --- the way to the worker and back --------------------------------------------------------------

static void append(QueryList &list, TcpQuery *query) {
    query->next = nullptr;
    (list.first ? list.last->next : list.first) = query;
    list.last = query;
}

static TcpQuery *take_first(QueryList &list) {
    TcpQuery *first = list.first;
    if (first)
        list.first = first->next;
    return first;
}

static void wake_thread() {
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(exchange.wake_fd, &one, sizeof one);
}

static void *decide_next(void *);

// Sees to it that pending queries are decided. Holder of the mutex.
static void need_job() {
    exchange.has_job = exchange.pending.first && exchange.is_running &&
                       thpool_add_work(oDNS.pool, decide_next, nullptr) == 0;
}

// The job: one query, and then it is the turn of what came over UDP meanwhile.
static void *decide_next(void *) {
    TcpQuery *query;
    void (*decide)(TcpQuery *);
    {
        const MutexGuard guard(tcp_mutex);
        query = take_first(exchange.pending);
        decide = exchange.decide;
    }
    if (query)
        decide(query);
    const MutexGuard guard(tcp_mutex);
    need_job();
    return nullptr;
}

static void add_pending(TcpQuery *query) {
    const MutexGuard guard(tcp_mutex);
    append(exchange.pending, query);
    if (!exchange.has_job)
        need_job();
}

static void hand_back(TcpQuery *query) {
    if (!exchange.decided.first)
        wake_thread();
    append(exchange.decided, query);
}

void reply_over_tcp(TcpQuery *query, TcpMessage *message) {
    query->reply = message;
    const MutexGuard guard(tcp_mutex);
    if (exchange.is_running)
        hand_back(query);
    else
        free_tcp_query(query);
}

bool forward_over_tcp(TcpQuery *query) {
    uint8_t *bytes = content_of(query->message);
    if (is_response(bytes)) {
        reply_over_tcp(query, nullptr);
        return false;
    }
    query->question_end = static_cast<uint16_t>(find_question_end(bytes, query->message->length));
    if (query->question_end == 0) {
        mark_malformed(bytes);
        reply_over_tcp(query, std::exchange(query->message, nullptr));
        return false;
    }
    bool is_due;
    {
        const MutexGuard guard(tcp_mutex);
        if (!exchange.is_running) {
            free_tcp_query(query);
            return false;
        }
        syslog(LOG_DEBUG, "Forwarding request");
        multi_led_blue();
        is_due = count_only(1, 0, 0, 0); // before the client can have its answer
        query->is_forwarded = true;
        hand_back(query);
    }
    if (is_due)
        report_stats();
    return true;
}

// Forgets what is still to be decided for a connection that is no more: who opens one after the
// other does not fill the list.
static void forget_pending(uint32_t connection, uint32_t generation) {
    const MutexGuard guard(tcp_mutex);
    QueryList kept;
    while (TcpQuery *query = take_first(exchange.pending))
        if (query->connection == connection && query->generation == generation)
            free_tcp_query(query);
        else
            append(kept, query);
    exchange.pending = kept;
}

// --- connections ---------------------------------------------------------------------------------

static Connection &connection_at(int index) {
    return server.connections[index];
}

static bool is_open(const Connection &connection) {
    return connection.stream.fd >= 0;
}

static uint32_t index_of(const Connection &connection) {
    return static_cast<uint32_t>(&connection - server.connections);
}

// Whether the client has what the kernel took for it. If it took some of it, that is progress.
static bool is_delivered(Connection &connection) {
    int left = 0;
    if (connection.undelivered <= MAX_UNDELIVERED)
        return true;
    if (ioctl(connection.stream.fd, TIOCOUTQ, &left) != 0)
        left = 0;
    if (left < connection.undelivered)
        connection.taken_at = now_us();
    connection.undelivered = left;
    return left <= MAX_UNDELIVERED;
}

// Nothing is out, half received or unsent.
static bool is_idle(Connection &connection) {
    return connection.out == 0 && connection.stream.frame.received == 0 &&
           connection.stream.unsent == 0 && is_delivered(connection);
}

static bool may_be_read(const Connection &connection) {
    return !connection.has_ended && !connection.is_broken && connection.out < MAX_OUT &&
           connection.out_bytes < MAX_OUT_BYTES && connection.stream.unsent < UNSENT_TO_READ;
}

static void close_connection(Connection &connection) {
    forget_pending(index_of(connection), connection.generation);
    forget_tcp_queries(index_of(connection), connection.generation);
    // A client that takes no answers shall not keep them in the kernel either.
    close_stream(connection.stream, connection.stream.unsent > 0 || !is_delivered(connection));
    connection.generation++; // what epoll and the worker still have to tell of it is void
}

static void send_answers(Connection &connection) {
    const size_t before = connection.stream.unsent;
    if (!send_messages(connection.stream))
        connection.is_broken = true;
    if (connection.stream.unsent == before)
        return;
    connection.active_at = connection.taken_at = now_us();
    connection.undelivered = INT_MAX;
}

static void add_answer(Connection &connection, TcpMessage *answer) {
    const bool is_first = connection.stream.unsent == 0;
    append_message(connection.stream, answer);
    if (is_first) { // otherwise epoll tells when the kernel takes more
        connection.taken_at = now_us();
        send_answers(connection);
    }
}

// Ends a query with what its client gets, which may be null. Takes both.
static void finish_query(TcpQuery *query, TcpMessage *reply) {
    Connection &connection = connection_at(static_cast<int>(query->connection));
    if (is_open(connection) && connection.generation == query->generation) {
        connection.out--;
        connection.out_bytes -= query->size;
        connection.active_at = now_us();
        if (reply)
            add_answer(connection, std::exchange(reply, nullptr));
    }
    free(reply);
    free_tcp_query(query);
}

// --- queries -------------------------------------------------------------------------------------

static void take_query(Connection &connection, TcpMessage *message) {
    const bool is_query = message->length >= QUESTION_OFFSET;
    auto *query = is_query ? static_cast<TcpQuery *>(calloc(1, sizeof(TcpQuery))) : nullptr;
    if (!query) { // what is shorter than a header is passed over, but for nothing at all
        connection.is_broken = is_query || message->length == 0;
        free(message);
        return;
    }
    syslog(LOG_DEBUG, "Request size: %ld", static_cast<long>(message->length));
    query->connection = index_of(connection);
    query->generation = connection.generation;
    query->client = connection.client;
    query->size = message->length;
    query->message = message;
    query->upstream = NO_UPSTREAM;
    connection.out++;
    connection.out_bytes += query->size;
    add_pending(query);
}

static void read_queries(Connection &connection) {
    for (int count = 0; count < MESSAGES_AT_ONCE && may_be_read(connection); count++) {
        TcpMessage *message;
        const uint32_t received = connection.stream.frame.received;
        const Transfer transfer = read_message(connection.stream, message);
        if (transfer == Transfer::MESSAGE || connection.stream.frame.received != received)
            connection.active_at = connection.read_at = now_us();
        if (transfer == Transfer::MESSAGE) {
            take_query(connection, message);
            continue;
        }
        if (transfer == Transfer::ENDED) {
            connection.has_ended = true;
            free(take_message(connection.stream.frame));
        } else if (transfer == Transfer::FAILED) {
            connection.is_broken = true;
        }
        return;
    }
}

static void serve_client(uint32_t index, uint32_t generation, uint32_t events) {
    Connection &connection = connection_at(static_cast<int>(index));
    if (!is_open(connection) || connection.generation != generation)
        return; // closed meanwhile
    if (events & (EPOLLERR | EPOLLHUP))
        connection.is_broken = true;
    if (events & EPOLLOUT && !connection.is_broken)
        send_answers(connection);
    if (events & EPOLLIN)
        read_queries(connection);
}

// Answers and forwards what the worker decided. False when the thread shall end.
static bool take_decided() {
    QueryList decided;
    {
        const MutexGuard guard(tcp_mutex);
        if (exchange.is_ending)
            return false;
        std::swap(decided, exchange.decided);
        if (!exchange.has_job) // there was no memory for one
            need_job();
    }
    while (TcpQuery *query = take_first(decided)) {
        const Connection &connection = connection_at(static_cast<int>(query->connection));
        if (!query->is_forwarded)
            finish_query(query, std::exchange(query->reply, nullptr));
        else if (is_open(connection) && connection.generation == query->generation)
            forward_tcp_query(query);
        else
            free_tcp_query(query);
    }
    return true;
}

// --- accepting -----------------------------------------------------------------------------------

// The place for one more connection of a client. It may cost the connection that has been idle for
// longest, of all or of that client. NONE if there is none.
static int make_place(in_addr_t client) {
    int of_client = 0, unused = NONE, idlest = NONE, idlest_of_client = NONE;
    for (int i = 0; i < oDNS.tcp_connections; i++) {
        Connection &other = connection_at(i);
        if (!is_open(other)) {
            unused = i;
            continue;
        }
        const auto is_idler = [&](int than) {
            return is_idle(other) &&
                   (than == NONE || other.active_at < connection_at(than).active_at);
        };
        const bool is_of_client = other.client.sin_addr.s_addr == client;
        of_client += is_of_client;
        if (is_idler(idlest))
            idlest = i;
        if (is_of_client && is_idler(idlest_of_client))
            idlest_of_client = i;
    }
    if (of_client < MAX_PER_CLIENT && unused != NONE)
        return unused;
    const int replaced = of_client < MAX_PER_CLIENT ? idlest : idlest_of_client;
    if (replaced != NONE)
        close_connection(connection_at(replaced));
    return replaced;
}

static bool watch(int fd, int operation, uint32_t events, uint64_t event) {
    epoll_event watched = {};
    watched.events = events;
    watched.data.u64 = event;
    return epoll_ctl(server.epoll_fd, operation, fd, &watched) == 0;
}

static void add_connection(UniqueFd fd, sockaddr_in client) {
    const int on = 1, buffer = SEND_BUFFER;
    const int index = make_place(client.sin_addr.s_addr);
    if (index == NONE)
        return;
    Connection &connection = connection_at(index);
    setsockopt(fd.get(), SOL_SOCKET, SO_SNDBUF, &buffer, sizeof buffer);
    setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (!watch(fd.get(), EPOLL_CTL_ADD, EPOLLIN,
               tcp_event(TcpEvent::CLIENT, static_cast<uint32_t>(index), connection.generation)))
        return;
    const int64_t now = now_us();
    connection = {.stream = {},
                  .generation = connection.generation,
                  .client = client,
                  .out = 0,
                  .out_bytes = 0,
                  .has_ended = false,
                  .is_broken = false,
                  .undelivered = 0,
                  .active_at = now,
                  .read_at = now,
                  .taken_at = now};
    connection.stream.fd = fd.release();
    connection.stream.watched = EPOLLIN;
}

static void watch_listener(bool is_watched) {
    server.accepts_at = is_watched ? NEVER : now_us() + TIME_WITHOUT_MEANS;
    watch(server.listener, EPOLL_CTL_MOD, is_watched ? uint32_t{EPOLLIN} : 0U,
          tcp_event(TcpEvent::LISTENER, 0, 0));
}

static void accept_connections() {
    for (int count = 0; count < ACCEPTS_AT_ONCE; count++) {
        sockaddr_in client = {};
        socklen_t length = sizeof client;
        UniqueFd fd(accept4(server.listener, reinterpret_cast<sockaddr *>(&client), &length,
                            SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (fd) {
            add_connection(std::move(fd), client);
        } else if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            syslog(LOG_ERR, "Cannot accept TCP connections: %s", error_text());
            watch_listener(false); // it would be told of over and over again
            return;
        } else if (errno == EAGAIN) {
            return;
        }
    }
}

// --- the thread ----------------------------------------------------------------------------------

// When a connection is to be closed on which nothing happens.
static int64_t end_of(Connection &connection) {
    const TcpStream &stream = connection.stream;
    const bool idle = is_idle(connection);
    if (connection.is_broken || stream.unsent >= MAX_UNSENT || (connection.has_ended && idle))
        return 0;
    int64_t end = NEVER;
    if (idle)
        end = connection.active_at + IDLE_TIME;
    if (stream.frame.received > 0 && may_be_read(connection))
        end = std::min(end, connection.read_at + MESSAGE_TIME);
    if (stream.unsent > 0 || (connection.out == 0 && !is_delivered(connection)))
        end = std::min(end, connection.taken_at + SEND_TIME);
    return end;
}

// Whether only the kernel has still to do with it, which does not tell when it is done.
static bool is_leaving(const Connection &connection) {
    return connection.has_ended && connection.out == 0 && connection.stream.unsent == 0;
}

// Lets epoll tell of what a connection is ready for.
static void watch_connection(Connection &connection, int64_t now) {
    const uint32_t reading = may_be_read(connection) ? uint32_t{EPOLLIN} : 0U;
    const uint32_t sending = connection.stream.unsent > 0 ? uint32_t{EPOLLOUT} : 0U;
    if (reading & ~connection.stream.watched)
        connection.read_at = now;
    if (!watch_stream(connection.stream, server.epoll_fd, reading | sending,
                      tcp_event(TcpEvent::CLIENT, index_of(connection), connection.generation)))
        connection.is_broken = true;
}

// Closes what is to be closed. Returns when to look again, as tend_upstreams() does.
static int64_t tend_connections() {
    const int64_t now = now_us();
    if (server.accepts_at <= now)
        watch_listener(true);
    int64_t next = server.accepts_at;
    for (int i = 0; i < oDNS.tcp_connections; i++) {
        Connection &connection = connection_at(i);
        if (!is_open(connection))
            continue;
        watch_connection(connection, now);
        const int64_t end = end_of(connection);
        if (end <= now)
            close_connection(connection);
        else
            next = std::min({next, end, is_leaving(connection) ? now + TIME_TO_LOOK : NEVER});
    }
    return next;
}

static void clear_wake_event() {
    uint64_t count;
    [[maybe_unused]] const ssize_t done = read(exchange.wake_fd, &count, sizeof count);
}

// Serves what an event tells of; returns whether connections are to be accepted.
static bool serve(const epoll_event &event) {
    const auto what = static_cast<uint32_t>(event.data.u64);
    const auto generation = static_cast<uint32_t>(event.data.u64 >> 32);
    switch (static_cast<TcpEvent>(what >> 16)) {
    case TcpEvent::WAKE:
        clear_wake_event();
        break;
    case TcpEvent::LISTENER:
        return true;
    case TcpEvent::CLIENT:
        serve_client(what & 0xFFFF, generation, event.events);
        break;
    case TcpEvent::UPSTREAM:
        serve_upstream(what & 0xFFFF, generation, event.events);
        break;
    }
    return false;
}

// How long the thread may sleep until `time`, in milliseconds.
static int time_until(int64_t time) {
    if (time == NEVER)
        return -1;
    const int64_t left = std::max<int64_t>(time - now_us(), 0);
    return static_cast<int>(std::min<int64_t>((left + US_PER_MS - 1) / US_PER_MS, INT32_MAX));
}

static void *tcp_main(void *) {
    prctl(PR_SET_NAME, "tcp");
    int64_t next = NEVER;
    do {
        epoll_event events[EVENTS_AT_ONCE];
        const int count = epoll_wait(server.epoll_fd, events, EVENTS_AT_ONCE, time_until(next));
        if (count < 0 && errno != EINTR) {
            syslog(LOG_ERR, "Cannot wait for TCP connections: %s", error_text());
            usleep(100'000); // not over and over again
        }
        bool is_accepting = false;
        for (int i = 0; i < count; i++)
            is_accepting |= serve(events[i]);
        if (!take_decided())
            break;
        if (is_accepting) // last, when it is known who is idle
            accept_connections();
        next = tend_upstreams();
        next = std::min(next, tend_connections());
    } while (true);
    return nullptr;
}

// --- start and end -------------------------------------------------------------------------------

static bool open_listener() {
    UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_in here = {};
    here.sin_family = AF_INET;
    here.sin_port = htons(static_cast<uint16_t>(oDNS.port));
    here.sin_addr.s_addr = inet_addr(oDNS.listen_address);
    const int on = 1; // connections of a daemon before this one may still be in their last state
    if (!fd || setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(fd.get(), reinterpret_cast<const sockaddr *>(&here), sizeof here) != 0 ||
        listen(fd.get(), SOMAXCONN) != 0)
        return false;
    server.listener = fd.release();
    return true;
}

static bool make_events() {
    server.epoll_fd = epoll_create1(EPOLL_CLOEXEC);
    exchange.wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    return server.epoll_fd >= 0 && exchange.wake_fd >= 0 && // otherwise errno says why not
           watch(exchange.wake_fd, EPOLL_CTL_ADD, EPOLLIN, tcp_event(TcpEvent::WAKE, 0, 0)) &&
           watch(server.listener, EPOLL_CTL_ADD, EPOLLIN, tcp_event(TcpEvent::LISTENER, 0, 0));
}

static bool make_table() {
    const auto size = static_cast<size_t>(oDNS.tcp_connections);
    server.connections = static_cast<Connection *>(calloc(size, sizeof(Connection)));
    for (size_t i = 0; server.connections && i < size; i++)
        server.connections[i].stream.fd = NONE;
    return server.connections;
}

// Holder of the mutex; the thread is not, or no more.
static void give_all_back() {
    for (int i = 0; server.connections && i < oDNS.tcp_connections; i++)
        if (is_open(connection_at(i)))
            close_stream(connection_at(i).stream);
    end_tcp_forwarding();
    for (QueryList *list : {&exchange.pending, &exchange.decided})
        while (TcpQuery *query = take_first(*list))
            free_tcp_query(query);
    for (const int fd : {server.listener, server.epoll_fd, exchange.wake_fd})
        if (fd >= 0)
            close(fd);
    free(server.connections);
    server = {};
    exchange = {};
}

void start_tcp(void (*decide)(TcpQuery *)) {
    if (oDNS.tcp_connections == 0 || oDNS.concurrent_queries == 0)
        return;
    const MutexGuard guard(tcp_mutex);
    server = {};
    exchange = {};
    exchange.decide = decide;
    server.listener = server.epoll_fd = exchange.wake_fd = NONE;
    server.accepts_at = NEVER;
    exchange.is_running = open_listener() && make_table() && make_events();
    if (exchange.is_running) {
        start_tcp_forwarding(server.epoll_fd, finish_query);
        errno = pthread_create(&server.thread, nullptr, tcp_main, nullptr);
        exchange.is_running = errno == 0;
    }
    if (exchange.is_running)
        return;
    syslog(LOG_ERR, "No TCP connections on %s#%d: %s", oDNS.listen_address, oDNS.port,
           error_text());
    give_all_back();
    oDNS.tcp_connections = 0;
}

void end_tcp() {
    {
        const MutexGuard guard(tcp_mutex);
        if (!exchange.is_running)
            return;
        exchange.is_ending = true;
        wake_thread();
    }
    pthread_join(server.thread, nullptr);
    const MutexGuard guard(tcp_mutex);
    give_all_back();
}
