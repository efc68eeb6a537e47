// What clients ask of the bus, one function per message type.
#include "bus.h"
#include "wire.h"

#include <array>

namespace {

struct Message {
    Client &client;
    const ubus_msghdr &hdr;
    blob_attr *outer;
    wire::Attributes attributes;

    blob_attr *operator[](ubus_msg_attr id) const { return attributes[id]; }
};

} // namespace

// Returned by requests that the bus itself does not answer with a status.
static constexpr int NO_STATUS = -1;

static void answer(const Message &message, int type) {
    send_message(message.client, type, message.hdr.seq, message.hdr.peer, bus.scratch.head);
}

static void answer_status(Client &client, uint16_t seq, uint32_t peer, int status) {
    blob_buf_init(&bus.scratch, 0);
    blob_put_int32(&bus.scratch, UBUS_ATTR_STATUS, (uint32_t)status);
    send_message(client, UBUS_MSG_STATUS, seq, peer, bus.scratch.head);
}

// The answer repeats even the version of the request.
static int handle_ping(const Message &message) {
    ubus_msghdr hdr = message.hdr;
    hdr.type = UBUS_MSG_DATA;
    send_message(message.client, hdr, message.outer);
    return UBUS_STATUS_OK;
}

// Calls are not recorded: an answer finds its way by the peer in it. One for a client that has
// gone, one of a client that does not own the object and an incomplete one are dropped.
static int handle_answer(const Message &message) {
    const blob_attr *content =
        message[message.hdr.type == UBUS_MSG_STATUS ? UBUS_ATTR_STATUS : UBUS_ATTR_DATA];
    Object *object = find_object(wire::number(message[UBUS_ATTR_OBJID]));
    auto caller = bus.clients.find(message.hdr.peer);
    if (content && object && &object->owner == &message.client && caller != bus.clients.end())
        send_message(*caller->second, message.hdr.type, message.hdr.seq, object->id, message.outer);
    return NO_STATUS;
}

// An object without type is known, but not shown.
static void send_object(Client &client, uint16_t seq, uint32_t peer, const Object &object) {
    if (!object.type)
        return;
    blob_buf_init(&bus.scratch, 0);
    blob_put_string(&bus.scratch, UBUS_ATTR_OBJPATH, object.path.c_str());
    blob_put_int32(&bus.scratch, UBUS_ATTR_OBJID, object.id);
    blob_put_int32(&bus.scratch, UBUS_ATTR_OBJTYPE, object.type->id);
    blob_put(&bus.scratch, UBUS_ATTR_SIGNATURE, object.type->signature.data(),
             (unsigned)object.type->signature.size());
    send_message(client, UBUS_MSG_DATA, seq, peer, bus.scratch.head);
}

static int handle_lookup(const Message &message) {
    std::string path;
    if (const char *text = wire::text(message[UBUS_ATTR_OBJPATH])) {
        path = text;
        if (path.empty())
            return UBUS_STATUS_INVALID_ARGUMENT;
        if (path.back() != '*') {
            auto found = bus.paths.find(path);
            if (found == bus.paths.end())
                return UBUS_STATUS_NOT_FOUND;
            send_object(message.client, message.hdr.seq, message.hdr.peer, *found->second);
            return UBUS_STATUS_OK;
        }
        path.pop_back();
    }
    // A bus without objects is not an error, a pattern without match is.
    bool found = !message[UBUS_ATTR_OBJPATH];
    message.client.lookup = Lookup{message.hdr.seq, message.hdr.peer, path, path, found};
    continue_lookup(message.client);
    return NO_STATUS;
}

// Makes a call of `scratch` for an object, from what the sender gave and who it is.
static int forward(const Message &message, Object &object, bool no_reply) {
    blob_buf &out = bus.scratch;
    blob_buf_init(&out, 0);
    if (no_reply)
        blob_put_int8(&out, UBUS_ATTR_NO_REPLY, 1);
    blob_put_int32(&out, UBUS_ATTR_OBJID, object.id);
    blob_put_string(&out, UBUS_ATTR_METHOD, wire::text(message[UBUS_ATTR_METHOD]));
    blob_put_string(&out, UBUS_ATTR_USER, message.client.user.c_str());
    blob_put_string(&out, UBUS_ATTR_GROUP, message.client.group.c_str());
    if (const blob_attr *data = message[UBUS_ATTR_DATA])
        blob_put(&out, UBUS_ATTR_DATA, blob_data(data), (unsigned)blob_len(data));
    // The account's names may make too much of a message that just had its place.
    if (blob_raw_len(out.head) > UBUS_MAX_MSGLEN)
        return UBUS_STATUS_INVALID_ARGUMENT;
    send_message(object.owner, UBUS_MSG_INVOKE, message.hdr.seq, message.client.id, out.head);
    return NO_STATUS;
}

static int call_own_object(const Message &message, uint32_t id) {
    switch (id) {
    case UBUS_SYSTEM_OBJECT_EVENT:
        return call_event_object(message.client, wire::text(message[UBUS_ATTR_METHOD]),
                                 message[UBUS_ATTR_DATA]);
    case UBUS_SYSTEM_OBJECT_ACL:
        return UBUS_STATUS_INVALID_COMMAND;
    case UBUS_SYSTEM_OBJECT_MONITOR:
        return UBUS_STATUS_METHOD_NOT_FOUND;
    default:
        return UBUS_STATUS_NOT_FOUND;
    }
}

static int handle_invoke(const Message &message) {
    if (!message[UBUS_ATTR_OBJID] || !message[UBUS_ATTR_METHOD])
        return UBUS_STATUS_INVALID_ARGUMENT;
    uint32_t id = wire::number(message[UBUS_ATTR_OBJID]);
    if (id < UBUS_SYSTEM_OBJECT_MAX)
        return call_own_object(message, id);
    Object *object = find_object(id);
    return object ? forward(message, *object, false) : UBUS_STATUS_NOT_FOUND;
}

static int handle_add_object(const Message &message) {
    const char *path = wire::text(message[UBUS_ATTR_OBJPATH]);
    const blob_attr *signature = message[UBUS_ATTR_SIGNATURE];
    if (path && bus.paths.contains(path))
        return UBUS_STATUS_INVALID_ARGUMENT;
    Object &object =
        add_object(message.client, path, signature, wire::number(message[UBUS_ATTR_OBJTYPE]));
    blob_buf_init(&bus.scratch, 0);
    blob_put_int32(&bus.scratch, UBUS_ATTR_OBJID, object.id);
    if (signature && object.type)
        blob_put_int32(&bus.scratch, UBUS_ATTR_OBJTYPE, object.type->id);
    answer(message, UBUS_MSG_DATA);
    return UBUS_STATUS_OK;
}

// The object that a client names as its own; `status` says what is wrong if null.
static Object *own_object(const Message &message, int &status) {
    if (!message[UBUS_ATTR_OBJID]) {
        status = UBUS_STATUS_INVALID_ARGUMENT;
        return nullptr;
    }
    Object *object = find_object(wire::number(message[UBUS_ATTR_OBJID]));
    status = !object                             ? UBUS_STATUS_NOT_FOUND
             : &object->owner != &message.client ? UBUS_STATUS_PERMISSION_DENIED
                                                 : UBUS_STATUS_OK;
    return status ? nullptr : object;
}

static int handle_remove_object(const Message &message) {
    int status;
    Object *object = own_object(message, status);
    if (!object)
        return status;
    blob_buf_init(&bus.scratch, 0);
    blob_put_int32(&bus.scratch, UBUS_ATTR_OBJID, object->id);
    if (object->type && object->type.use_count() == 1)
        blob_put_int32(&bus.scratch, UBUS_ATTR_OBJTYPE, object->type->id);
    answer(message, UBUS_MSG_DATA);
    remove_object(*object);
    return UBUS_STATUS_OK;
}

static int handle_subscription(const Message &message) {
    if (!message[UBUS_ATTR_OBJID] || !message[UBUS_ATTR_TARGET])
        return UBUS_STATUS_INVALID_ARGUMENT;
    Object *subscriber = find_object(wire::number(message[UBUS_ATTR_OBJID]));
    Object *target = find_object(wire::number(message[UBUS_ATTR_TARGET]));
    if (!subscriber || !target)
        return UBUS_STATUS_NOT_FOUND;
    if (&subscriber->owner != &message.client)
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (message.hdr.type == UBUS_MSG_UNSUBSCRIBE)
        return unsubscribe(*subscriber, *target) ? UBUS_STATUS_OK : UBUS_STATUS_NOT_FOUND;
    if (&target->owner == &message.client)
        return UBUS_STATUS_INVALID_ARGUMENT;
    subscribe(*subscriber, *target);
    return UBUS_STATUS_OK;
}

// Unless no replies are wanted the sender learns first whose statuses to expect.
static int handle_notify(const Message &message) {
    int status;
    Object *object = own_object(message, status);
    if (!object)
        return status;
    if (!message[UBUS_ATTR_METHOD])
        return UBUS_STATUS_INVALID_ARGUMENT;
    const blob_attr *no_reply = message[UBUS_ATTR_NO_REPLY];
    bool silent = no_reply && blob_get_u8(no_reply);
    if (!silent) {
        blob_buf_init(&bus.scratch, 0);
        blob_put_int32(&bus.scratch, UBUS_ATTR_OBJID, object->id);
        void *ids = blob_nest_start(&bus.scratch, UBUS_ATTR_SUBSCRIBERS);
        for (const Object *subscriber : object->subscribers)
            blob_put_int32(&bus.scratch, 0, subscriber->id);
        blob_nest_end(&bus.scratch, ids);
        blob_put_int32(&bus.scratch, UBUS_ATTR_STATUS, UBUS_STATUS_OK);
        answer(message, UBUS_MSG_STATUS);
    }
    for (Object *subscriber : object->subscribers)
        forward(message, *subscriber, silent);
    return NO_STATUS;
}

static int refuse(const Message &) {
    return UBUS_STATUS_INVALID_COMMAND;
}

void handle_message(Client &client, const ubus_msghdr &hdr, blob_attr *outer) {
    static constexpr std::array<int (*)(const Message &), __UBUS_MSG_LAST> HANDLERS{
        refuse,               // HELLO
        handle_answer,        // STATUS
        handle_answer,        // DATA
        handle_ping,          // PING
        handle_lookup,        // LOOKUP
        handle_invoke,        // INVOKE
        handle_add_object,    // ADD_OBJECT
        handle_remove_object, // REMOVE_OBJECT
        handle_subscription,  // SUBSCRIBE
        handle_subscription,  // UNSUBSCRIBE
        handle_notify,        // NOTIFY
        refuse,               // MONITOR
    };
    Message message{client, hdr, outer, wire::parse(outer, blob_raw_len(outer))};
    int status = hdr.type < HANDLERS.size() ? HANDLERS[hdr.type](message) : refuse(message);
    if (status != NO_STATUS)
        answer_status(client, hdr.seq, hdr.peer, status);
}

void continue_lookup(Client &client) {
    Lookup &lookup = *client.lookup;
    for (auto at = bus.paths.lower_bound(lookup.next);
         at != bus.paths.end() && at->first.starts_with(lookup.prefix); ++at) {
        if (!client.output.empty()) {
            lookup.next = at->first;
            return;
        }
        lookup.found = true;
        send_object(client, lookup.seq, lookup.peer, *at->second);
    }
    int status = lookup.found ? UBUS_STATUS_OK : UBUS_STATUS_NOT_FOUND;
    answer_status(client, lookup.seq, lookup.peer, status);
    client.lookup.reset();
}
