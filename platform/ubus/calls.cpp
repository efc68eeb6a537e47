// Listing objects and calling their methods.
#include "commands.h"

#include <csignal>
#include <cstdio>
#include <string>
#include <unistd.h>

// Stands for the type of an argument in a printed signature, where the value is a type's number.
static const char *format_type(void *, blob_attr *attr) {
    if (blobmsg_type(attr) != BLOBMSG_TYPE_INT32)
        return nullptr;
    switch (blobmsg_get_u32(attr)) {
    case BLOBMSG_TYPE_INT8:
        return "\"Boolean\"";
    case BLOBMSG_TYPE_INT32:
        return "\"Integer\"";
    case BLOBMSG_TYPE_STRING:
        return "\"String\"";
    case BLOBMSG_TYPE_ARRAY:
        return "\"Array\"";
    case BLOBMSG_TYPE_TABLE:
        return "\"Table\"";
    default:
        return "\"(unknown)\"";
    }
}

static void print_object(ubus_context *, ubus_object_data *object, void *priv) {
    const Options &options = *static_cast<const Options *>(priv);
    if (options.simple || !options.verbose) {
        puts(object->path);
        return;
    }
    printf("'%s' @%08x\n", object->path, object->id);
    blob_attr *method;
    size_t rem;
    blob_for_each_attr(method, object->signature, rem) {
        if (!blobmsg_check_attr(method, false))
            continue;
        OwnedText text(blobmsg_format_json_with_cb(method, false, format_type, nullptr, -1));
        if (text)
            printf("\t%s\n", text.get());
    }
}

static void print_reply(ubus_request *req, int, blob_attr *msg) {
    const Options &options = *static_cast<const Options *>(req->priv);
    OwnedText text(blobmsg_format_json_indent(msg, true, options.simple ? -1 : 0));
    if (text)
        puts(text.get());
}

// Scripts are told which call failed, and get the negated status as exit code: at the end of a
// pipeline neither would be known. A negated status that is then positive is explained once more.
static int call_failed(const Options &options, Arguments arguments, int status) {
    if (!status || options.simple || isatty(STDERR_FILENO))
        return status;
    std::string line = "Command failed: ubus call ";
    for (const char *argument : arguments)
        line.append(argument).append(" ");
    fflush(stdout);
    fprintf(stderr, "%s(%s)\n", line.c_str(), ubus_strerror(status));
    return (int)-(unsigned)status;
}

int list_objects(ubus_context *ctx, Options options, Arguments arguments) {
    if (arguments.size() > 1)
        return WRONG_USAGE;
    return ubus_lookup(ctx, arguments.empty() ? nullptr : arguments[0], print_object, &options);
}

int call_method(ubus_context *ctx, Options options, Arguments arguments) {
    if (arguments.size() < 2 || arguments.size() > 3)
        return WRONG_USAGE;
    Message message;
    if (arguments.size() == 3 && !blobmsg_add_json_from_string(&message.buffer, arguments[2]))
        return call_failed(options, arguments, UBUS_STATUS_PARSE_ERROR);
    uint32_t id = 0;
    int status = ubus_lookup_id(ctx, arguments[0], &id);
    if (status)
        return status;
    // The wait for the answer is outside the loop, whose signal handlers would not end it.
    signal(SIGINT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
    status = ubus_invoke(ctx, id, arguments[1], message.buffer.head, print_reply, &options,
                         options.seconds * 1000);
    return call_failed(options, arguments, status);
}
