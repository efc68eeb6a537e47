// What goes over the bus socket: a stream of messages, each the 8-byte header below and one plain
// attribute of id 0 whose children are the message's attributes (UBUS_ATTR_*). All numbers are
// big-endian. Used by the client library, the bus daemon and programs that look at raw messages.
#pragma once

#include <libubox/blob.h>

// Attributes of a message may take this many bytes, the head of the outer one included.
#define UBUS_MAX_MSGLEN 1048576
#define UBUS_MSG_CHUNK_SIZE 65536

// Ids below UBUS_SYSTEM_OBJECT_MAX belong to the bus itself.
#define UBUS_SYSTEM_OBJECT_EVENT 1
#define UBUS_SYSTEM_OBJECT_ACL 2
#define UBUS_SYSTEM_OBJECT_MONITOR 3
#define UBUS_SYSTEM_OBJECT_MAX 1024

#define UBUS_CLIENT_ID_CHANNEL 1

struct ubus_msghdr {
    uint8_t version; // 0
    uint8_t type;    // UBUS_MSG_*
    uint16_t seq;
    uint32_t peer;
} __attribute__((packed, aligned(4)));

enum ubus_msg_type {
    UBUS_MSG_HELLO,  // first message of the bus: the peer is the client's id
    UBUS_MSG_STATUS, // ends a request
    UBUS_MSG_DATA,   // data of an answer
    UBUS_MSG_PING,
    UBUS_MSG_LOOKUP,
    UBUS_MSG_INVOKE,
    UBUS_MSG_ADD_OBJECT,
    UBUS_MSG_REMOVE_OBJECT,
    UBUS_MSG_SUBSCRIBE,
    UBUS_MSG_UNSUBSCRIBE, // from the bus: a target has gone
    UBUS_MSG_NOTIFY,      // from the bus: subscriptions began or ended
    UBUS_MSG_MONITOR,
    __UBUS_MSG_LAST,
};

enum ubus_msg_attr {
    UBUS_ATTR_UNSPEC,
    UBUS_ATTR_STATUS,
    UBUS_ATTR_OBJPATH,
    UBUS_ATTR_OBJID,
    UBUS_ATTR_METHOD,
    UBUS_ATTR_OBJTYPE,
    UBUS_ATTR_SIGNATURE,
    UBUS_ATTR_DATA,
    UBUS_ATTR_TARGET,
    UBUS_ATTR_ACTIVE,
    UBUS_ATTR_NO_REPLY,
    UBUS_ATTR_SUBSCRIBERS,
    UBUS_ATTR_USER,
    UBUS_ATTR_GROUP,
    UBUS_ATTR_MAX,
};

enum ubus_msg_status {
    UBUS_STATUS_OK,
    UBUS_STATUS_INVALID_COMMAND,
    UBUS_STATUS_INVALID_ARGUMENT,
    UBUS_STATUS_METHOD_NOT_FOUND,
    UBUS_STATUS_NOT_FOUND,
    UBUS_STATUS_NO_DATA,
    UBUS_STATUS_PERMISSION_DENIED,
    UBUS_STATUS_TIMEOUT,
    UBUS_STATUS_NOT_SUPPORTED,
    UBUS_STATUS_UNKNOWN_ERROR,
    UBUS_STATUS_CONNECTION_FAILED,
    UBUS_STATUS_NO_MEMORY,
    UBUS_STATUS_PARSE_ERROR,
    UBUS_STATUS_SYSTEM_ERROR,
    __UBUS_STATUS_LAST,
};
