#include "admin_reply.h"

#include "strutils.h"

#include <cstdarg>
#include <cstdio>

pthread_mutex_t admin_gate = PTHREAD_MUTEX_INITIALIZER;
struct blob_buf reply_buffer;

static constexpr int DEFERRED_REPLY_MS = 1000;

void defer(struct ubus_context *ctx, struct ubus_request_data *request, DeferredCall *call,
           uloop_timeout_handler reply) {
    ubus_defer_request(ctx, request, &call->request);
    call->ctx = ctx;
    call->timer.cb = reply;
    uloop_timeout_set(&call->timer, DEFERRED_REPLY_MS);
}

void send_message(DeferredCall *call, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    char *text = nullptr;
    const int length = vasprintf(&text, format, arguments);
    va_end(arguments);
    const OwnedText message(length < 0 ? nullptr : text);
    if (message && static_cast<size_t>(length) > MAX_REPLY)
        message.get()[MAX_REPLY] = '\0';
    blob_buf_init(&reply_buffer, 0);
    blobmsg_add_string(&reply_buffer, "message", message ? message.get() : "");
    ubus_send_reply(call->ctx, &call->request, reply_buffer.head);
    ubus_complete_deferred_request(call->ctx, &call->request, call->status);
}

void expand_format(char *out, size_t size, const char *format) {
    size_t length = 0;
    for (; *format && length + 1 < size; format++) {
        out[length++] = *format;
        if (format[0] == '%' && format[1] == '%')
            format++;
    }
    if (size > 0)
        out[length] = '\0';
}

const char *text_of(struct blob_attr *argument, const char *missing) {
    return argument ? blobmsg_get_string(argument) : missing;
}

int number_of(struct blob_attr *argument, int missing) {
    return argument ? decimal(blobmsg_get_string(argument)) : missing;
}
