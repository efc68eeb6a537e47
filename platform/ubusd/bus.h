// The bus itself: clients, the objects they offer, subscriptions and events. Every client may do
// everything, as a client of the administrator may on a router.
#pragma once

#include "client.h"

extern "C" {
#include <libubox/blobmsg.h>
}
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

// What objects of one kind offer; objects may share it.
struct Type {
    uint32_t id;
    std::vector<char> signature; // fields, one table per method
};

struct Object {
    uint32_t id;
    Client &owner;
    std::string path; // empty: none
    std::shared_ptr<Type> type;
    uint16_t counter = 0; // numbers the messages that the bus itself sends to the object
    std::vector<Object *> subscribers;
    std::vector<Object *> targets;     // what it has subscribed to
    std::vector<std::string> patterns; // events it listens for
};

struct Bus {
    std::unordered_map<uint32_t, Client *> clients;
    std::unordered_map<uint32_t, std::unique_ptr<Object>> objects;
    std::unordered_map<uint32_t, std::weak_ptr<Type>> types;
    std::map<std::string, Object *> paths; // looked up in byte order
    uint16_t events = 0;                   // counts events
    blob_buf scratch{};                    // the message under construction
};
extern Bus bus;

// The client joins (gets its id and the greeting) and leaves (everything of it goes).
void join_bus(Client &client);
void leave_bus(Client &client);

// `hdr` is in host byte order; `outer` lies in the client's input.
void handle_message(Client &client, const ubus_msghdr &hdr, blob_attr *outer);
// Goes on with a lookup that had to wait for the client to take its answers.
void continue_lookup(Client &client);

Object *find_object(uint32_t id);
// `signature` may be null; a type id that no type has leaves the object without type.
Object &add_object(Client &owner, const char *path, const blob_attr *signature, uint32_t type_id);
void remove_object(Object &object);
void subscribe(Object &subscriber, Object &target);
// False when there was no such subscription.
bool unsubscribe(Object &subscriber, Object &target);

// Calls the bus's own event object; a status.
int call_event_object(Client &client, std::string_view method, const blob_attr *data);
// Sends an event with `fields` to every listener except the sender (null: the bus).
void send_event(const Client *sender, const char *name, const void *fields, size_t length);
