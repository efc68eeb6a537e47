// What comes back from an upstream server while queries are forwarded one after the other: answers
// of any bytes and length, several at once, late ones, errors, silence, and a clock that moves. The
// linker puts the functions at the end in the place of the system's, so that the input decides what
// waits at which socket. Nothing here knows how often the daemon looks.
#include "config.h"
#include "forward.h"
#include "fuzz.h"
#include "message.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <ctime>
#include <deque>
#include <map>
#include <poll.h>
#include <sys/socket.h>
#include <vector>

namespace {

struct Arrival {
    std::string bytes;
    int error = 0; // in their place
    int query = 0; // after whose sending it came
};

// Far above the process's descriptors.
constexpr int LISTENER = 1 << 20, FIRST_SOCKET = LISTENER + 1;

std::map<int, std::deque<Arrival>> sockets; // the open ones, with what waits there
int next_socket, queries;
time_t now;

// What happens around one query, and what the daemon made of it.
struct Round {
    std::string query;
    std::vector<Arrival> answers; // come when the query was sent
    Arrival refill;               // comes whenever something is taken before that
    int refills, send_error, poll_error, relay_error;
    bool asked, timed_out, disturbed;
    int receives, received, relays;
    Arrival taken; // the last
} game;

Arrival make_arrival(Input &input) {
    const unsigned kind = input.byte();
    static constexpr int errors[] = {ECONNREFUSED, EHOSTUNREACH, EINTR, ENOMEM};
    return kind < 32 ? Arrival{"", errors[kind % 4]} : Arrival{input.text()};
}

void set_up(Input &input) {
    static char addresses[][20] = {"192.0.2.1", "192.0.2.2", "no address", "255.255.255.255"};
    oDNS.current_dns = oDNS.dns_timeouts = 0;
    oDNS.secondary_since = 0;
    for (int slot = 0; slot < UPSTREAM_SLOTS; slot++)
        oDNS.upstream_dns[slot] = input.byte() & 1 ? nullptr : addresses[slot];
    static constexpr int timeouts[] = {2000, 0, 1, INT32_MAX};
    oDNS.dns_timeout = timeouts[input.byte() % 4];
    oDNS.dns_max_time_on_secondary = static_cast<int16_t>(input.number());
    oDNS.log_stats_interval = static_cast<int8_t>(input.byte());
    oDNS.debug = input.byte() & 1;
    oDNS.port = static_cast<int>(input.number());
    oDNS.listenfd = LISTENER;
    oDNS.upstreamfd = -1;
    sockets.clear();
    next_socket = FIRST_SOCKET;
    now = 1000000;
    _open_upstream_dns_connection();
}

void forward_one(Input &input) {
    const unsigned plan = input.byte();
    game = {};
    queries++;
    game.query = input.text().substr(0, MAX_MESSAGE);
    for (unsigned count = plan & 3; count > 0; count--) // late ones
        sockets[oDNS.upstreamfd].push_back(make_arrival(input));
    if (plan & 4) { // a flood
        game.refill = {std::string(input.piece(input.byte() % 16))};
        sockets[oDNS.upstreamfd].resize(input.byte(), game.refill);
        game.refills = static_cast<int>(input.byte());
    }
    for (unsigned count = plan >> 3 & 3; count > 0; count--)
        game.answers.push_back(make_arrival(input));
    const unsigned failures = plan & 0x20 ? input.byte() : 0;
    game.send_error = failures & 1 ? ENETUNREACH : 0;
    game.poll_error = failures & 2 ? EINTR : 0;
    game.relay_error = failures & 4 ? EPERM : 0;
    const int moved = plan & 0x40 ? static_cast<int16_t>(input.number()) : 0;
    now += moved;

    const int socket = oDNS.upstreamfd, slot = oDNS.current_dns, timeouts = oDNS.dns_timeouts;
    const uint64_t requests = oDNS.requests, resets = oDNS.resets;
    forward_request(reinterpret_cast<const uint8_t *>(game.query.data()),
                    static_cast<int32_t>(game.query.size()), {});

    check(sockets.size() == 1 && sockets.contains(oDNS.upstreamfd));
    check(game.receives <= 200 && game.relays == game.received && game.relays <= 1);
    check(oDNS.requests == requests + 1 && oDNS.blocked == 0 && oDNS.errors == 0);
    check(oDNS.resets == resets + game.timed_out);
    check(!game.timed_out || (oDNS.upstreamfd != socket && sockets[oDNS.upstreamfd].empty()));
    // One more, none, or for want of a try as many as before; none before that when it moved on.
    const bool moved_on = timeouts >= 5 || oDNS.current_dns != slot;
    check(oDNS.dns_timeouts ==
          (game.timed_out ? 1 : 0) + (moved_on || (game.asked && !game.timed_out) ? 0 : timeouts));
    check(oDNS.current_dns >= 0 && oDNS.current_dns < UPSTREAM_SLOTS);
    check(oDNS.current_dns == slot || timeouts >= 5 || (moved < 0 && oDNS.current_dns == 0));
}

std::deque<Arrival> &waiting_at(int fd) {
    check(sockets.contains(fd));
    return sockets[fd];
}

ssize_t fail(int error) {
    errno = error;
    return -1;
}

} // namespace

extern "C" {
int __real_close(int fd);

int __wrap_socket(int, int, int) {
    sockets[next_socket];
    return next_socket++;
}
int __wrap_close(int fd) {
    if (fd < LISTENER)
        return __real_close(fd);
    check(sockets.erase(fd) == 1);
    return 0;
}
int __wrap_shutdown(int fd, int) {
    waiting_at(fd);
    return static_cast<int>(fail(ENOTCONN));
}
int __wrap_usleep(useconds_t) {
    return 0;
}
time_t __wrap_time(time_t *) {
    return now;
}

ssize_t __wrap_sendto(int fd, const void *data, size_t size, int, const sockaddr *to, socklen_t) {
    const std::string_view bytes(static_cast<const char *>(data), size);
    if (fd == LISTENER) { // to the client: what was taken last, as far as it goes
        check(bytes == std::string_view(game.taken.bytes).substr(0, MAX_MESSAGE));
        check(game.taken.query == queries || game.disturbed);
        game.relays++;
        return game.relay_error ? fail(game.relay_error) : static_cast<ssize_t>(size);
    }
    const auto *upstream = reinterpret_cast<const sockaddr_in *>(to);
    check(bytes == game.query && !game.asked && game.relays == 0);
    check(upstream->sin_port == htons(static_cast<uint16_t>(oDNS.port)));
    if (game.send_error)
        return fail(game.send_error);
    game.asked = true;
    for (const Arrival &answer : game.answers)
        waiting_at(fd).push_back({answer.bytes, answer.error, queries});
    return static_cast<ssize_t>(size);
}

int __wrap_poll(pollfd *waited, nfds_t count, int timeout) {
    check(count == 1 && timeout >= 0 && game.asked);
    const bool ready = !game.poll_error && !waiting_at(waited->fd).empty();
    waited->revents = ready ? POLLIN : 0;
    game.timed_out = !ready;
    return game.poll_error ? static_cast<int>(fail(game.poll_error)) : ready;
}

ssize_t __wrap_recv(int fd, void *buffer, size_t size, int flags) {
    auto &waiting = waiting_at(fd);
    game.receives++;
    if (waiting.empty()) {
        check(flags & MSG_DONTWAIT); // it would wait for ever
        return fail(EAGAIN);
    }
    game.taken = std::move(waiting.front());
    waiting.pop_front();
    if (!game.asked && game.refills-- > 0)
        waiting.push_back(game.refill);
    game.disturbed |= !game.asked && game.taken.error; // then more may be left
    if (game.taken.error)
        return fail(game.taken.error);
    game.received += game.asked;
    const size_t taken = std::min(size, game.taken.bytes.size());
    std::memcpy(buffer, game.taken.bytes.data(), taken);
    return static_cast<ssize_t>(flags & MSG_TRUNC ? game.taken.bytes.size() : taken);
}
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input input(data, size, 1 << 20);
    set_up(input);
    while (!input.empty())
        forward_one(input);
    _close_upstream_dns_connection();
    check(sockets.empty());
    return 0;
}
