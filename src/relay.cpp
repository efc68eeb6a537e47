#include "relay.h"

#include "config.h"
#include "counters.h"
#include "forward.h"
#include "guards.h"
#include "ledutils.h"
#include "message.h"
#include "netutils.h"
#include "thpool.h"
#include "utils.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <syslog.h>
#include <unistd.h>

static constexpr int NONE = -1; // no query, no socket
static constexpr int64_t NEVER = INT64_MAX;

// Sockets that take queries, each in a place of its own. Those that take no more but are waited on
// need few: of them the oldest goes when there are too many.
static constexpr int PLACES = 32;
static constexpr int MAX_SOCKETS = 4 * PLACES;
static constexpr int MAX_QUERIES_PER_SOCKET = 1000;
static constexpr int64_t MAX_SOCKET_AGE = 10 * US_PER_S;

// Datagrams read from a socket before a query goes out on it; more of them cost another socket.
static constexpr int MAX_READ_BEFORE = 64;

// What the thread does before it looks for answers again.
static constexpr int EVENTS_AT_ONCE = 16;
static constexpr int MOVES_AT_ONCE = 8;

static constexpr size_t MAX_DATAGRAM = 65535;
static constexpr int64_t FULL_WARNING_INTERVAL = 10 * US_PER_S;

namespace {

enum class State : uint8_t {
    WAITS, // for its answer; perhaps without a socket, and then for its end
    MOVES, // to the server in use
    ENDS,  // as if its time were over
};

// What became of an attempt to get hold of a socket or to send: the network may say no, and the
// system may have no means.
enum class Outcome : uint8_t { DONE, REFUSED, FAILED };

// A query in flight. Indices are into relay.queries.
struct Waiting {
    sockaddr_in client;
    int64_t deadline; // microseconds of the monotonic clock
    uint32_t hash;    // of client and query
    int16_t previous, next;
    int16_t next_of_id, next_of_hash; // in the same chain
    int16_t socket;                   // or NONE
    uint16_t id;                      // that went out
    uint16_t length, question_end;
    uint8_t tried; // a bit for each upstream slot that it was meant for
    State state;
    uint8_t query[MAX_MESSAGE];
};

struct Socket {
    int fd; // -1 when closed
    uint32_t generation;
    int64_t opened;
    int16_t sent;    // queries that went out
    int16_t waiting; // queries that may be answered
    int8_t place;    // NONE once it takes no more queries
};

// Oldest first.
struct Queue {
    int16_t head = NONE, tail = NONE;
};

// Guarded by relay_mutex; valid while `is_running`.
struct Relay {
    bool is_running;
    bool is_ending; // the thread shall end
    pthread_t thread;
    int epoll_fd, wake_fd;
    int64_t wakes_at; // when the thread looks after deadlines next

    int slot; // where the sockets lead: the upstream slot in use and its address
    in_addr_t address;
    Socket sockets[MAX_SOCKETS];
    int16_t places[PLACES];

    Waiting *queries; // as many as may wait, none of them moved
    int16_t *by_id;   // heads of chains
    int16_t *by_hash;
    uint32_t chains; // a power of two
    uint32_t seed;   // of the hashes
    int16_t unused;  // chained by `next`
    Queue waiting;   // by deadline; those that move come first
    Queue ending;
    int64_t warned_at; // that the table is full
};

} // namespace

static Relay relay;
static pthread_mutex_t relay_mutex = PTHREAD_MUTEX_INITIALIZER;

static Waiting &query_at(int index) {
    return relay.queries[index];
}

// --- messages ------------------------------------------------------------------------------------

static uint16_t message_id(const uint8_t *message) {
    return static_cast<uint16_t>(message[0] << 8 | message[1]);
}

static void send_to_client(const uint8_t *message, size_t length, sockaddr_in client) {
    const ssize_t sent =
        send_datagram(oDNS.listenfd, message, static_cast<int32_t>(length), client);
    if (sent < 0)
        syslog(LOG_ERR, "Received error: %s %d\n", error_text(), static_cast<int>(sent));
    else if (oDNS.debug == 1)
        syslog(LOG_DEBUG, "Received: %.*s", static_cast<int>(length),
               reinterpret_cast<const char *>(message));
}

static void return_malformed(const uint8_t *message, size_t length, sockaddr_in client) {
    uint8_t reply[MAX_MESSAGE];
    memcpy(reply, message, length);
    mark_malformed(reply);
    send_to_client(reply, length, client);
}

// --- random numbers ------------------------------------------------------------------------------

// Draws random bytes, a few out of many that the kernel gave at once. Does not wait for a kernel
// that has none yet.
static bool draw(void *into, size_t size) {
    static uint8_t drawn[256];
    static size_t left;
    if (left < size) {
        if (getrandom(drawn, sizeof drawn, GRND_NONBLOCK) != static_cast<ssize_t>(sizeof drawn)) {
            syslog(LOG_ERR, "No random numbers for upstream queries: %s", error_text());
            return false;
        }
        left = sizeof drawn;
    }
    memcpy(into, drawn + sizeof drawn - left, size);
    left -= size;
    return true;
}

// --- finding a query -----------------------------------------------------------------------------

static int16_t &chain_of_id(int socket, uint16_t id) {
    return relay.by_id[(static_cast<uint32_t>(socket) * 0x9E3779B1U + id) & (relay.chains - 1)];
}

static int16_t &chain_of_hash(uint32_t hash) {
    return relay.by_hash[hash & (relay.chains - 1)];
}

static int find_by_id(int socket, uint16_t id) {
    int at = chain_of_id(socket, id);
    while (at != NONE && (query_at(at).socket != socket || query_at(at).id != id))
        at = query_at(at).next_of_id;
    return at;
}

static uint32_t hash_of(const uint8_t *query, size_t length, sockaddr_in client) {
    constexpr uint32_t PRIME = 16777619; // FNV-1a
    uint32_t hash = (relay.seed ^ client.sin_addr.s_addr) * PRIME;
    hash = (hash ^ client.sin_port) * PRIME;
    for (size_t i = 0; i < length; i++)
        hash = (hash ^ query[i]) * PRIME;
    return hash ^ hash >> 16;
}

static int find_same(const uint8_t *query, size_t length, sockaddr_in client, uint32_t hash) {
    int at = chain_of_hash(hash);
    for (; at != NONE; at = query_at(at).next_of_hash) {
        const Waiting &other = query_at(at);
        if (other.hash == hash && other.length == length &&
            other.client.sin_addr.s_addr == client.sin_addr.s_addr &&
            other.client.sin_port == client.sin_port && memcmp(other.query, query, length) == 0)
            break;
    }
    return at;
}

// Takes a query out of the chain that begins at `link`.
static void unchain(int16_t *link, int16_t Waiting::*next, int index) {
    while (*link != index)
        link = &(query_at(*link).*next);
    *link = query_at(index).*next;
}

// --- queues --------------------------------------------------------------------------------------

static void append(Queue &queue, int index) {
    const auto added = static_cast<int16_t>(index);
    query_at(index).previous = queue.tail;
    query_at(index).next = NONE;
    (queue.tail == NONE ? queue.head : query_at(queue.tail).next) = added;
    queue.tail = added;
}

static void prepend(Queue &queue, int index) {
    const auto added = static_cast<int16_t>(index);
    query_at(index).previous = NONE;
    query_at(index).next = queue.head;
    (queue.head == NONE ? queue.tail : query_at(queue.head).previous) = added;
    queue.head = added;
}

static void take_out(Queue &queue, int index) {
    const Waiting &query = query_at(index);
    (query.previous == NONE ? queue.head : query_at(query.previous).next) = query.next;
    (query.next == NONE ? queue.tail : query_at(query.next).previous) = query.previous;
}

// --- sockets -------------------------------------------------------------------------------------

static void close_socket(int index) {
    Socket &closed = relay.sockets[index];
    if (closed.place != NONE)
        relay.places[closed.place] = NONE;
    close(closed.fd);
    closed.fd = -1;
    closed.generation++; // what epoll still has to tell of it is void
}

// Makes a socket take no new queries.
static void retire_socket(int index) {
    Socket &retired = relay.sockets[index];
    if (retired.place == NONE)
        return;
    relay.places[retired.place] = NONE;
    retired.place = NONE;
    if (retired.waiting == 0)
        close_socket(index);
}

// Cuts a query off from its socket: no answer will find it.
static void detach(int index) {
    Waiting &query = query_at(index);
    if (query.socket == NONE)
        return;
    unchain(&chain_of_id(query.socket, query.id), &Waiting::next_of_id, index);
    Socket &socket = relay.sockets[query.socket];
    if (--socket.waiting == 0 && socket.place == NONE)
        close_socket(query.socket);
    query.socket = NONE;
}

static void wake_thread() {
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(relay.wake_fd, &one, sizeof one);
}

// Lets the thread end a query, which is in no queue. An answer that came before its end would take
// it out of the wrong one.
static void end_soon(int index) {
    detach(index);
    if (relay.ending.head == NONE)
        wake_thread();
    query_at(index).state = State::ENDS;
    append(relay.ending, index);
}

// Closes a socket that failed. What waits on it ends, or with `may_wait` as its deadline says.
static void give_up_socket(int socket, bool may_wait) {
    for (int at = relay.waiting.head, next; at != NONE; at = next) {
        next = query_at(at).next;
        if (query_at(at).socket != socket)
            continue;
        unchain(&chain_of_id(socket, query_at(at).id), &Waiting::next_of_id, at);
        query_at(at).socket = NONE;
        if (may_wait)
            continue;
        take_out(relay.waiting, at);
        end_soon(at);
    }
    close_socket(socket);
}

static bool is_worn_out(const Socket &socket) {
    return socket.sent >= MAX_QUERIES_PER_SOCKET || now_us() - socket.opened >= MAX_SOCKET_AGE;
}

// An index for one socket more; that of the oldest which takes no queries when all are in use.
static int free_socket_index() {
    int oldest = NONE;
    for (int i = 0; i < MAX_SOCKETS; i++) {
        const Socket &socket = relay.sockets[i];
        if (socket.fd < 0)
            return i;
        if (socket.place == NONE &&
            (oldest == NONE || socket.opened < relay.sockets[oldest].opened))
            oldest = i;
    }
    give_up_socket(oldest, true);
    return oldest;
}

static Outcome own_failure(const char *step) {
    syslog(LOG_ERR, "No socket for upstream queries, %s: %s", step, error_text());
    return Outcome::FAILED;
}

static bool is_own_failure(int error) {
    return error == ENOBUFS || error == ENOMEM || error == EAGAIN;
}

static Outcome connect_to_upstream(int fd) {
    sockaddr_in upstream = {};
    upstream.sin_family = AF_INET;
    upstream.sin_port = upstream_port();
    upstream.sin_addr.s_addr = relay.address;
    if (connect(fd, reinterpret_cast<const sockaddr *>(&upstream), sizeof upstream) == 0)
        return Outcome::DONE;
    if (is_own_failure(errno))
        return own_failure("connect");
    syslog(LOG_DEBUG, "No way to the upstream server: %s", error_text());
    return Outcome::REFUSED;
}

static Outcome open_socket(int place) {
    if (relay.address == INADDR_NONE)
        return Outcome::REFUSED; // a text that is no address
    const int index = free_socket_index();
    UniqueFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd)
        return own_failure("socket");
    const Outcome connected = connect_to_upstream(fd.get());
    if (connected != Outcome::DONE)
        return connected;
    Socket &opened = relay.sockets[index];
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.u64 = uint64_t{opened.generation} << 32 | static_cast<uint32_t>(index);
    if (epoll_ctl(relay.epoll_fd, EPOLL_CTL_ADD, fd.get(), &event) != 0)
        return own_failure("epoll_ctl");
    opened = {.fd = fd.release(),
              .generation = opened.generation,
              .opened = now_us(),
              .sent = 0,
              .waiting = 0,
              .place = static_cast<int8_t>(place)};
    relay.places[place] = static_cast<int16_t>(index);
    return Outcome::DONE;
}

// --- answers -------------------------------------------------------------------------------------

// A record whose query is done with, or never began. It is in no queue.
static void forget_query(int index) {
    detach(index);
    Waiting &query = query_at(index);
    unchain(&chain_of_hash(query.hash), &Waiting::next_of_hash, index);
    query.next = relay.unused;
    relay.unused = static_cast<int16_t>(index);
}

namespace {

enum class Reading : uint8_t { ANSWER, DROPPED, NOTHING, ERROR };

} // namespace

// Reads a datagram from a socket. With the answer to a query comes its client. A socket with an
// error is no more afterwards.
static Reading read_answer(int socket, uint8_t *buffer, size_t &length, sockaddr_in &client) {
    const ssize_t received = recv(relay.sockets[socket].fd, buffer, MAX_DATAGRAM, 0);
    if (received < 0 && (errno == EAGAIN || errno == EINTR))
        return Reading::NOTHING;
    if (received < 0) {
        give_up_socket(socket, false);
        return Reading::ERROR;
    }
    length = static_cast<size_t>(received);
    const int index = length < QUESTION_OFFSET ? NONE : find_by_id(socket, message_id(buffer));
    if (index == NONE ||
        !make_reply(buffer, length, query_at(index).query, query_at(index).question_end)) {
        syslog(LOG_DEBUG, "Dropping what answers no query, %d bytes", static_cast<int>(received));
        return Reading::DROPPED;
    }
    client = query_at(index).client;
    take_out(relay.waiting, index);
    forget_query(index);
    oDNS.dns_timeouts = 0;
    return Reading::ANSWER;
}

// Empties a socket before a query takes it, so that what came before the query is never its answer.
// False when the socket is of no use for it.
static bool read_what_came_before(int socket) {
    static uint8_t buffer[MAX_DATAGRAM];
    const uint32_t generation = relay.sockets[socket].generation;
    for (int count = 0; count < MAX_READ_BEFORE; count++) {
        size_t length;
        sockaddr_in client;
        const Reading reading = read_answer(socket, buffer, length, client);
        if (reading == Reading::ANSWER)
            send_to_client(buffer, length, client);
        else if (reading != Reading::DROPPED)
            return reading == Reading::NOTHING;
    }
    if (relay.sockets[socket].generation == generation)
        retire_socket(socket);
    return false;
}

// --- sending -------------------------------------------------------------------------------------

// Finds a socket for a query, in a random place. Sets its index.
static Outcome choose_socket(int &socket) {
    for (int tries = 0; tries <= PLACES; tries++) {
        uint8_t random;
        if (!draw(&random, sizeof random))
            return Outcome::FAILED;
        const int16_t &place = relay.places[random % PLACES];
        if (place != NONE && is_worn_out(relay.sockets[place]))
            retire_socket(place);
        const bool is_fresh = place == NONE;
        if (is_fresh)
            if (const Outcome opened = open_socket(random % PLACES); opened != Outcome::DONE)
                return opened;
        socket = place;
        if (is_fresh || read_what_came_before(socket))
            return Outcome::DONE;
    }
    return Outcome::REFUSED; // one is flooded as soon as it is opened
}

// Gives a query a socket, and an id that no other one has there. It leaves its old socket only when
// that worked.
static Outcome attach(int index) {
    Waiting &query = query_at(index);
    query.tried = static_cast<uint8_t>(query.tried | 1U << relay.slot);
    int socket;
    if (const Outcome chosen = choose_socket(socket); chosen != Outcome::DONE)
        return chosen;
    uint16_t id;
    do
        if (!draw(&id, sizeof id))
            return Outcome::FAILED;
    while (find_by_id(socket, id) != NONE);
    detach(index);
    query.socket = static_cast<int16_t>(socket);
    query.id = id;
    int16_t &chain = chain_of_id(socket, id);
    query.next_of_id = chain;
    chain = static_cast<int16_t>(index);
    relay.sockets[socket].waiting++;
    return Outcome::DONE;
}

// Sends a query as it came but for its id. What our own system has no room for is as good as lost
// on the way.
static bool send_from_socket(Waiting &query) {
    uint8_t id[] = {static_cast<uint8_t>(query.id >> 8), static_cast<uint8_t>(query.id)};
    iovec parts[] = {{id, sizeof id}, {query.query + sizeof id, query.length - sizeof id}};
    msghdr message = {};
    message.msg_iov = parts;
    message.msg_iovlen = std::size(parts);
    Socket &socket = relay.sockets[query.socket];
    socket.sent++;
    if (sendmsg(socket.fd, &message, 0) >= 0)
        return true;
    const bool is_lost = is_own_failure(errno);
    syslog(LOG_DEBUG, "Query not sent: %s", error_text());
    return is_lost;
}

// Sends a query from its socket. A refusal of an earlier one may come to light with it: then it
// takes another socket.
static Outcome transmit(int index) {
    Waiting &query = query_at(index);
    for (;;) {
        if (send_from_socket(query))
            return Outcome::DONE;
        const int socket = query.socket;
        const bool is_fresh = relay.sockets[socket].sent == 1;
        detach(index);
        give_up_socket(socket, false);
        if (is_fresh)
            return Outcome::REFUSED;
        if (const Outcome attached = attach(index); attached != Outcome::DONE)
            return attached;
    }
}

// --- the life of a query -------------------------------------------------------------------------

// A free record with the query in it, in no queue yet; NONE when there is none.
static int add_query(const uint8_t *message, size_t length, size_t question_end, sockaddr_in client,
                     uint32_t hash) {
    const int index = relay.unused;
    if (index == NONE)
        return NONE;
    Waiting &query = query_at(index);
    relay.unused = query.next;
    query.client = client;
    query.hash = hash;
    query.socket = NONE;
    query.length = static_cast<uint16_t>(length);
    query.question_end = static_cast<uint16_t>(question_end);
    query.tried = 0;
    query.state = State::WAITS;
    memcpy(query.query, message, length);
    query.next_of_hash = chain_of_hash(hash);
    chain_of_hash(hash) = static_cast<int16_t>(index);
    return index;
}

static void start_waiting(int index) {
    Waiting &query = query_at(index);
    query.state = State::WAITS;
    query.deadline = now_us() + int64_t{oDNS.dns_timeout} * US_PER_MS;
    append(relay.waiting, index);
    if (query.deadline < relay.wakes_at) {
        relay.wakes_at = query.deadline;
        wake_thread();
    }
}

static void move_to_upstream(int slot, in_addr_t address) {
    const bool is_same_slot = slot == relay.slot;
    relay.slot = slot;
    relay.address = address;
    if (is_same_slot)
        oDNS.dns_timeouts = 0;
    for (int i = 0; i < MAX_SOCKETS; i++)
        if (relay.sockets[i].fd >= 0)
            close_socket(i);
    std::fill_n(relay.by_id, relay.chains, static_cast<int16_t>(NONE));
    while (relay.ending.tail != NONE) {
        const int last = relay.ending.tail;
        take_out(relay.ending, last);
        prepend(relay.waiting, last);
    }
    for (int at = relay.waiting.head; at != NONE; at = query_at(at).next) {
        Waiting &query = query_at(at);
        query.socket = NONE;
        query.state = State::MOVES;
        if (is_same_slot) // another address is another server
            query.tried = static_cast<uint8_t>(query.tried & ~(1U << slot));
    }
    wake_thread();
}

// Takes notice of a switch and of a changed address: nothing is taken from the old sockets any
// more, and what waits on them is sent again.
static void follow_upstream() {
    const in_addr_t address = upstream_address(oDNS.current_dns);
    if (oDNS.current_dns != relay.slot || address != relay.address)
        move_to_upstream(oDNS.current_dns, address);
}

// What becomes of a query that is in no queue, behind an attempt to send it.
static void settle(int index, Outcome outcome) {
    if (outcome == Outcome::DONE)
        start_waiting(index);
    else if (outcome == Outcome::REFUSED)
        end_soon(index);
    else
        forget_query(index);
}

// Sends a query to the server in use now, unless it was sent there before: then all were tried.
static void move_query(int index) {
    take_out(relay.waiting, index);
    query_at(index).state = State::WAITS;
    if (query_at(index).tried & 1U << relay.slot) {
        forget_query(index);
        return;
    }
    Outcome outcome = attach(index);
    if (outcome == Outcome::DONE)
        outcome = transmit(index);
    settle(index, outcome);
}

// Ends a query that gets no answer. Returns whether a report falls due.
static bool end_query(int index) {
    Waiting &query = query_at(index);
    take_out(query.state == State::ENDS ? relay.ending : relay.waiting, index);
    if (query.socket != NONE)
        retire_socket(query.socket);
    forget_query(index);
    oDNS.dns_timeouts++;
    syslog(LOG_ERR, "ERROR: Upstream DNS Response timed out, Resetting connection (%d)\n",
           oDNS.dns_timeouts);
    syslog(LOG_DEBUG, "Reset upstream DNS connection");
    multi_led_orange();
    const bool is_due = count_only(0, 0, 1, 0);
    switch_after_timeouts();
    follow_upstream();
    return is_due;
}

// --- from the workers ----------------------------------------------------------------------------

static void warn_of_full_table() {
    const int64_t now = now_us();
    if (now - relay.warned_at < FULL_WARNING_INTERVAL)
        return;
    relay.warned_at = now;
    syslog(LOG_WARNING, "Too many queries wait for an answer, dropping queries");
}

// Whether a query that waits can be sent again as it went out.
static bool has_useful_socket(const Waiting &query) {
    if (query.socket == NONE)
        return false;
    const Socket &socket = relay.sockets[query.socket];
    if (is_worn_out(socket))
        retire_socket(query.socket);
    return socket.place != NONE;
}

// Sends a query that waits already, with the deadline that it has. False when that failed for want
// of means; then it is not counted.
static bool send_again(int index, bool &is_due) {
    const bool is_waiting =
        query_at(index).state == State::WAITS; // what moves or ends does so soon
    Outcome outcome = Outcome::DONE;
    if (is_waiting && !has_useful_socket(query_at(index)))
        outcome = attach(index);
    if (outcome == Outcome::FAILED)
        return false;
    is_due = count_only(1, 0, 0, 0);
    if (is_waiting && outcome == Outcome::DONE)
        outcome = transmit(index);
    if (outcome == Outcome::REFUSED) {
        take_out(relay.waiting, index);
        end_soon(index);
    }
    return true;
}

static bool send_first(int index, bool &is_due) {
    Outcome outcome = attach(index);
    if (outcome == Outcome::FAILED) {
        forget_query(index);
        return false;
    }
    is_due = count_only(1, 0, 0, 0);
    if (outcome == Outcome::DONE)
        outcome = transmit(index);
    settle(index, outcome);
    return true;
}

static bool take_query(const uint8_t *message, size_t length, size_t question_end,
                       sockaddr_in client, bool &is_due) {
    const uint32_t hash = hash_of(message, length, client);
    int index = find_same(message, length, client, hash);
    const bool is_again = index != NONE;
    if (!is_again)
        index = add_query(message, length, question_end, client, hash);
    if (index == NONE) {
        warn_of_full_table();
        return false;
    }
    syslog(LOG_DEBUG, "Forwarding request");
    multi_led_blue();
    choose_upstream();
    follow_upstream();
    return is_again ? send_again(index, is_due) : send_first(index, is_due);
}

bool relay_request(const uint8_t *message, int32_t length, sockaddr_in client) {
    if (length < QUESTION_OFFSET || is_response(message))
        return false;
    const auto size = static_cast<size_t>(length);
    const size_t question_end = find_question_end(message, size);
    if (question_end == 0) {
        return_malformed(message, size, client);
        return false;
    }
    bool is_taken = false, is_due = false;
    {
        const MutexGuard guard(relay_mutex);
        if (relay.is_running && !relay.is_ending)
            is_taken = take_query(message, size, question_end, client, is_due);
    }
    if (is_due)
        report_stats();
    return is_taken;
}

sockaddr_in relay_upstream() {
    const MutexGuard guard(relay_mutex);
    sockaddr_in upstream = {};
    upstream.sin_family = AF_INET;
    upstream.sin_port = upstream_port();
    upstream.sin_addr.s_addr = upstream_address(oDNS.current_dns);
    return upstream;
}

void relay_upstreams_changed() {
    const MutexGuard guard(relay_mutex);
    if (relay.is_running)
        wake_thread();
}

// --- the thread ----------------------------------------------------------------------------------

static constexpr uint64_t WAKE_EVENT = UINT64_MAX;

static std::atomic<int> reports_due;

static void *write_reports(void *) {
    for (int left = reports_due.exchange(0); left > 0; left--)
        report_stats();
    return nullptr;
}

// A report may wait for the database. This thread must not, a worker may. It needs no `lock`: also
// the receive loop may answer a query meanwhile.
static void hand_on_report() {
    if (reports_due++ == 0 && thpool_add_work(oDNS.pool, write_reports, nullptr) != 0)
        reports_due = 0;
}

// Takes one datagram that an event tells of; if there are more, epoll tells again.
static void take_answer(uint64_t event) {
    static uint8_t buffer[MAX_DATAGRAM];
    size_t length;
    sockaddr_in client;
    {
        const MutexGuard guard(relay_mutex);
        const auto index = static_cast<uint32_t>(event);
        if (relay.sockets[index].generation != event >> 32)
            return; // closed meanwhile
        if (read_answer(static_cast<int>(index), buffer, length, client) != Reading::ANSWER)
            return;
    }
    send_to_client(buffer, length, client);
}

static void clear_wake_event() {
    uint64_t count;
    [[maybe_unused]] const ssize_t done = read(relay.wake_fd, &count, sizeof count);
}

static int next_to_end() {
    if (relay.ending.head != NONE)
        return relay.ending.head;
    const int head = relay.waiting.head;
    const bool is_over =
        head != NONE && query_at(head).state == State::WAITS && query_at(head).deadline <= now_us();
    return is_over ? head : NONE;
}

// How long the thread may sleep, in milliseconds. While nothing waits it keeps to what it told
// before: so most queries that find nobody waiting need not wake it.
static int time_to_sleep() {
    const int head = relay.waiting.head;
    const int64_t now = now_us();
    if (head != NONE)
        relay.wakes_at = query_at(head).state == State::MOVES ? now : query_at(head).deadline;
    else if (relay.wakes_at <= now)
        relay.wakes_at = NEVER;
    if (relay.ending.head != NONE || relay.wakes_at <= now)
        return 0;
    if (relay.wakes_at == NEVER)
        return -1;
    return static_cast<int>(
        std::min<int64_t>((relay.wakes_at - now + US_PER_MS - 1) / US_PER_MS, INT32_MAX));
}

// Does what is due, but only so much that answers need not wait for it. Returns time_to_sleep().
static int tend_queries() {
    bool is_due = false;
    int time_left;
    {
        const MutexGuard guard(relay_mutex);
        follow_upstream();
        for (int moves = 0; moves < MOVES_AT_ONCE && relay.waiting.head != NONE; moves++)
            if (query_at(relay.waiting.head).state == State::MOVES)
                move_query(relay.waiting.head);
        if (const int index = next_to_end(); index != NONE)
            is_due = end_query(index);
        time_left = time_to_sleep();
    }
    if (is_due)
        hand_on_report();
    return time_left;
}

static bool is_told_to_end() {
    const MutexGuard guard(relay_mutex);
    return relay.is_ending;
}

static void *relay_main(void *) {
    prctl(PR_SET_NAME, "relay");
    for (int time_left = -1; !is_told_to_end(); time_left = tend_queries()) {
        epoll_event events[EVENTS_AT_ONCE];
        const int count = epoll_wait(relay.epoll_fd, events, EVENTS_AT_ONCE, time_left);
        if (count < 0 && errno != EINTR) {
            syslog(LOG_ERR, "Cannot wait for upstream answers: %s", error_text());
            usleep(100'000); // not over and over again
        }
        for (int i = 0; i < count; i++)
            if (events[i].data.u64 == WAKE_EVENT)
                clear_wake_event();
            else
                take_answer(events[i].data.u64);
    }
    return nullptr;
}

// --- start and end -------------------------------------------------------------------------------

template <typename Record>
static bool allocate(Record *&records, size_t count) {
    records = static_cast<Record *>(calloc(count, sizeof(Record)));
    return records;
}

static bool make_table() {
    const auto size = static_cast<size_t>(oDNS.concurrent_queries);
    for (relay.chains = 1; relay.chains < size; relay.chains *= 2)
        continue;
    if (!allocate(relay.queries, size) || !allocate(relay.by_id, relay.chains) ||
        !allocate(relay.by_hash, relay.chains))
        return false;
    std::fill_n(relay.by_id, relay.chains, static_cast<int16_t>(NONE));
    std::fill_n(relay.by_hash, relay.chains, static_cast<int16_t>(NONE));
    std::fill_n(relay.places, PLACES, static_cast<int16_t>(NONE));
    relay.unused = NONE;
    for (int index = oDNS.concurrent_queries - 1; index >= 0; index--) {
        query_at(index).next = relay.unused;
        relay.unused = static_cast<int16_t>(index);
    }
    return true;
}

// Answers to devices that are not there wait for seconds, while the kernel looks for them. If it
// has no room for more, no other device gets one: a few hundred queries from addresses that
// somebody made up would be enough.
static void make_room_for_answers() {
    const int size = 1 << 20;
    for (const int option : {SO_SNDBUF, SO_SNDBUFFORCE}) // the second one is for root alone
        setsockopt(oDNS.listenfd, SOL_SOCKET, option, &size, sizeof size);
}

static bool make_events() {
    relay.epoll_fd = epoll_create1(EPOLL_CLOEXEC);
    relay.wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.u64 = WAKE_EVENT;
    return relay.epoll_fd >= 0 && relay.wake_fd >= 0 && // otherwise errno says why not
           epoll_ctl(relay.epoll_fd, EPOLL_CTL_ADD, relay.wake_fd, &event) == 0;
}

static void give_all_back() {
    for (int i = 0; i < MAX_SOCKETS; i++)
        if (relay.sockets[i].fd >= 0)
            close_socket(i);
    for (const int fd : {relay.epoll_fd, relay.wake_fd})
        if (fd >= 0)
            close(fd);
    free(relay.queries);
    free(relay.by_id);
    free(relay.by_hash);
    relay = {};
}

void start_relay() {
    if (oDNS.concurrent_queries == 0)
        return;
    const MutexGuard guard(relay_mutex);
    relay = {};
    relay.epoll_fd = relay.wake_fd = NONE;
    for (Socket &socket : relay.sockets)
        socket.fd = NONE;
    relay.slot = NONE;
    relay.wakes_at = NEVER;
    relay.warned_at = -FULL_WARNING_INTERVAL;
    if (!draw(&relay.seed, sizeof relay.seed)) // a kernel that just started; ids are drawn later
        relay.seed = static_cast<uint32_t>(now_us());
    relay.is_running = make_table() && make_events();
    if (relay.is_running) {
        errno = pthread_create(&relay.thread, nullptr, relay_main, nullptr);
        relay.is_running = errno == 0;
    }
    if (relay.is_running) {
        make_room_for_answers();
        return;
    }
    syslog(LOG_ERR, "Cannot forward many queries at once: %s", error_text());
    oDNS.concurrent_queries = 0;
    give_all_back();
}

void end_relay() {
    {
        const MutexGuard guard(relay_mutex);
        if (!relay.is_running)
            return;
        relay.is_ending = true;
        wake_thread();
    }
    pthread_join(relay.thread, nullptr);
    const MutexGuard guard(relay_mutex);
    give_all_back();
}
