// Subscriptions to other objects' notifications, and events.
#include "internal.h"

namespace ubus_library {

static int notification_handler(ubus_context *ctx, ubus_object *obj, ubus_request_data *req,
                                const char *method, blob_attr *msg) {
    ubus_subscriber *subscriber = container_of(obj, ubus_subscriber, obj);
    return subscriber->cb ? subscriber->cb(ctx, obj, req, method, msg) : UBUS_STATUS_OK;
}

static int event_handler(ubus_context *ctx, ubus_object *obj, ubus_request_data *,
                         const char *method, blob_attr *msg) {
    ubus_event_handler *handler = container_of(obj, ubus_event_handler, obj);
    handler->cb(ctx, handler, method, msg);
    return UBUS_STATUS_OK;
}

static constexpr ubus_method any_method(ubus_handler_t handler) {
    return {nullptr, handler, 0, 0, nullptr, 0};
}
static constexpr ubus_method NOTIFICATION_METHOD = any_method(notification_handler);
static constexpr ubus_method EVENT_METHOD = any_method(event_handler);

static int change_subscription(ubus_context *ctx, ubus_subscriber *subscriber, uint32_t target,
                               ubus_msg_type type) {
    blob_buf_init(&scratch, 0);
    blob_put_int32(&scratch, UBUS_ATTR_OBJID, subscriber->obj.id);
    blob_put_int32(&scratch, UBUS_ATTR_TARGET, target);
    return run_request(ctx, type, nullptr, nullptr);
}

// Tells the bus's own event object something; `fields` of it are in `message`.
static int call_event_object(ubus_context *ctx, const char *method, blob_buf &message) {
    int status =
        ubus_invoke(ctx, UBUS_SYSTEM_OBJECT_EVENT, method, message.head, nullptr, nullptr, 0);
    blob_buf_free(&message);
    return status;
}

void target_gone(ubus_context *ctx, ubus_object *obj, uint32_t target) {
    if (obj->methods != &NOTIFICATION_METHOD)
        return;
    ubus_subscriber *subscriber = container_of(obj, ubus_subscriber, obj);
    if (subscriber->remove_cb)
        subscriber->remove_cb(ctx, subscriber, target);
}

} // namespace ubus_library

using namespace ubus_library;

int ubus_register_subscriber(ubus_context *ctx, ubus_subscriber *subscriber) {
    if (subscriber->new_obj_cb)
        return UBUS_STATUS_NOT_SUPPORTED;
    return add_internal_object(ctx, &subscriber->obj, &NOTIFICATION_METHOD);
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
        int status = add_internal_object(ctx, &handler->obj, &EVENT_METHOD);
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
