// One connection of the bus: its socket, the bytes received so far and the messages not yet sent.
#pragma once

extern "C" {
#include <libubox/uloop.h>
#include <ubusmsg.h>
}
#include <deque>
#include <optional>
#include <string>
#include <vector>

struct Object;
struct Client;

// Finds the client of a descriptor that uloop reports.
struct Watch {
    uloop_fd sock; // first: a pointer to it is one to the whole
    Client *client;
};

// A lookup whose answers do not all fit into the client's queue at once.
struct Lookup {
    uint16_t seq;
    uint32_t peer;
    std::string prefix;
    std::string next; // where to go on, in order of paths
    bool found;
};

struct Client {
    Watch watch{};
    uint32_t id = 0;
    std::string user; // account names of the process at the other end
    std::string group;
    std::vector<char> input;              // the beginning of a message
    std::deque<std::vector<char>> output; // what the socket has not taken yet
    size_t queued = 0;                    // bytes in `output`
    std::vector<Object *> objects;        // in order of registration
    std::optional<Lookup> lookup;         // while set, further requests wait
    bool half_closed = false;             // nothing more will come
    bool gone = false;                    // being disconnected; takes no more messages
};

// Takes over a new connection: identifies the peer and greets it.
void accept_client(int fd);
// Closes all connections at once: nobody is told that others have gone.
void close_clients();

// Sends a message, or queues what the socket does not take. Beyond UBUS_MAX_MSGLEN queued bytes
// the message is dropped silently, as is one longer than a message may be.
void send_message(Client &client, ubus_msghdr hdr, const blob_attr *attributes);
void send_message(Client &client, int type, uint16_t seq, uint32_t peer,
                  const blob_attr *attributes);
