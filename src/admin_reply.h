// What the handlers of the bus object share: the arguments of a call, the buffer that replies are
// built in, and replies that come a second later.
//
// Everything here belongs to the bus thread.
#pragma once

#include "guards.h"

#include <cstddef>
#include <cstdlib>

extern "C" {
#include <libubox/blobmsg.h>
#include <libubox/uloop.h>
#include <libubus.h>
}

// The bus closes the connection of an owner that sends more than 1 MiB, which would end the
// administration for good. Replies stay well below.
inline constexpr size_t MAX_REPLY = 1000000;

// Every handler and every late reply holds it: the main thread takes it to keep them off a daemon
// that is not yet, or no longer, whole.
extern pthread_mutex_t admin_gate;

extern struct blob_buf reply_buffer; // one is enough: all handlers run on one thread

// A call that is answered one second later. It begins the record of each such call, and its timer
// comes first, so that the timer's address is the record's.
struct DeferredCall {
    struct uloop_timeout timer;
    struct ubus_request_data request;
    struct ubus_context *ctx;
    int status; // of the operation, and then of the bus call
};

// A record allocated zeroed, with `extra` bytes behind it; null without memory. Its reply frees it.
template <typename Record>
Record *allocate(size_t extra = 0) {
    return static_cast<Record *>(calloc(1, sizeof(Record) + extra));
}

// Lets the call wait: `reply` runs with the record in a second.
void defer(struct ubus_context *ctx, struct ubus_request_data *request, DeferredCall *call,
           uloop_timeout_handler reply);

// Answers a deferred call with {"message": ...} and ends it with its status.
[[gnu::format(printf, 2, 3)]] void send_message(DeferredCall *call, const char *format, ...);

// Copies `format` as a formatted print without arguments would: "%%" becomes "%". A conversion has
// nothing to convert and is copied as it stands.
void expand_format(char *out, size_t size, const char *format);

// The arguments of a call. One that is missing or of another type is null.
template <size_t Count>
struct Arguments {
    struct blob_attr *values[Count];
    Arguments(const struct blobmsg_policy (&policy)[Count], struct blob_attr *msg) {
        blobmsg_parse(policy, Count, values, blob_data(msg), static_cast<unsigned>(blob_len(msg)));
    }
    struct blob_attr *operator[](int index) const {
        return values[index];
    }
};

// The text of an argument, or `missing` when the call does not have it.
const char *text_of(struct blob_attr *argument, const char *missing);

// The number in an argument's text, or `missing`.
int number_of(struct blob_attr *argument, int missing);
