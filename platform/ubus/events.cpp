// Waiting for objects, listening, subscribing and sending events.
#include "commands.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <vector>

static void end_loop(uloop_timeout *) {
    uloop_end();
}

static void end_without_bus(ubus_context *) {
    uloop_end();
}

// Runs the loop until something ends it or the time is over.
static void run(ubus_context *ctx, int milliseconds) {
    uloop_timeout limit{};
    limit.cb = end_loop;
    if (milliseconds >= 0)
        uloop_timeout_set(&limit, milliseconds);
    ctx->connection_lost = end_without_bus;
    ubus_add_uloop(ctx);
    uloop_run();
    uloop_timeout_cancel(&limit);
}

static int duration(const Options &options) {
    return options.limited && options.seconds > 0 ? options.seconds * 1000 : -1;
}

static void print_event(const char *name, blob_attr *fields) {
    OwnedText text(blobmsg_format_json(fields, true));
    if (text)
        printf("{ \"%s\": %s }\n", name, text.get());
    fflush(stdout);
}

static void receive_event(ubus_context *, ubus_event_handler *, const char *name,
                          blob_attr *fields) {
    print_event(name, fields);
}

static int receive_notification(ubus_context *, ubus_object *, ubus_request_data *,
                                const char *name, blob_attr *fields) {
    print_event(name, fields);
    return UBUS_STATUS_OK;
}

namespace {

// The paths that have not appeared yet.
struct Missing {
    ubus_event_handler handler{}; // first: uloop's callback gets a pointer to it
    std::vector<std::string_view> paths;
};

} // namespace

static void object_present(ubus_context *, ubus_object_data *object, void *priv) {
    std::erase(static_cast<Missing *>(priv)->paths, std::string_view(object->path));
}

static void object_added(ubus_context *, ubus_event_handler *handler, const char *,
                         blob_attr *fields) {
    static constexpr blobmsg_policy POLICY{"path", BLOBMSG_TYPE_STRING};
    auto *missing = reinterpret_cast<Missing *>(handler);
    blob_attr *path = nullptr;
    blobmsg_parse(&POLICY, 1, &path, blob_data(fields), (unsigned)blob_len(fields));
    if (path)
        std::erase(missing->paths, std::string_view(blobmsg_get_string(path)));
    if (missing->paths.empty())
        uloop_end();
}

int wait_for_objects(ubus_context *ctx, Options options, Arguments arguments) {
    if (arguments.empty())
        return WRONG_USAGE;
    Missing missing;
    missing.paths.assign(arguments.begin(), arguments.end());
    missing.handler.cb = object_added;
    int status = ubus_register_event_handler(ctx, &missing.handler, "ubus.object.add");
    if (status == UBUS_STATUS_OK)
        status = ubus_lookup(ctx, nullptr, object_present, &missing);
    if (status != UBUS_STATUS_OK || missing.paths.empty())
        return status;
    run(ctx, options.seconds * 1000);
    return missing.paths.empty() ? UBUS_STATUS_OK : UBUS_STATUS_TIMEOUT;
}

int listen_events(ubus_context *ctx, Options options, Arguments arguments) {
    ubus_event_handler handler{};
    handler.cb = receive_event;
    int status = UBUS_STATUS_OK;
    if (arguments.empty())
        status = ubus_register_event_handler(ctx, &handler, nullptr);
    for (const char *pattern : arguments) {
        if (status == UBUS_STATUS_OK)
            status = ubus_register_event_handler(ctx, &handler, pattern);
    }
    if (status == UBUS_STATUS_OK)
        run(ctx, duration(options));
    return status;
}

int subscribe_objects(ubus_context *ctx, Options options, Arguments arguments) {
    if (arguments.empty())
        return WRONG_USAGE;
    ubus_subscriber subscriber{};
    subscriber.cb = receive_notification;
    int status = ubus_register_subscriber(ctx, &subscriber);
    for (const char *path : arguments) {
        uint32_t id = 0;
        if (status == UBUS_STATUS_OK)
            status = ubus_lookup_id(ctx, path, &id);
        if (status == UBUS_STATUS_OK)
            status = ubus_subscribe(ctx, &subscriber, id);
    }
    if (status == UBUS_STATUS_OK)
        run(ctx, duration(options));
    return status;
}

int send_one_event(ubus_context *ctx, Options, Arguments arguments) {
    if (arguments.empty() || arguments.size() > 2)
        return WRONG_USAGE;
    Message message;
    if (arguments.size() == 2 && !blobmsg_add_json_from_string(&message.buffer, arguments[1]))
        return UBUS_STATUS_PARSE_ERROR;
    return ubus_send_event(ctx, arguments[0], message.buffer.head);
}
