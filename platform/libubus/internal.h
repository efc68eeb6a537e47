// What the library's sources share. Nothing here has a name of its own at program scope: programs
// have globals called `b` and `ctx` themselves.
#pragma once

#include "libubus.h"
#include "wire.h"

namespace ubus_library {

// The one message under construction; every request or answer starts it anew.
extern blob_buf scratch;

// Sends one message, waiting while the socket is full. False when the connection is broken.
bool send_message(ubus_context *ctx, int type, uint16_t seq, uint32_t peer, blob_attr *attributes);

// Waits up to `timeout` milliseconds (-1: for ever) for something to arrive, and handles it.
void wait_for_data(ubus_context *ctx, int timeout);
// Handles the calls that came in during a synchronous request.
void handle_pending(uloop_timeout *timer);

// Adds the contents of `msg` (null: none) to `scratch` as DATA; false when they are too long.
bool put_data(const blob_attr *msg);

// Sends a request made of `scratch` and waits for its end, `raw` getting the data.
int run_request(ubus_context *ctx, int type, ubus_data_handler_t raw, void *priv);
// Handles a STATUS or DATA.
void handle_answer(ubus_context *ctx, const ubus_msghdr &hdr, blob_attr *body);
// Completes what nobody waits for synchronously.
void fail_requests(ubus_context *ctx);

// Handles an INVOKE, UNSUBSCRIBE or NOTIFY; handlers are called from here.
void handle_object_message(ubus_context *ctx, const ubus_msghdr &hdr, blob_attr *body);
// Registers an object of the library's own, all of whose calls go to `handler`.
int add_internal_object(ubus_context *ctx, ubus_object *obj, const ubus_method *method);
// Tells a subscriber that its target has gone.
void target_gone(ubus_context *ctx, ubus_object *obj, uint32_t target);

} // namespace ubus_library
