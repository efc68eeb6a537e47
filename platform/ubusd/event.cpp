// Events: the bus's own object that takes them and the patterns that clients listen for.
#include "bus.h"

#include <algorithm>
#include <array>
#include <cstring>

template <size_t N>
static std::array<blob_attr *, N> parse(const blobmsg_policy (&policy)[N], const blob_attr *data) {
    std::array<blob_attr *, N> found{};
    if (data)
        blobmsg_parse(policy, N, found.data(), blob_data(data), (unsigned)blob_len(data));
    return found;
}

static int register_listener(const Client &client, const blob_attr *data) {
    static constexpr blobmsg_policy POLICY[] = {{"object", BLOBMSG_TYPE_INT32},
                                                {"pattern", BLOBMSG_TYPE_STRING}};
    auto [id, pattern] = parse(POLICY, data);
    if (!id || !pattern)
        return UBUS_STATUS_INVALID_ARGUMENT;
    Object *object = find_object(blobmsg_get_u32(id));
    if (!object)
        return UBUS_STATUS_NOT_FOUND;
    if (&object->owner != &client)
        return UBUS_STATUS_PERMISSION_DENIED;
    const char *text = blobmsg_get_string(pattern);
    if (std::ranges::find(object->patterns, text) == object->patterns.end())
        object->patterns.emplace_back(text);
    return UBUS_STATUS_OK;
}

static int take_event(const Client &client, const blob_attr *data) {
    static constexpr blobmsg_policy POLICY[] = {{"id", BLOBMSG_TYPE_STRING},
                                                {"data", BLOBMSG_TYPE_TABLE}};
    auto [name, fields] = parse(POLICY, data);
    if (!name || !fields)
        return UBUS_STATUS_INVALID_ARGUMENT;
    std::string_view text = blobmsg_get_string(name);
    if (text.starts_with("ubus."))
        return UBUS_STATUS_PERMISSION_DENIED;
    send_event(&client, text.data(), blobmsg_data(fields), blobmsg_data_len(fields));
    return UBUS_STATUS_OK;
}

// A pattern is a whole name, or the beginning of one followed by `*`.
static bool matches(std::string_view pattern, std::string_view name) {
    if (!pattern.ends_with('*'))
        return pattern == name;
    pattern.remove_suffix(1);
    return name.starts_with(pattern);
}

int call_event_object(Client &client, std::string_view method, const blob_attr *data) {
    if (method == "register")
        return register_listener(client, data);
    return method == "send" ? take_event(client, data) : (int)UBUS_STATUS_INVALID_COMMAND;
}

void send_event(const Client *sender, const char *name, const void *fields, size_t length) {
    bus.events++;
    for (auto &[id, object] : bus.objects) {
        if (&object->owner == sender ||
            std::ranges::none_of(object->patterns,
                                 [name](const auto &pattern) { return matches(pattern, name); }))
            continue;
        blob_buf_init(&bus.scratch, 0);
        blob_put_int32(&bus.scratch, UBUS_ATTR_OBJID, id);
        blob_put_string(&bus.scratch, UBUS_ATTR_METHOD, name);
        blob_put(&bus.scratch, UBUS_ATTR_DATA, fields, (unsigned)length);
        send_message(object->owner, UBUS_MSG_INVOKE, bus.events, 0, bus.scratch.head);
    }
}
