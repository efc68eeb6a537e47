// Addresses and message attributes, for the client library and the bus daemon.
#pragma once

extern "C" {
#include "ubusmsg.h"
}
#include <array>
#include <sys/un.h>

namespace wire {

// A message's attributes by UBUS_ATTR_*; null where absent.
using Attributes = std::array<blob_attr *, UBUS_ATTR_MAX>;

// What a message starts with: the header and the head of the outer attribute.
struct Head {
    ubus_msghdr hdr;
    uint32_t outer; // its id_len, big-endian
};
static_assert(sizeof(Head) == 12);

// The address of the bus socket at `path`; false, with errno, when the path is too long.
bool set_address(sockaddr_un &address, const char *path);

// The length of the outer attribute, or 0 if no message may have that length.
size_t outer_length(uint32_t id_len);

// The attributes of `outer`, of which `length` bytes are at hand. Unknown ids and payloads of the
// wrong form are skipped, the last of several with one id counts, and an attribute that does not
// fit ends the message.
Attributes parse(blob_attr *outer, size_t length);

// The number in an attribute; 0 if it is absent.
uint32_t number(const blob_attr *attr);
// The text in an attribute; null if it is absent.
const char *text(const blob_attr *attr);

} // namespace wire
