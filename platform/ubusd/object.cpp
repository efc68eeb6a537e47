// Clients and objects: ids, registration, subscriptions, and what others are told when they go.
#include "bus.h"

#include <algorithm>
#include <sys/random.h>

Bus bus;

// A random id above those of the bus's own objects. As a client's id 0x01000000 would be refused by
// client libraries.
template <class Map>
static uint32_t unused_id(const Map &map) {
    for (;;) {
        uint32_t id = 0;
        if (getrandom(&id, sizeof(id), 0) == sizeof(id) && id >= UBUS_SYSTEM_OBJECT_MAX &&
            id != 0x01000000 && !map.contains(id))
            return id;
    }
}

// A type of the methods in `signature`, or none if one of them is malformed.
static std::shared_ptr<Type> make_type(const blob_attr *signature) {
    const blob_attr *method;
    size_t rem;
    size_t valid = 0;
    blob_for_each_attr(method, signature, rem) {
        if (!blobmsg_check_attr(method, true))
            return nullptr;
        valid += blob_pad_len(method);
    }
    const char *fields = static_cast<const char *>(blob_data(signature));
    auto type =
        std::make_shared<Type>(Type{unused_id(bus.types), std::vector(fields, fields + valid)});
    bus.types[type->id] = type;
    return type;
}

// Events about objects carry their id and path.
static void announce(const Object &object, const char *event) {
    blob_buf fields{};
    blob_buf_init(&fields, 0);
    blobmsg_add_u32(&fields, "id", object.id);
    blobmsg_add_string(&fields, "path", object.path.c_str());
    send_event(nullptr, event, blob_data(fields.head), blob_len(fields.head));
    blob_buf_free(&fields);
}

// Tells an owner that its object's first subscriber came or its last one left.
static void tell_subscribed(Object &object, bool active) {
    blob_buf_init(&bus.scratch, 0);
    blob_put_int32(&bus.scratch, UBUS_ATTR_OBJID, object.id);
    blob_put_int8(&bus.scratch, UBUS_ATTR_ACTIVE, active);
    send_message(object.owner, UBUS_MSG_NOTIFY, ++object.counter, 0, bus.scratch.head);
}

static void tell_target_gone(Object &subscriber, const Object &target) {
    blob_buf_init(&bus.scratch, 0);
    blob_put_int32(&bus.scratch, UBUS_ATTR_OBJID, subscriber.id);
    blob_put_int32(&bus.scratch, UBUS_ATTR_TARGET, target.id);
    send_message(subscriber.owner, UBUS_MSG_UNSUBSCRIBE, ++subscriber.counter, 0, bus.scratch.head);
}

void join_bus(Client &client) {
    client.id = unused_id(bus.clients);
    bus.clients[client.id] = &client;
    blob_buf_init(&bus.scratch, 0);
    send_message(client, UBUS_MSG_HELLO, 0, client.id, bus.scratch.head);
}

// Callers that wait for an answer of this client are told nothing: they have time limits.
void leave_bus(Client &client) {
    while (!client.objects.empty())
        remove_object(*client.objects.front());
    bus.clients.erase(client.id);
}

Object *find_object(uint32_t id) {
    auto found = bus.objects.find(id);
    return found == bus.objects.end() ? nullptr : found->second.get();
}

Object &add_object(Client &owner, const char *path, const blob_attr *signature, uint32_t type_id) {
    auto object = std::make_unique<Object>(Object{.id = unused_id(bus.objects),
                                                  .owner = owner,
                                                  .path = path ? path : "",
                                                  .type = nullptr,
                                                  .subscribers = {},
                                                  .targets = {},
                                                  .patterns = {}});
    if (signature)
        object->type = make_type(signature);
    else if (auto known = bus.types.find(type_id); known != bus.types.end())
        object->type = known->second.lock();
    Object &added = *object;
    owner.objects.push_back(&added);
    bus.objects[added.id] = std::move(object);
    if (path) {
        bus.paths[added.path] = &added;
        announce(added, "ubus.object.add");
    }
    return added;
}

void remove_object(Object &object) {
    while (!object.targets.empty())
        unsubscribe(object, *object.targets.back());
    for (Object *subscriber : object.subscribers) {
        std::erase(subscriber->targets, &object);
        tell_target_gone(*subscriber, object);
    }
    object.patterns.clear();
    auto path = bus.paths.find(object.path);
    if (path != bus.paths.end() && path->second == &object) {
        bus.paths.erase(path);
        announce(object, "ubus.object.remove");
    }
    if (object.type && object.type.use_count() == 1)
        bus.types.erase(object.type->id);
    std::erase(object.owner.objects, &object);
    bus.objects.erase(object.id);
}

void subscribe(Object &subscriber, Object &target) {
    if (std::ranges::find(target.subscribers, &subscriber) != target.subscribers.end())
        return;
    target.subscribers.push_back(&subscriber);
    subscriber.targets.push_back(&target);
    if (target.subscribers.size() == 1)
        tell_subscribed(target, true);
}

bool unsubscribe(Object &subscriber, Object &target) {
    if (!std::erase(target.subscribers, &subscriber))
        return false;
    std::erase(subscriber.targets, &target);
    if (target.subscribers.empty())
        tell_subscribed(target, false);
    return true;
}
