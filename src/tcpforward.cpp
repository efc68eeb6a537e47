#include "tcpforward.h"

#include "config.h"
#include "guards.h"
#include "message.h"
#include "netutils.h"
#include "relay.h"
#include "utils.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <syslog.h>
#include <utility>

static constexpr int MAX_UPSTREAMS = 16; // only one of them takes queries
static constexpr int MAX_TRIES = 2;
static constexpr int64_t TIME_KEPT = 5 * US_PER_S; // behind the last answer
static constexpr size_t MAX_UNSENT = size_t{256} << 10;
static constexpr int ANSWERS_AT_ONCE = 16;
static constexpr size_t ID_CHAINS = 256;
static constexpr int64_t NEVER = INT64_MAX;

namespace {

enum class State : uint8_t {
    CLOSED,
    CONNECTING,
    OPEN,
    BROKEN_OFF, // failed while it was connecting
    BROKEN,     // failed or closed by the server; `error` says which
};

struct Upstream {
    TcpStream stream;
    uint32_t generation;
    State state;
    bool is_retired; // takes no more queries
    int error;       // errno; 0 when the server closed it
    sockaddr_in server;
    int waiting;          // queries
    int64_t answered_at;  // when the last answer came, or it was opened
    int64_t silent_since; // since when a query waits and no answer came; NEVER
};

} // namespace

static Upstream upstreams[MAX_UPSTREAMS];
static TcpQuery *by_id[ID_CHAINS];
static TcpQuery *earliest, *latest; // of those that wait
static int epoll;
static FinishTcpQuery finish_query;

static int64_t timeout_us() {
    return int64_t{oDNS.dns_timeout} * US_PER_MS;
}

// --- the queries that wait -----------------------------------------------------------------------

static TcpQuery *&chain_of(int16_t upstream, uint16_t id) {
    return by_id[(static_cast<uint32_t>(upstream) * 0x9E3779B1U + id) % ID_CHAINS];
}

static TcpQuery *find_query(int16_t upstream, uint16_t id) {
    TcpQuery *query = chain_of(upstream, id);
    while (query && (query->upstream != upstream || query->id != id))
        query = query->next_of_id;
    return query;
}

static void append_query(TcpQuery *query) {
    query->earlier = latest;
    query->later = nullptr;
    (latest ? latest->later : earliest) = query;
    latest = query;
}

// Cuts a query off from its connection: no answer will find it.
static void detach(TcpQuery *query) {
    if (query->upstream == NO_UPSTREAM)
        return;
    TcpQuery **link = &chain_of(query->upstream, query->id);
    while (*link != query)
        link = &(*link)->next_of_id;
    *link = query->next_of_id;
    upstreams[query->upstream].waiting--;
    query->upstream = NO_UPSTREAM;
}

static void take_out(TcpQuery *query) {
    detach(query);
    (query->earlier ? query->earlier->later : earliest) = query->later;
    (query->later ? query->later->earlier : latest) = query->earlier;
}

// Server failure: the query's header and question, and no records.
static void fail_query(TcpQuery *query) {
    constexpr uint8_t OPCODE_AND_DESIRED = 0x79, RESPONSE = 0x80, AVAILABLE = 0x80, FAILURE = 2;
    take_out(query);
    TcpMessage *reply = new_tcp_message(query->question_end);
    if (reply) {
        uint8_t *bytes = content_of(reply);
        memcpy(bytes, content_of(query->message), query->question_end);
        bytes[2] = static_cast<uint8_t>(RESPONSE | (bytes[2] & OPCODE_AND_DESIRED));
        bytes[3] = AVAILABLE | FAILURE;
        std::fill(bytes + 6, bytes + QUESTION_OFFSET, uint8_t{0});
    }
    finish_query(query, reply);
}

static void log_failure(sockaddr_in server, const char *why) {
    syslog(LOG_ERR, "No answer over TCP from upstream server %s: %s", socket2ip(server), why);
}

// --- connections ---------------------------------------------------------------------------------

static uint64_t event_of(const Upstream &upstream) {
    return tcp_event(TcpEvent::UPSTREAM, static_cast<uint32_t>(&upstream - upstreams),
                     upstream.generation);
}

// A socket that connects; none when it cannot, errno says why.
static UniqueFd connect_to(sockaddr_in server) {
    if (server.sin_addr.s_addr == INADDR_NONE) {
        errno = EDESTADDRREQ; // a text that is no address
        return UniqueFd();
    }
    UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int on = 1;
    if (!fd)
        return fd;
    setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (connect(fd.get(), reinterpret_cast<const sockaddr *>(&server), sizeof server) != 0 &&
        errno != EINPROGRESS)
        return UniqueFd();
    return fd;
}

// Null when it cannot be opened, which is then logged.
static Upstream *open_upstream(sockaddr_in server) {
    Upstream *upstream =
        std::find_if(std::begin(upstreams), std::end(upstreams),
                     [](const Upstream &each) { return each.state == State::CLOSED; });
    if (upstream == std::end(upstreams)) {
        log_failure(server, "too many connections");
        return nullptr;
    }
    UniqueFd fd = connect_to(server);
    epoll_event event = {};
    event.events = EPOLLIN | EPOLLOUT;
    event.data.u64 = event_of(*upstream);
    if (!fd || epoll_ctl(epoll, EPOLL_CTL_ADD, fd.get(), &event) != 0) {
        log_failure(server, error_text());
        return nullptr;
    }
    *upstream = {.stream = {},
                 .generation = upstream->generation,
                 .state = State::CONNECTING,
                 .is_retired = false,
                 .error = 0,
                 .server = server,
                 .waiting = 0,
                 .answered_at = now_us(),
                 .silent_since = NEVER};
    upstream->stream.fd = fd.release();
    upstream->stream.watched = event.events;
    return upstream;
}

static void close_upstream(Upstream &upstream) {
    close_stream(upstream.stream);
    upstream.state = State::CLOSED;
    upstream.generation++; // what epoll still has to tell of it is void
}

static void break_upstream(Upstream &upstream, int error) {
    upstream.state = upstream.state == State::CONNECTING ? State::BROKEN_OFF : State::BROKEN;
    upstream.error = error;
}

static bool takes_queries(const Upstream &upstream) {
    return (upstream.state == State::CONNECTING || upstream.state == State::OPEN) &&
           !upstream.is_retired;
}

static bool is_of_use(const Upstream &upstream, sockaddr_in server) {
    return upstream.server.sin_addr.s_addr == server.sin_addr.s_addr &&
           upstream.stream.unsent < MAX_UNSENT &&
           (upstream.silent_since == NEVER || now_us() - upstream.silent_since < timeout_us());
}

// The connection that a query is to take.
static Upstream *choose_upstream() {
    const sockaddr_in server = relay_upstream();
    for (Upstream &upstream : upstreams) {
        if (!takes_queries(upstream))
            continue;
        if (is_of_use(upstream, server))
            return &upstream;
        upstream.is_retired = true;
    }
    return open_upstream(server);
}

// --- sending -------------------------------------------------------------------------------------

// An id that no other query has on the connection. False without random numbers.
static bool draw_id(int16_t upstream, uint16_t &id) {
    do
        if (getrandom(&id, sizeof id, GRND_NONBLOCK) != static_cast<ssize_t>(sizeof id)) {
            syslog(LOG_ERR, "No random numbers for upstream queries: %s", error_text());
            return false;
        }
    while (find_query(upstream, id));
    return true;
}

// Sends a query that waits and has no connection. False when that cannot be done.
static bool send_query(TcpQuery *query) {
    query->tries++;
    Upstream *upstream = choose_upstream();
    if (!upstream)
        return false;
    const auto index = static_cast<int16_t>(upstream - upstreams);
    TcpMessage *copy = new_tcp_message(query->message->length);
    if (!copy || !draw_id(index, query->id)) {
        free(copy);
        return false;
    }
    uint8_t *bytes = content_of(copy);
    memcpy(bytes, content_of(query->message), copy->length);
    bytes[0] = static_cast<uint8_t>(query->id >> 8);
    bytes[1] = static_cast<uint8_t>(query->id);
    query->upstream = index;
    query->next_of_id = chain_of(index, query->id);
    chain_of(index, query->id) = query;
    upstream->waiting++;
    upstream->silent_since = std::min(upstream->silent_since, now_us());
    append_message(upstream->stream, copy);
    if (upstream->state == State::OPEN && !send_messages(upstream->stream))
        break_upstream(*upstream, errno);
    return true;
}

void forward_tcp_query(TcpQuery *query) {
    query->upstream = NO_UPSTREAM;
    query->tries = 0;
    query->deadline = now_us() + timeout_us();
    append_query(query);
    if (!send_query(query))
        fail_query(query);
}

void forget_tcp_queries(uint32_t connection, uint32_t generation) {
    for (TcpQuery *query = earliest, *later; query; query = later) {
        later = query->later;
        if (query->connection != connection || query->generation != generation)
            continue;
        take_out(query);
        free_tcp_query(query);
    }
}

// --- answers -------------------------------------------------------------------------------------

static void take_answer(Upstream &upstream, TcpMessage *answer) {
    const int64_t now = now_us();
    upstream.silent_since = upstream.waiting > 0 ? now : NEVER;
    uint8_t *bytes = content_of(answer);
    TcpQuery *query = nullptr;
    if (answer->length >= QUESTION_OFFSET)
        query = find_query(static_cast<int16_t>(&upstream - upstreams),
                           static_cast<uint16_t>(bytes[0] << 8 | bytes[1]));
    if (!query ||
        !make_reply(bytes, answer->length, content_of(query->message), query->question_end)) {
        syslog(LOG_DEBUG, "Dropping what answers no query, %d bytes",
               static_cast<int>(answer->length));
        free(answer);
        return;
    }
    if (oDNS.debug == 1)
        syslog(LOG_DEBUG, "Received: %.*s", static_cast<int>(answer->length),
               reinterpret_cast<const char *>(bytes));
    take_out(query);
    upstream.answered_at = now;
    if (upstream.waiting == 0)
        upstream.silent_since = NEVER;
    finish_query(query, answer);
}

static void read_answers(Upstream &upstream) {
    for (int count = 0; count < ANSWERS_AT_ONCE; count++) {
        TcpMessage *answer;
        switch (read_message(upstream.stream, answer)) {
        case Transfer::MESSAGE:
            take_answer(upstream, answer);
            break;
        case Transfer::ENDED:
            break_upstream(upstream, 0);
            return;
        case Transfer::FAILED:
            break_upstream(upstream, errno);
            return;
        default:
            return;
        }
    }
}

// Whether a connection came about.
static bool is_connected(const Upstream &upstream, int &error) {
    socklen_t size = sizeof error;
    if (getsockopt(upstream.stream.fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0)
        error = errno;
    return error == 0;
}

void serve_upstream(uint32_t index, uint32_t generation, uint32_t events) {
    Upstream &upstream = upstreams[index];
    if (upstream.generation != generation)
        return; // closed meanwhile
    if (upstream.state == State::CONNECTING) {
        if (int error = 0; !is_connected(upstream, error)) {
            break_upstream(upstream, error);
            return;
        }
        upstream.state = State::OPEN;
    }
    if (upstream.state == State::OPEN && events & (EPOLLIN | EPOLLERR | EPOLLHUP))
        read_answers(upstream);
    if (upstream.state == State::OPEN && !send_messages(upstream.stream))
        break_upstream(upstream, errno);
}

// --- what time brings ----------------------------------------------------------------------------

static void log_end(const Upstream &upstream) {
    errno = upstream.error;
    log_failure(upstream.server, upstream.error ? error_text() : "connection closed");
}

// Ends a broken connection. Queries on it are to be sent again, if they may.
static void end_upstream(Upstream &upstream) {
    const auto index = static_cast<int16_t>(&upstream - upstreams);
    const bool was_open = upstream.state == State::BROKEN;
    bool is_logged = false;
    for (TcpQuery *query = earliest, *later; query; query = later) {
        later = query->later;
        if (query->upstream != index)
            continue;
        if (was_open && query->tries < MAX_TRIES) {
            detach(query);
            continue;
        }
        if (!std::exchange(is_logged, true))
            log_end(upstream);
        fail_query(query);
    }
    close_upstream(upstream);
}

static void send_again() {
    for (TcpQuery *query = earliest, *later; query; query = later) {
        later = query->later;
        if (query->upstream == NO_UPSTREAM && !send_query(query))
            fail_query(query);
    }
}

static bool end_broken_upstreams() {
    bool is_any = false;
    for (Upstream &upstream : upstreams)
        if (upstream.state == State::BROKEN || upstream.state == State::BROKEN_OFF) {
            end_upstream(upstream);
            is_any = true;
        }
    return is_any;
}

static void end_late_queries(int64_t now) {
    while (earliest && earliest->deadline <= now) {
        if (earliest->upstream != NO_UPSTREAM) {
            Upstream &upstream = upstreams[earliest->upstream];
            upstream.is_retired = true;
            log_failure(upstream.server, "timed out");
        }
        fail_query(earliest);
    }
}

// When a connection is to be closed on which nothing happens.
static int64_t end_of(const Upstream &upstream) {
    if (upstream.waiting > 0)
        return NEVER;
    return upstream.is_retired ? 0 : upstream.answered_at + TIME_KEPT;
}

int64_t tend_upstreams() {
    while (end_broken_upstreams()) // at most as often as there are tries
        send_again();
    const int64_t now = now_us();
    end_late_queries(now);
    int64_t next = earliest ? earliest->deadline : NEVER;
    for (Upstream &upstream : upstreams) {
        if (upstream.state == State::CLOSED)
            continue;
        if (const int64_t end = end_of(upstream); end > now) {
            next = std::min(next, end);
            const bool has_more = upstream.state == State::CONNECTING || upstream.stream.unsent > 0;
            watch_stream(upstream.stream, epoll, has_more ? EPOLLIN | EPOLLOUT : EPOLLIN,
                         event_of(upstream));
        } else {
            close_upstream(upstream);
        }
    }
    return next;
}

void start_tcp_forwarding(int epoll_fd, FinishTcpQuery finish) {
    epoll = epoll_fd;
    finish_query = finish;
    for (Upstream &upstream : upstreams)
        upstream = {};
}

void end_tcp_forwarding() {
    for (TcpQuery *query = earliest, *later; query; query = later) {
        later = query->later;
        free_tcp_query(query);
    }
    earliest = latest = nullptr;
    std::fill(std::begin(by_id), std::end(by_id), nullptr);
    for (Upstream &upstream : upstreams)
        if (upstream.state != State::CLOSED)
            close_upstream(upstream);
}
