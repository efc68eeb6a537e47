// The commands of the bus's command-line client. Each takes the connection and its arguments and
// returns what the program exits with: a positive status is explained on standard error first,
// WRONG_USAGE prints the usage.
#pragma once

#include "guards.h"

extern "C" {
#include <libubox/blobmsg_json.h>
#include <libubus.h>
}
#include <span>

struct Options {
    int seconds = 30;     // how long to wait
    bool limited = false; // whether that was given
    bool simple = false;
    bool verbose = false;
};

using Arguments = std::span<char *const>;
using Command = int (*)(ubus_context *ctx, Options options, Arguments arguments);

constexpr int WRONG_USAGE = -2;

// A message under construction.
struct Message {
    blob_buf buffer{};

    Message() { blob_buf_init(&buffer, 0); }
    ~Message() { blob_buf_free(&buffer); }
    Message(const Message &) = delete;
    Message &operator=(const Message &) = delete;
};

int list_objects(ubus_context *ctx, Options options, Arguments arguments);
int call_method(ubus_context *ctx, Options options, Arguments arguments);

int wait_for_objects(ubus_context *ctx, Options options, Arguments arguments);
int listen_events(ubus_context *ctx, Options options, Arguments arguments);
int subscribe_objects(ubus_context *ctx, Options options, Arguments arguments);
int send_one_event(ubus_context *ctx, Options options, Arguments arguments);
