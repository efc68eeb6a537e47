// Requests of this client: numbering, matching of answers, time limits, lookups and calls.
#include "internal.h"

#include <time.h>

namespace ubus_library {

namespace {

// Data that arrived while the request's callback was running.
struct QueuedData {
    list_head list;
    blob_attr *body;
};

// The statuses of a notification: first the bus's, which names the subscribers, then one from each.
struct NotifyRequest {
    ubus_request req;
    std::array<uint32_t, UBUS_MAX_NOTIFY_PEERS> subscribers;
    size_t expected;
};

struct LookupTarget {
    ubus_lookup_handler_t cb;
    void *priv;
};

} // namespace

static int64_t now_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (int64_t)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

// Marks a request that somebody waits for; ends the round of reading at once.
static void synchronous_done(ubus_request *req, int) {
    req->ctx->cancel_poll = true;
}

static ubus_request *find_request(ubus_context *ctx, const ubus_msghdr &hdr) {
    ubus_request *req;
    list_for_each_entry(req, &ctx->requests, list) {
        if (req->seq == hdr.seq && (req->peer == hdr.peer || req->notify))
            return req;
    }
    return nullptr;
}

static void finish(ubus_request *req, int status) {
    req->status_code = status;
    req->status_msg = true;
    list_del_init(&req->list);
    if (!req->blocked && req->complete_cb)
        req->complete_cb(req, status);
}

static void deliver_data(ubus_request *req, blob_attr *body) {
    if (req->raw_data_cb)
        req->raw_data_cb(req, UBUS_MSG_DATA, body);
    if (!req->data_cb)
        return;
    wire::Attributes found = wire::parse(body, blob_raw_len(body));
    if (found[UBUS_ATTR_DATA])
        req->data_cb(req, UBUS_MSG_DATA, found[UBUS_ATTR_DATA]);
}

static void drop_queued(ubus_request *req) {
    QueuedData *queued;
    QueuedData *next;
    list_for_each_entry_safe(queued, next, &req->pending, list) {
        free(queued->body);
        free(queued);
    }
    INIT_LIST_HEAD(&req->pending);
}

// A callback may itself wait for another request, and more data, or the status, of this one may
// come in the meantime: they take their turn afterwards.
static void handle_data(ubus_request *req, blob_attr *body) {
    if (req->blocked) {
        auto *queued = static_cast<QueuedData *>(malloc(sizeof(QueuedData)));
        if (queued && (queued->body = blob_memdup(body)))
            list_add_tail(&queued->list, &req->pending);
        else
            free(queued);
        return;
    }
    req->blocked = true;
    deliver_data(req, body);
    // Further data goes to the end of the list while this walks it.
    QueuedData *queued;
    list_for_each_entry(queued, &req->pending, list) {
        if (!req->cancelled)
            deliver_data(req, queued->body);
    }
    drop_queued(req);
    req->blocked = false;
    if (req->status_msg && !req->cancelled && req->complete_cb)
        req->complete_cb(req, req->status_code);
}

static void handle_notify_status(ubus_request *req, const ubus_msghdr &hdr,
                                 const wire::Attributes &found) {
    auto *notify = container_of(req, NotifyRequest, req);
    auto &expected = notify->expected;
    if (hdr.peer == req->peer) {
        blob_attr *id;
        size_t rem;
        blob_for_each_attr(id, found[UBUS_ATTR_SUBSCRIBERS], rem) {
            if (blob_len(id) == sizeof(uint32_t) && expected < notify->subscribers.size())
                notify->subscribers[expected++] = blob_get_u32(id);
        }
        int status = (int)wire::number(found[UBUS_ATTR_STATUS]);
        if (status || !expected)
            finish(req, status);
        return;
    }
    for (size_t i = 0; i < expected; i++) {
        if (notify->subscribers[i] != hdr.peer)
            continue;
        notify->subscribers[i] = notify->subscribers[--expected];
        if (!expected)
            finish(req, UBUS_STATUS_OK);
        return;
    }
}

static void receive_lookup(ubus_request *req, int, blob_attr *body) {
    auto *target = static_cast<LookupTarget *>(req->priv);
    wire::Attributes found = wire::parse(body, blob_raw_len(body));
    if (!found[UBUS_ATTR_OBJID] || !found[UBUS_ATTR_OBJPATH] || !found[UBUS_ATTR_OBJTYPE])
        return;
    ubus_object_data object{};
    object.id = wire::number(found[UBUS_ATTR_OBJID]);
    object.type_id = wire::number(found[UBUS_ATTR_OBJTYPE]);
    object.path = wire::text(found[UBUS_ATTR_OBJPATH]);
    object.signature = found[UBUS_ATTR_SIGNATURE];
    target->cb(req->ctx, &object, target->priv);
}

bool put_data(const blob_attr *msg) {
    return blob_put(&scratch, UBUS_ATTR_DATA, msg ? blob_data(msg) : nullptr,
                    msg ? (unsigned)blob_len(msg) : 0);
}

// Sends a request made of `attributes`; false when it is too long or could not be written.
static bool start_request(ubus_context *ctx, ubus_request *req, int type, uint32_t peer,
                          blob_attr *attributes) {
    memset(req, 0, sizeof(*req));
    INIT_LIST_HEAD(&req->list);
    INIT_LIST_HEAD(&req->pending);
    req->ctx = ctx;
    req->peer = peer;
    req->fd = -1;
    req->seq = ++ctx->request_seq;
    return blob_raw_len(attributes) <= UBUS_MAX_MSGLEN &&
           send_message(ctx, type, req->seq, peer, attributes);
}

int run_request(ubus_context *ctx, int type, ubus_data_handler_t raw, void *priv) {
    ubus_request req;
    if (!start_request(ctx, &req, type, 0, scratch.head))
        return UBUS_STATUS_INVALID_ARGUMENT;
    req.raw_data_cb = raw;
    req.priv = priv;
    return ubus_complete_request(ctx, &req, 0);
}

void handle_answer(ubus_context *ctx, const ubus_msghdr &hdr, blob_attr *body) {
    ubus_request *req = find_request(ctx, hdr);
    if (!req)
        return;
    if (hdr.type == UBUS_MSG_DATA) {
        handle_data(req, body);
        return;
    }
    wire::Attributes found = wire::parse(body, blob_raw_len(body));
    if (req->notify)
        handle_notify_status(req, hdr, found);
    else
        finish(req, found[UBUS_ATTR_STATUS] ? (int)wire::number(found[UBUS_ATTR_STATUS])
                                            : UBUS_STATUS_INVALID_ARGUMENT);
}

void fail_requests(ubus_context *ctx) {
    // A callback may add or abort others, so that no place in the list stays valid.
    for (bool again = true; again;) {
        again = false;
        ubus_request *req;
        list_for_each_entry(req, &ctx->requests, list) {
            if (req->complete_cb == synchronous_done)
                continue;
            finish(req, UBUS_STATUS_TIMEOUT);
            again = true;
            break;
        }
    }
}

} // namespace ubus_library

using namespace ubus_library;

void ubus_complete_request_async(ubus_context *ctx, ubus_request *req) {
    if (list_empty(&req->list))
        list_add_tail(&req->list, &ctx->requests);
}

int ubus_complete_request(ubus_context *ctx, ubus_request *req, int timeout) {
    ubus_complete_handler_t complete = req->complete_cb;
    int64_t end = now_ms() + timeout;
    req->complete_cb = synchronous_done;
    ubus_complete_request_async(ctx, req);

    ctx->stack_depth++;
    while (!req->status_msg) {
        int64_t left = end - now_ms();
        if (timeout && left <= 0) {
            finish(req, UBUS_STATUS_TIMEOUT);
            break;
        }
        wait_for_data(ctx, timeout ? (int)left : -1);
        if (ctx->sock.eof && !req->status_msg)
            finish(req, UBUS_STATUS_CONNECTION_FAILED);
    }
    // An outer request may have been answered in this one's round of reading.
    ctx->cancel_poll = --ctx->stack_depth > 0;
    drop_queued(req);
    if (complete)
        complete(req, req->status_code);
    if (!ctx->stack_depth && !ctx->sock.registered)
        handle_pending(&ctx->pending_timer);
    return req->status_code;
}

void ubus_abort_request(ubus_context *, ubus_request *req) {
    req->cancelled = true;
    list_del_init(&req->list);
    if (!req->blocked)
        drop_queued(req);
}

int ubus_lookup(ubus_context *ctx, const char *path, ubus_lookup_handler_t cb, void *priv) {
    LookupTarget target{cb, priv};
    blob_buf_init(&scratch, 0);
    if (path)
        blob_put_string(&scratch, UBUS_ATTR_OBJPATH, path);
    return run_request(ctx, UBUS_MSG_LOOKUP, receive_lookup, &target);
}

int ubus_lookup_id(ubus_context *ctx, const char *path, uint32_t *id) {
    return ubus_lookup(
        ctx, path,
        [](ubus_context *, ubus_object_data *object, void *priv) {
            *static_cast<uint32_t *>(priv) = object->id;
        },
        id);
}

int ubus_invoke_async(ubus_context *ctx, uint32_t obj, const char *method, blob_attr *msg,
                      ubus_request *req) {
    blob_buf_init(&scratch, 0);
    blob_put_int32(&scratch, UBUS_ATTR_OBJID, obj);
    blob_put_string(&scratch, UBUS_ATTR_METHOD, method);
    if (!put_data(msg))
        return UBUS_STATUS_INVALID_ARGUMENT;
    return start_request(ctx, req, UBUS_MSG_INVOKE, obj, scratch.head)
               ? UBUS_STATUS_OK
               : UBUS_STATUS_INVALID_ARGUMENT;
}

int ubus_invoke(ubus_context *ctx, uint32_t obj, const char *method, blob_attr *msg,
                ubus_data_handler_t cb, void *priv, int timeout) {
    ubus_request req;
    int status = ubus_invoke_async(ctx, obj, method, msg, &req);
    if (status)
        return status;
    req.data_cb = cb;
    req.priv = priv;
    return ubus_complete_request(ctx, &req, timeout);
}

int ubus_notify(ubus_context *ctx, ubus_object *obj, const char *type, blob_attr *msg,
                int timeout) {
    blob_buf_init(&scratch, 0);
    blob_put_int32(&scratch, UBUS_ATTR_OBJID, obj->id);
    blob_put_string(&scratch, UBUS_ATTR_METHOD, type);
    if (!put_data(msg))
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (timeout < 0)
        blob_put_int8(&scratch, UBUS_ATTR_NO_REPLY, 1);
    NotifyRequest notify{};
    if (!start_request(ctx, &notify.req, UBUS_MSG_NOTIFY, obj->id, scratch.head))
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (timeout < 0)
        return UBUS_STATUS_OK;
    notify.req.notify = true;
    return ubus_complete_request(ctx, &notify.req, timeout);
}
