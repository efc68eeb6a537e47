#include "client.h"

#include "bus.h"
#include "wire.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <grp.h>
#include <memory>
#include <pwd.h>
#include <span>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

static void update_watch(Client &client) {
    bool reading = !client.half_closed && !client.lookup;
    unsigned flags = (reading ? ULOOP_READ : 0) | (client.output.empty() ? 0 : ULOOP_WRITE);
    // The end of the input is a condition that lasts: it must not wake the loop again and again.
    if (client.half_closed)
        flags |= ULOOP_EDGE_TRIGGER;
    if (flags != client.watch.sock.flags || !client.watch.sock.registered)
        uloop_fd_add(&client.watch.sock, flags);
}

static void close_client(Client *client) {
    client->gone = true;
    leave_bus(*client);
    uloop_fd_delete(&client->watch.sock);
    close(client->watch.sock.fd);
    delete client;
}

// False when the connection is broken.
static bool write_queue(Client &client) {
    while (!client.output.empty()) {
        std::vector<char> &first = client.output.front();
        ssize_t written =
            send(client.watch.sock.fd, first.data(), first.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (written < 0)
            return errno == EAGAIN || errno == EINTR;
        client.queued -= (size_t)written;
        if ((size_t)written < first.size())
            first.erase(first.begin(), first.begin() + written);
        else
            client.output.pop_front();
    }
    return true;
}

// Handles the complete messages among what came before and `bytes`; false when the client sends
// something that cannot be a message and must be disconnected.
static bool receive(Client &client, std::span<const char> bytes) {
    client.input.insert(client.input.end(), bytes.begin(), bytes.end());
    size_t at = 0;
    // A lookup that waits for the queue to drain makes later requests wait too.
    while (!client.lookup && client.input.size() - at >= sizeof(wire::Head)) {
        wire::Head head;
        memcpy(&head, client.input.data() + at, sizeof(head));
        size_t length = wire::outer_length(head.outer);
        if (!length)
            return false;
        size_t total = sizeof(head.hdr) + length;
        if (client.input.size() - at < total)
            break;
        char *outer = client.input.data() + at + sizeof(head.hdr);
        head.hdr.seq = be16_to_cpu(head.hdr.seq);
        head.hdr.peer = be32_to_cpu(head.hdr.peer);
        handle_message(client, head.hdr, reinterpret_cast<blob_attr *>(outer));
        at += total;
    }
    client.input.erase(client.input.begin(), client.input.begin() + (long)at);
    return true;
}

namespace {

enum class Input { MORE, ALL_TAKEN, ENDED };

} // namespace

static Input read_input(Client &client) {
    static std::array<char, UBUS_MSG_CHUNK_SIZE> chunk;
    ssize_t got = recv(client.watch.sock.fd, chunk.data(), chunk.size(), MSG_DONTWAIT);
    if (got < 0)
        return errno == EAGAIN || errno == EINTR ? Input::ALL_TAKEN : Input::ENDED;
    if (got == 0 || !receive(client, {chunk.data(), (size_t)got}))
        return Input::ENDED;
    return Input::MORE;
}

// One chunk per round serves the other clients too. After an error or a hang-up uloop does not
// call again: then everything that is left is taken, as a client may send and leave.
static void handle_client(uloop_fd *sock, unsigned int) {
    Client &client = *reinterpret_cast<Watch *>(sock)->client;
    bool failed = sock->error; // a change of the watch clears it
    bool writable = write_queue(client);
    if (client.lookup && client.output.empty()) {
        continue_lookup(client);
        client.gone = !receive(client, {});
    }
    Input input = Input::ALL_TAKEN;
    while (!client.gone && !client.half_closed && !client.lookup) {
        input = read_input(client);
        if (input != Input::MORE || !failed)
            break;
    }
    // Whoever sent bytes that are no message is in the middle of one: nothing can be answered.
    client.half_closed |= input == Input::ENDED;
    if (client.gone || failed || !writable || (client.half_closed && client.output.empty()))
        close_client(&client);
    else
        update_watch(client);
}

// Whether the process at the other end runs under an account with names, which calls carry.
static bool identify(Client &client, int fd) {
    ucred peer{};
    socklen_t length = sizeof(peer);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0)
        return false;
    // NOLINTBEGIN(concurrency-mt-unsafe): the bus daemon has one thread
    const passwd *user = getpwuid(peer.uid);
    const group *group = getgrgid(peer.gid);
    // NOLINTEND(concurrency-mt-unsafe)
    if (!user || !group)
        return false;
    client.user = user->pw_name;
    client.group = group->gr_name;
    return true;
}

void accept_client(int fd) {
    auto client = std::make_unique<Client>();
    if (!identify(*client, fd)) {
        close(fd);
        return;
    }
    client->watch.sock.cb = handle_client;
    client->watch.sock.fd = fd;
    client->watch.client = client.get();
    Client &accepted = *client.release();
    join_bus(accepted);
    update_watch(accepted);
}

void close_clients() {
    for (auto [id, client] : bus.clients)
        client->gone = true;
    while (!bus.clients.empty())
        close_client(bus.clients.begin()->second);
}

void send_message(Client &client, ubus_msghdr hdr, const blob_attr *attributes) {
    size_t length = blob_raw_len(attributes);
    if (client.gone || length > UBUS_MAX_MSGLEN)
        return;
    hdr.seq = cpu_to_be16(hdr.seq);
    hdr.peer = cpu_to_be32(hdr.peer);
    std::array<iovec, 2> parts{iovec{&hdr, sizeof(hdr)},
                               iovec{const_cast<blob_attr *>(attributes), length}};
    size_t total = sizeof(hdr) + length;
    size_t written = 0;
    if (client.output.empty()) {
        msghdr message{};
        message.msg_iov = parts.data();
        message.msg_iovlen = parts.size();
        ssize_t taken = sendmsg(client.watch.sock.fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (taken < 0 && errno != EAGAIN && errno != EINTR)
            return; // uloop reports the broken connection
        written = taken < 0 ? 0 : (size_t)taken;
    }
    if (written == total || (!written && client.queued + total > UBUS_MAX_MSGLEN))
        return;
    std::vector<char> rest(total - written);
    const char *from = reinterpret_cast<const char *>(attributes);
    size_t head = written < sizeof(hdr) ? sizeof(hdr) - written : 0;
    std::copy_n(reinterpret_cast<char *>(&hdr) + sizeof(hdr) - head, head, rest.begin());
    std::copy_n(from + length - (rest.size() - head), rest.size() - head,
                rest.begin() + (long)head);
    client.queued += rest.size();
    client.output.push_back(std::move(rest));
    update_watch(client);
}

void send_message(Client &client, int type, uint16_t seq, uint32_t peer,
                  const blob_attr *attributes) {
    ubus_msghdr hdr{};
    hdr.type = (uint8_t)type;
    hdr.seq = seq;
    hdr.peer = peer;
    send_message(client, hdr, attributes);
}
