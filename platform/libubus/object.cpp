// Objects of this client: registration, and the calls, subscriptions and events that reach them.
#include "internal.h"

namespace ubus_library {

static ubus_object *find_object(ubus_context *ctx, uint32_t id) {
    avl_node *node = avl_find(&ctx->objects, &id);
    return node ? container_of(node, ubus_object, avl) : nullptr;
}

static void send_status(ubus_context *ctx, const ubus_request_data &req, int status) {
    blob_buf_init(&scratch, 0);
    blob_put_int32(&scratch, UBUS_ATTR_STATUS, (uint32_t)status);
    blob_put_int32(&scratch, UBUS_ATTR_OBJID, req.object);
    send_message(ctx, UBUS_MSG_STATUS, req.seq, req.peer, scratch.head);
    if (req.fd >= 0)
        close(req.fd);
}

static const ubus_method *find_method(const ubus_object *obj, const char *name) {
    for (int i = 0; i < obj->n_methods; i++) {
        const ubus_method &method = obj->methods[i];
        if (!method.name || strcmp(method.name, name) == 0)
            return &method;
    }
    return nullptr;
}

// Arguments are not compared with the policy: that is the handler's business.
static int call_handler(ubus_context *ctx, ubus_request_data &req, const wire::Attributes &found) {
    ubus_object *obj = find_object(ctx, req.object);
    if (!obj)
        return UBUS_STATUS_NOT_FOUND;
    const char *name = wire::text(found[UBUS_ATTR_METHOD]);
    if (!name)
        return UBUS_STATUS_INVALID_ARGUMENT;
    const ubus_method *method = find_method(obj, name);
    if (!method)
        return UBUS_STATUS_METHOD_NOT_FOUND;
    if (!found[UBUS_ATTR_DATA])
        return UBUS_STATUS_INVALID_ARGUMENT;
    req.acl.user = wire::text(found[UBUS_ATTR_USER]);
    req.acl.group = wire::text(found[UBUS_ATTR_GROUP]);
    req.acl.object = obj->name;
    return method->handler(ctx, obj, &req, name, found[UBUS_ATTR_DATA]);
}

static void handle_invoke(ubus_context *ctx, const ubus_msghdr &hdr,
                          const wire::Attributes &found) {
    ubus_request_data req{};
    req.object = wire::number(found[UBUS_ATTR_OBJID]);
    req.peer = hdr.peer;
    req.seq = hdr.seq;
    req.fd = req.req_fd = -1;
    int status = call_handler(ctx, req, found);
    const blob_attr *no_reply = found[UBUS_ATTR_NO_REPLY];
    if (!req.deferred && !(no_reply && blob_get_int8(no_reply)))
        send_status(ctx, req, status);
}

static void handle_subscription_state(ubus_context *ctx, ubus_object *obj,
                                      const blob_attr *active) {
    if (!active)
        return;
    obj->has_subscribers = blob_get_u8(active) != 0;
    if (obj->subscribe_cb)
        obj->subscribe_cb(ctx, obj);
}

static void put_signature(const ubus_object_type *type) {
    void *signature = blob_nest_start(&scratch, UBUS_ATTR_SIGNATURE);
    for (int i = 0; i < type->n_methods; i++) {
        const ubus_method &method = type->methods[i];
        void *table = blobmsg_open_table(&scratch, method.name);
        for (int j = 0; j < method.n_policy; j++) {
            if (method.mask && !(method.mask & 1UL << j))
                continue;
            blobmsg_add_u32(&scratch, method.policy[j].name, (uint32_t)method.policy[j].type);
        }
        blobmsg_close_table(&scratch, table);
    }
    blob_nest_end(&scratch, signature);
}

static void receive_added(ubus_request *req, int, blob_attr *body) {
    auto *obj = static_cast<ubus_object *>(req->priv);
    wire::Attributes found = wire::parse(body, blob_raw_len(body));
    if (!found[UBUS_ATTR_OBJID] || obj->id)
        return;
    obj->id = wire::number(found[UBUS_ATTR_OBJID]);
    if (found[UBUS_ATTR_OBJTYPE] && obj->type)
        obj->type->id = wire::number(found[UBUS_ATTR_OBJTYPE]);
    obj->avl.key = &obj->id;
    if (avl_insert(&req->ctx->objects, &obj->avl) != 0)
        obj->id = 0;
}

static void receive_removed(ubus_request *req, int, blob_attr *body) {
    auto *obj = static_cast<ubus_object *>(req->priv);
    wire::Attributes found = wire::parse(body, blob_raw_len(body));
    if (!found[UBUS_ATTR_OBJID] || wire::number(found[UBUS_ATTR_OBJID]) != obj->id || !obj->id)
        return;
    avl_delete(&req->ctx->objects, &obj->avl);
    obj->id = 0;
    if (found[UBUS_ATTR_OBJTYPE] && obj->type)
        obj->type->id = 0;
}

void handle_object_message(ubus_context *ctx, const ubus_msghdr &hdr, blob_attr *body) {
    wire::Attributes found = wire::parse(body, blob_raw_len(body));
    if (!found[UBUS_ATTR_OBJID])
        return;
    if (hdr.type == UBUS_MSG_INVOKE) {
        handle_invoke(ctx, hdr, found);
        return;
    }
    ubus_object *obj = find_object(ctx, wire::number(found[UBUS_ATTR_OBJID]));
    if (!obj)
        return;
    if (hdr.type == UBUS_MSG_NOTIFY)
        handle_subscription_state(ctx, obj, found[UBUS_ATTR_ACTIVE]);
    else if (found[UBUS_ATTR_TARGET])
        target_gone(ctx, obj, wire::number(found[UBUS_ATTR_TARGET]));
}

int add_internal_object(ubus_context *ctx, ubus_object *obj, const ubus_method *method) {
    obj->methods = method;
    obj->n_methods = 1;
    return ubus_add_object(ctx, obj);
}

} // namespace ubus_library

using namespace ubus_library;

int ubus_add_object(ubus_context *ctx, ubus_object *obj) {
    blob_buf_init(&scratch, 0);
    if (obj->name && obj->type) {
        blob_put_string(&scratch, UBUS_ATTR_OBJPATH, obj->name);
        if (obj->type->id)
            blob_put_int32(&scratch, UBUS_ATTR_OBJTYPE, obj->type->id);
        else
            put_signature(obj->type);
    }
    obj->id = 0;
    int status = run_request(ctx, UBUS_MSG_ADD_OBJECT, receive_added, obj);
    return status == UBUS_STATUS_OK && !obj->id ? UBUS_STATUS_NO_DATA : status;
}

int ubus_remove_object(ubus_context *ctx, ubus_object *obj) {
    blob_buf_init(&scratch, 0);
    blob_put_int32(&scratch, UBUS_ATTR_OBJID, obj->id);
    int status = run_request(ctx, UBUS_MSG_REMOVE_OBJECT, receive_removed, obj);
    return status == UBUS_STATUS_OK && obj->id ? UBUS_STATUS_NO_DATA : status;
}

int ubus_send_reply(ubus_context *ctx, ubus_request_data *req, blob_attr *msg) {
    blob_buf_init(&scratch, 0);
    blob_put_int32(&scratch, UBUS_ATTR_OBJID, req->object);
    if (!put_data(msg))
        return UBUS_STATUS_NO_DATA;
    return send_message(ctx, UBUS_MSG_DATA, req->seq, req->peer, scratch.head)
               ? UBUS_STATUS_OK
               : UBUS_STATUS_NO_DATA;
}

void ubus_complete_deferred_request(ubus_context *ctx, ubus_request_data *req, int ret) {
    send_status(ctx, *req, ret);
}
