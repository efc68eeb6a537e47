// Subscriptions to other objects' notifications, and events.
#include "internal.h"

namespace ubus_library {

namespace {

int notification_handler(ubus_context *ctx, ubus_object *obj, ubus_request_data *req,
                         const char *method, blob_attr *msg) {
    ubus_subscriber *subscriber = container_of(obj, ubus_subscriber, obj);
    return subscriber->cb ? subscriber->cb(ctx, obj, req, method, msg) : UBUS_STATUS_OK;
}

int event_handler(ubus_context *ctx, ubus_object *obj, ubus_request_data *, const char *method,
                  blob_attr *msg) {
    ubus_event_handler *handler = container_of(obj, ubus_event_handler, obj);
    handler->cb(ctx, handler, method, msg);
    return UBUS_STATUS_OK;
}

constexpr ubus_method any_method(ubus_handler_t handler) {
    return {nullptr, handler, 0, 0, nullptr, 0};
}
constexpr ubus_method notification_method = any_method(notification_handler);
constexpr ubus_method event_method = any_method(event_handler);

int change_subscription(ubus_context *ctx, ubus_subscriber *subscriber, uint32_t target,
                        ubus_msg_type type) {
    blob_buf_init(&scratch, 0);
    blob_put_int32(&scratch, UBUS_ATTR_OBJID, subscriber->obj.id);
    blob_put_int32(&scratch, UBUS_ATTR_TARGET, target);
    return run_request(ctx, type, nullptr, nullptr);
}

// Tells the bus's own event object something; `fields` of it are in `message`.
int call_event_object(ubus_context *ctx, const char *method, blob_buf &message) {
    int status =
        ubus_invoke(ctx, UBUS_SYSTEM_OBJECT_EVENT, method, message.head, nullptr, nullptr, 0);
    blob_buf_free(&message);
    return status;
}

void object_added(ubus_context *ctx, ubus_event_handler *, const char *, blob_attr *msg) {
    static constexpr blobmsg_policy policy[] = {{"id", BLOBMSG_TYPE_INT32},
                                                {"path", BLOBMSG_TYPE_STRING}};
    blob_attr *found[ARRAY_SIZE(policy)];
    blobmsg_parse(policy, ARRAY_SIZE(policy), found, blob_data(msg), (unsigned)blob_len(msg));
    if (!found[0] || !found[1])
        return;
    ubus_subscriber *subscriber;
    list_for_each_entry(subscriber, &ctx->auto_subscribers, list) {
        if (subscriber->new_obj_cb(ctx, subscriber, blobmsg_get_string(found[1])))
            ubus_subscribe(ctx, subscriber, blobmsg_get_u32(found[0]));
    }
}

// The ids to subscribe to are collected first: no request may start inside a lookup's callback.
struct Matches {
    ubus_subscriber *subscriber;
    uint32_t *ids;
    size_t count;
};

void collect_match(ubus_context *ctx, ubus_object_data *object, void *priv) {
    auto *matches = static_cast<Matches *>(priv);
    if (!matches->subscriber->new_obj_cb(ctx, matches->subscriber, object->path))
        return;
    void *grown = realloc(matches->ids, (matches->count + 1) * sizeof(uint32_t));
    if (!grown)
        return;
    matches->ids = static_cast<uint32_t *>(grown);
    matches->ids[matches->count++] = object->id;
}

int subscribe_automatically(ubus_context *ctx, ubus_subscriber *subscriber) {
    ubus_event_handler *added = &ctx->auto_subscribe_event_handler;
    list_add_tail(&subscriber->list, &ctx->auto_subscribers);
    added->cb = object_added;
    int status = added->obj.id ? 0 : ubus_register_event_handler(ctx, added, "ubus.object.add");
    Matches matches{subscriber, nullptr, 0};
    if (status == UBUS_STATUS_OK)
        status = ubus_lookup(ctx, nullptr, collect_match, &matches);
    for (size_t i = 0; i < matches.count; i++)
        ubus_subscribe(ctx, subscriber, matches.ids[i]);
    free(matches.ids);
    return status;
}

} // namespace

void target_gone(ubus_context *ctx, ubus_object *obj, uint32_t target) {
    if (obj->methods != &notification_method)
        return;
    ubus_subscriber *subscriber = container_of(obj, ubus_subscriber, obj);
    if (subscriber->remove_cb)
        subscriber->remove_cb(ctx, subscriber, target);
}

} // namespace ubus_library

using namespace ubus_library;

int ubus_register_subscriber(ubus_context *ctx, ubus_subscriber *subscriber) {
    INIT_LIST_HEAD(&subscriber->list);
    int status = add_internal_object(ctx, &subscriber->obj, &notification_method);
    return status || !subscriber->new_obj_cb ? status : subscribe_automatically(ctx, subscriber);
}

int ubus_subscribe(ubus_context *ctx, ubus_subscriber *subscriber, uint32_t id) {
    return change_subscription(ctx, subscriber, id, UBUS_MSG_SUBSCRIBE);
}

int ubus_unsubscribe(ubus_context *ctx, ubus_subscriber *subscriber, uint32_t id) {
    return change_subscription(ctx, subscriber, id, UBUS_MSG_UNSUBSCRIBE);
}

int ubus_register_event_handler(ubus_context *ctx, ubus_event_handler *handler,
                                const char *pattern) {
    if (!handler->obj.id) {
        int status = add_internal_object(ctx, &handler->obj, &event_method);
        if (status)
            return status;
    }
    blob_buf message{};
    blob_buf_init(&message, 0);
    blobmsg_add_u32(&message, "object", handler->obj.id);
    blobmsg_add_string(&message, "pattern", pattern ? pattern : "*");
    return call_event_object(ctx, "register", message);
}

int ubus_send_event(ubus_context *ctx, const char *id, blob_attr *data) {
    blob_buf message{};
    blob_buf_init(&message, 0);
    blobmsg_add_string(&message, "id", id);
    blobmsg_add_field(&message, BLOBMSG_TYPE_TABLE, "data", blob_data(data),
                      (unsigned)blob_len(data));
    return call_event_object(ctx, "send", message);
}
