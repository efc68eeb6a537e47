// The client side of the bus: offering objects, calling other programs' objects, subscriptions and
// events. All calls must come from one thread, the one that runs uloop.
//
// Functions that return int give a UBUS_STATUS_* number, 0 for success, unless stated otherwise.
// A "synchronous" function waits for the bus; calls that come in meanwhile are kept and handled
// afterwards, so that handlers never nest.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

#include "ubus_common.h"
#include "ubusmsg.h"
#include <libubox/avl.h>
#include <libubox/blobmsg.h>
#include <libubox/list.h>
#include <libubox/uloop.h>
#include <stdint.h>

// The most subscribers whose answers ubus_notify() waits for.
#define UBUS_MAX_NOTIFY_PEERS 16

struct ubus_context;
struct ubus_object;
struct ubus_request;
struct ubus_request_data;
struct ubus_object_data;
struct ubus_event_handler;
struct ubus_subscriber;

typedef void (*ubus_lookup_handler_t)(struct ubus_context *ctx, struct ubus_object_data *obj,
                                      void *priv);
// The return value becomes the call's status. `msg` holds the arguments (blob_data(), blob_len())
// and is valid until the handler returns.
typedef int (*ubus_handler_t)(struct ubus_context *ctx, struct ubus_object *obj,
                              struct ubus_request_data *req, const char *method,
                              struct blob_attr *msg);
typedef void (*ubus_state_handler_t)(struct ubus_context *ctx, struct ubus_object *obj);
typedef void (*ubus_remove_handler_t)(struct ubus_context *ctx, struct ubus_subscriber *obj,
                                      uint32_t id);
typedef bool (*ubus_new_object_handler_t)(struct ubus_context *ctx, struct ubus_subscriber *sub,
                                          const char *path);
typedef void (*ubus_event_handler_t)(struct ubus_context *ctx, struct ubus_event_handler *ev,
                                     const char *type, struct blob_attr *msg);
typedef void (*ubus_data_handler_t)(struct ubus_request *req, int type, struct blob_attr *msg);
typedef void (*ubus_fd_handler_t)(struct ubus_request *req, int fd);
typedef void (*ubus_complete_handler_t)(struct ubus_request *req, int ret);

#define UBUS_TAG_STATUS 1
#define UBUS_TAG_ADMIN 2
#define UBUS_TAG_PRIVATE 4

// NOLINTBEGIN(bugprone-macro-parentheses): the arguments become initialisers.
#define UBUS_OBJECT_TYPE(_name, _methods)                                                          \
    { .name = _name, .id = 0, .methods = _methods, .n_methods = ARRAY_SIZE(_methods) }

#define __UBUS_METHOD(_name, _handler, _mask, _policy, _tags)                                      \
    {                                                                                              \
        .name = _name, .handler = _handler, .mask = _mask, .tags = _tags, .policy = _policy,       \
        .n_policy = ARRAY_SIZE(_policy)                                                            \
    }
#define __UBUS_METHOD_NOARG(_name, _handler, _mask, _tags)                                         \
    {                                                                                              \
        .name = _name, .handler = _handler, .mask = _mask, .tags = _tags, .policy = NULL,          \
        .n_policy = 0                                                                              \
    }
#define UBUS_METHOD(_name, _handler, _policy) __UBUS_METHOD(_name, _handler, 0, _policy, 0)
#define UBUS_METHOD_TAG(_name, _handler, _policy, _tags)                                           \
    __UBUS_METHOD(_name, _handler, 0, _policy, _tags)
#define UBUS_METHOD_MASK(_name, _handler, _policy, _mask)                                          \
    __UBUS_METHOD(_name, _handler, _mask, _policy, 0)
#define UBUS_METHOD_NOARG(_name, _handler) __UBUS_METHOD_NOARG(_name, _handler, 0, 0)
#define UBUS_METHOD_TAG_NOARG(_name, _handler, _tags) __UBUS_METHOD_NOARG(_name, _handler, 0, _tags)
// NOLINTEND(bugprone-macro-parentheses)

struct ubus_method {
    const char *name; // null: any
    ubus_handler_t handler;
    unsigned long mask; // bits of the policy entries to publish; 0: all
    unsigned long tags; // UBUS_TAG_*
    const struct blobmsg_policy *policy;
    int n_policy;
};

struct ubus_object_type {
    const char *name;
    uint32_t id;
    const struct ubus_method *methods;
    int n_methods;
};

// With both `name` and `type` the object is published under that name; calls are answered by
// `methods`.
struct ubus_object {
    struct avl_node avl;
    const char *name;
    uint32_t id;
    const char *path;
    struct ubus_object_type *type;
    ubus_state_handler_t subscribe_cb;
    bool has_subscribers;
    const struct ubus_method *methods;
    int n_methods;
};

struct ubus_subscriber {
    struct list_head list;
    struct ubus_object obj;
    ubus_handler_t cb;
    ubus_remove_handler_t remove_cb;
    ubus_new_object_handler_t new_obj_cb;
};

struct ubus_event_handler {
    struct ubus_object obj;
    ubus_event_handler_t cb;
};

struct ubus_context {
    struct list_head requests;
    struct avl_tree objects;
    struct list_head pending;
    struct uloop_fd sock;
    struct uloop_timeout pending_timer;
    uint32_t local_id;
    uint16_t request_seq;
    bool cancel_poll;
    int stack_depth;
    void (*connection_lost)(struct ubus_context *ctx);
    void (*monitor_cb)(struct ubus_context *ctx, uint32_t seq, struct blob_attr *data);

    // The message being received: its first 12 bytes, the bytes there so far, and the outer
    // attribute once its length is known.
    struct {
        struct ubus_msghdr hdr;
        uint32_t outer; // its id_len
    } head;
    uint32_t received;
    struct blob_attr *body;
};

// One answer of a lookup; valid until the callback returns.
struct ubus_object_data {
    uint32_t id;
    uint32_t type_id;
    const char *path;
    struct blob_attr *signature; // one table per method; may be null
};

struct ubus_acl_key {
    const char *user;
    const char *group;
    const char *object;
};

// A call being served. The acl texts are valid until the handler returns.
struct ubus_request_data {
    uint32_t object;
    uint32_t peer;
    uint16_t seq;
    struct ubus_acl_key acl;
    bool deferred;
    int fd;
    int req_fd;
};

// A request under way.
struct ubus_request {
    struct list_head list;
    struct list_head pending;
    int status_code;
    bool status_msg;
    bool blocked;
    bool cancelled;
    bool notify;
    uint32_t peer;
    uint16_t seq;
    ubus_data_handler_t raw_data_cb;
    ubus_data_handler_t data_cb;
    ubus_fd_handler_t fd_cb;
    ubus_complete_handler_t complete_cb;
    int fd;
    struct ubus_context *ctx;
    void *priv;
};

// Connects to `path` (null: the default socket) and waits for the bus's greeting. Calls
// uloop_init(). Null on any failure.
struct ubus_context *ubus_connect(const char *path);
// The same for a context of the caller's; 0, or -1.
int ubus_connect_ctx(struct ubus_context *ctx, const char *path);
// Connects again and registers all objects anew, under new ids.
int ubus_reconnect(struct ubus_context *ctx, const char *path);
// Closes the connection and frees what belongs to it; ubus_free() the context too.
void ubus_shutdown(struct ubus_context *ctx);
void ubus_free(struct ubus_context *ctx);

// The text of a status. Texts of unknown numbers stay valid until the next call.
const char *ubus_strerror(int error);

static inline void ubus_add_uloop(struct ubus_context *ctx) {
    uloop_fd_add(&ctx->sock, ULOOP_BLOCKING | ULOOP_READ);
}

// For programs without uloop: to be called when the socket is readable.
static inline void ubus_handle_event(struct ubus_context *ctx) {
    ctx->sock.cb(&ctx->sock, ULOOP_READ);
}

// Registers an object and sets its id; synchronous.
int ubus_add_object(struct ubus_context *ctx, struct ubus_object *obj);
int ubus_remove_object(struct ubus_context *ctx, struct ubus_object *obj);

// Calls `cb` for every object at `path` (null: all; a trailing `*` matches the rest); synchronous.
int ubus_lookup(struct ubus_context *ctx, const char *path, ubus_lookup_handler_t cb, void *priv);
// Leaves *id untouched when the bus knows the object but does not show it.
int ubus_lookup_id(struct ubus_context *ctx, const char *path, uint32_t *id);

// Calls a method. Synchronous; `cb` (may be null) gets each reply. Waits at most `timeout`
// milliseconds (0: for ever). Status 7 is the callee's or a local time-out.
int ubus_invoke(struct ubus_context *ctx, uint32_t obj, const char *method, struct blob_attr *msg,
                ubus_data_handler_t cb, void *priv, int timeout);
// Sends the call only; callbacks are set in `req` afterwards, then ubus_complete_request_async().
int ubus_invoke_async(struct ubus_context *ctx, uint32_t obj, const char *method,
                      struct blob_attr *msg, struct ubus_request *req);
// Waits for the end of a request, at most `timeout` milliseconds (0: for ever).
int ubus_complete_request(struct ubus_context *ctx, struct ubus_request *req, int timeout);
void ubus_complete_request_async(struct ubus_context *ctx, struct ubus_request *req);
// Forgets a request; its callbacks are not called any more.
void ubus_abort_request(struct ubus_context *ctx, struct ubus_request *req);

// Sends the contents of `msg` as a reply; UBUS_STATUS_NO_DATA when it could not be written.
int ubus_send_reply(struct ubus_context *ctx, struct ubus_request_data *req, struct blob_attr *msg);

// Puts a call off: `new_req` is completed later, exactly once.
static inline void ubus_defer_request(struct ubus_context *ctx, struct ubus_request_data *req,
                                      struct ubus_request_data *new_req) {
    (void)ctx;
    memcpy(new_req, req, sizeof(*req));
    req->deferred = true;
}
void ubus_complete_deferred_request(struct ubus_context *ctx, struct ubus_request_data *req,
                                    int ret);

// Hands over a descriptor. It is closed when the call ends: descriptors are not passed on.
static inline void ubus_request_set_fd(struct ubus_context *ctx, struct ubus_request_data *req,
                                       int fd) {
    (void)ctx;
    req->fd = fd;
}

// Registers an object for notifications, which reach `cb` as calls; synchronous. `new_obj_cb` must
// be null (else UBUS_STATUS_NOT_SUPPORTED): nothing is subscribed to automatically.
int ubus_register_subscriber(struct ubus_context *ctx, struct ubus_subscriber *obj);
static inline int ubus_unregister_subscriber(struct ubus_context *ctx,
                                             struct ubus_subscriber *obj) {
    return ubus_remove_object(ctx, &obj->obj);
}
int ubus_subscribe(struct ubus_context *ctx, struct ubus_subscriber *obj, uint32_t id);
int ubus_unsubscribe(struct ubus_context *ctx, struct ubus_subscriber *obj, uint32_t id);
// Notifies the object's subscribers and waits for their answers, at most `timeout` milliseconds
// (0: for ever; below 0: asks for none).
int ubus_notify(struct ubus_context *ctx, struct ubus_object *obj, const char *type,
                struct blob_attr *msg, int timeout);

// Sends an event with the fields in `data`.
int ubus_send_event(struct ubus_context *ctx, const char *id, struct blob_attr *data);
// Listens for events of a name, or a prefix and `*` (null: every one).
int ubus_register_event_handler(struct ubus_context *ctx, struct ubus_event_handler *ev,
                                const char *pattern);
static inline int ubus_unregister_event_handler(struct ubus_context *ctx,
                                                struct ubus_event_handler *ev) {
    return ubus_remove_object(ctx, &ev->obj);
}

#ifdef __cplusplus
}
#endif
