// The connection: opening and closing it, framing, and what happens when it is lost.
#include "internal.h"

#include <array>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

namespace ubus_library {

blob_buf scratch;

static_assert(sizeof(ubus_context::head) == sizeof(wire::Head));

namespace {

// A call that came in during a synchronous request.
struct PendingMessage {
    list_head list;
    ubus_msghdr hdr;
    blob_attr *body;
};

} // namespace

static bool wait_until(int fd, short events, int timeout) {
    pollfd entry{fd, events, 0};
    return poll(&entry, 1, timeout) > 0;
}

// Reads up to `want` bytes of the current message. Sets sock.eof when there will be no more.
static size_t read_some(ubus_context *ctx, void *to, size_t want) {
    for (;;) {
        ssize_t got = recv(ctx->sock.fd, to, want, 0);
        if (got > 0)
            return (size_t)got;
        if (got < 0 && errno == EINTR)
            continue;
        if (got == 0 || (errno != EAGAIN && errno != EWOULDBLOCK))
            ctx->sock.eof = true;
        return 0;
    }
}

// Whether a whole message is there: `head` and `body`. A header that cannot be right ends the
// connection, as there is no way to find the next message.
static bool receive_message(ubus_context *ctx) {
    char *head = reinterpret_cast<char *>(&ctx->head);
    while (ctx->received < sizeof(ctx->head)) {
        size_t got = read_some(ctx, head + ctx->received, sizeof(ctx->head) - ctx->received);
        if (!got)
            return false;
        ctx->received += (uint32_t)got;
    }
    size_t length = wire::outer_length(ctx->head.outer);
    if (!ctx->body) {
        if (length && ctx->head.hdr.version == 0)
            ctx->body = static_cast<blob_attr *>(malloc(length));
        if (!ctx->body) {
            ctx->sock.eof = true;
            return false;
        }
        ctx->body->id_len = ctx->head.outer;
    }
    size_t total = sizeof(ubus_msghdr) + length;
    while (ctx->received < total) {
        char *to = reinterpret_cast<char *>(ctx->body) + (ctx->received - sizeof(ubus_msghdr));
        size_t got = read_some(ctx, to, total - ctx->received);
        if (!got)
            return false;
        ctx->received += (uint32_t)got;
    }
    return true;
}

static void queue_message(ubus_context *ctx, const ubus_msghdr &hdr, blob_attr *body) {
    auto *message = static_cast<PendingMessage *>(malloc(sizeof(PendingMessage)));
    if (!message) {
        free(body);
        return;
    }
    message->hdr = hdr;
    message->body = body;
    list_add_tail(&message->list, &ctx->pending);
    // Outside synchronous requests the caller handles it at once.
    if (ctx->stack_depth && !ctx->pending_timer.pending)
        uloop_timeout_set(&ctx->pending_timer, 1);
}

// Takes over `body`.
static void dispatch(ubus_context *ctx, ubus_msghdr hdr, blob_attr *body) {
    hdr.seq = be16_to_cpu(hdr.seq);
    hdr.peer = be32_to_cpu(hdr.peer);
    switch (hdr.type) {
    case UBUS_MSG_STATUS:
    case UBUS_MSG_DATA:
        handle_answer(ctx, hdr, body);
        break;
    case UBUS_MSG_INVOKE:
    case UBUS_MSG_UNSUBSCRIBE:
    case UBUS_MSG_NOTIFY:
        queue_message(ctx, hdr, body);
        return;
    case UBUS_MSG_MONITOR:
        if (ctx->monitor_cb)
            ctx->monitor_cb(ctx, hdr.seq, body);
        break;
    default:
        break;
    }
    free(body);
}

static void discard_input(ubus_context *ctx) {
    free(ctx->body);
    ctx->body = nullptr;
    ctx->received = 0;
}

// Does nothing when uloop has dropped the socket already, which it does when the bus ends: the loop
// then goes on without a bus.
static void default_connection_lost(ubus_context *ctx) {
    if (ctx->sock.registered)
        uloop_end();
}

static int compare_ids(const void *first, const void *second, void *) {
    uint32_t a = *static_cast<const uint32_t *>(first);
    uint32_t b = *static_cast<const uint32_t *>(second);
    return a < b ? -1 : a > b;
}

// Opens the socket and reads the greeting, blocking. False, with nothing open, on any failure.
static bool open_connection(ubus_context *ctx, const char *path) {
    sockaddr_un address;
    if (!wire::set_address(address, path ? path : UBUS_UNIX_SOCKET))
        return false;
    ctx->sock.eof = ctx->sock.error = false;
    ctx->sock.fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (ctx->sock.fd < 0)
        return false;
    bool greeted =
        connect(ctx->sock.fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0 &&
        receive_message(ctx) && ctx->head.hdr.type == UBUS_MSG_HELLO;
    ctx->local_id = be32_to_cpu(ctx->head.hdr.peer);
    discard_input(ctx);
    if (greeted && ctx->local_id > UBUS_CLIENT_ID_CHANNEL) {
        fcntl(ctx->sock.fd, F_SETFL, fcntl(ctx->sock.fd, F_GETFL) | O_NONBLOCK);
        return true;
    }
    close(ctx->sock.fd);
    ctx->sock.fd = -1;
    return false;
}

static void close_connection(ubus_context *ctx) {
    uloop_fd_delete(&ctx->sock);
    if (ctx->sock.fd >= 0)
        close(ctx->sock.fd);
    ctx->sock.fd = -1;
    discard_input(ctx);
}

bool send_message(ubus_context *ctx, int type, uint16_t seq, uint32_t peer, blob_attr *attributes) {
    ubus_msghdr hdr{};
    hdr.type = (uint8_t)type;
    hdr.seq = cpu_to_be16(seq);
    hdr.peer = cpu_to_be32(peer);
    std::array<iovec, 2> parts{iovec{&hdr, sizeof(hdr)},
                               iovec{attributes, blob_raw_len(attributes)}};
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = parts.size();
    while (message.msg_iovlen) {
        ssize_t written = sendmsg(ctx->sock.fd, &message, MSG_NOSIGNAL);
        if (written < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK)
                wait_until(ctx->sock.fd, POLLOUT, -1);
            else if (errno != EINTR)
                return false;
            continue;
        }
        auto left = (size_t)written;
        while (message.msg_iovlen && left >= message.msg_iov->iov_len) {
            left -= message.msg_iov->iov_len;
            message.msg_iov++;
            message.msg_iovlen--;
        }
        if (left) {
            message.msg_iov->iov_base = static_cast<char *>(message.msg_iov->iov_base) + left;
            message.msg_iov->iov_len -= left;
        }
    }
    return true;
}

// Takes what has arrived and handles it.
static void handle_socket(uloop_fd *sock, unsigned int) {
    ubus_context *ctx = container_of(sock, ubus_context, sock);
    // `eof` may be set by uloop while there is still something to read.
    sock->eof = false;
    ctx->cancel_poll = false;
    while (receive_message(ctx)) {
        ubus_msghdr hdr = ctx->head.hdr;
        blob_attr *body = ctx->body;
        ctx->body = nullptr;
        ctx->received = 0;
        dispatch(ctx, hdr, body);
        if (!ctx->stack_depth)
            handle_pending(&ctx->pending_timer);
        if (ctx->cancel_poll || uloop_cancelling())
            break;
    }
    if (sock->eof) {
        fail_requests(ctx);
        ctx->connection_lost(ctx);
    }
}

void wait_for_data(ubus_context *ctx, int timeout) {
    if (wait_until(ctx->sock.fd, POLLIN, timeout))
        handle_socket(&ctx->sock, ULOOP_READ);
}

void handle_pending(uloop_timeout *timer) {
    ubus_context *ctx = container_of(timer, ubus_context, pending_timer);
    if (ctx->stack_depth)
        return;
    uloop_timeout_cancel(timer);
    while (!list_empty(&ctx->pending)) {
        PendingMessage *message = list_first_entry(&ctx->pending, PendingMessage, list);
        list_del(&message->list);
        // A handler's own synchronous requests leave further calls in the list.
        ctx->stack_depth++;
        handle_object_message(ctx, message->hdr, message->body);
        ctx->stack_depth--;
        free(message->body);
        free(message);
    }
}

} // namespace ubus_library

using namespace ubus_library;

int ubus_connect_ctx(ubus_context *ctx, const char *path) {
    uloop_init();
    memset(ctx, 0, sizeof(*ctx));
    INIT_LIST_HEAD(&ctx->requests);
    INIT_LIST_HEAD(&ctx->pending);
    avl_init(&ctx->objects, compare_ids, false, nullptr);
    ctx->sock.fd = -1;
    ctx->sock.cb = handle_socket;
    ctx->connection_lost = default_connection_lost;
    ctx->pending_timer.cb = handle_pending;
    return open_connection(ctx, path) ? 0 : -1;
}

ubus_context *ubus_connect(const char *path) {
    auto *ctx = static_cast<ubus_context *>(malloc(sizeof(ubus_context)));
    if (ctx && ubus_connect_ctx(ctx, path) == 0)
        return ctx;
    free(ctx);
    return nullptr;
}

void ubus_shutdown(ubus_context *ctx) {
    if (!ctx)
        return;
    close_connection(ctx);
    uloop_timeout_cancel(&ctx->pending_timer);
    PendingMessage *message;
    PendingMessage *next;
    list_for_each_entry_safe(message, next, &ctx->pending, list) {
        free(message->body);
        free(message);
    }
    INIT_LIST_HEAD(&ctx->pending);
    blob_buf_free(&scratch);
}

void ubus_free(ubus_context *ctx) {
    ubus_shutdown(ctx);
    free(ctx);
}

int ubus_reconnect(ubus_context *ctx, const char *path) {
    bool registered = ctx->sock.registered;
    close_connection(ctx);
    fail_requests(ctx);
    if (!open_connection(ctx, path))
        return UBUS_STATUS_CONNECTION_FAILED;
    if (registered)
        ubus_add_uloop(ctx);
    list_head known;
    INIT_LIST_HEAD(&known);
    ubus_object *obj;
    ubus_object *next;
    // Registering inserts into the tree again: empty it first.
    list_for_each_entry_safe(obj, next, &ctx->objects.list_head, avl.list) {
        avl_delete(&ctx->objects, &obj->avl);
        list_add_tail(&obj->avl.list, &known);
        obj->id = 0;
        if (obj->type)
            obj->type->id = 0;
    }
    int result = UBUS_STATUS_OK;
    list_for_each_entry_safe(obj, next, &known, avl.list) {
        list_del(&obj->avl.list);
        int status = ubus_add_object(ctx, obj);
        result = status ? status : result;
    }
    return result;
}

const char *ubus_strerror(int error) {
    static constexpr std::array<const char *, __UBUS_STATUS_LAST> TEXTS{
        "Success",
        "Invalid command",
        "Invalid argument",
        "Method not found",
        "Not found",
        "No response",
        "Permission denied",
        "Request timed out",
        "Operation not supported",
        "Unknown error",
        "Connection failed",
        "Out of memory",
        "Parsing message data failed",
        "System error",
    };
    static std::array<char, 32> unknown;
    if (error >= 0 && error < (int)TEXTS.size())
        return TEXTS[(size_t)error];
    snprintf(unknown.data(), unknown.size(), "Unknown error: %d", error);
    return unknown.data();
}
