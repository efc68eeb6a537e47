#include "wire.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>

namespace wire {

bool set_address(sockaddr_un &address, const char *path) {
    address = {};
    address.sun_family = AF_UNIX;
    if (strlen(path) >= sizeof(address.sun_path)) {
        errno = ENAMETOOLONG;
        return false;
    }
    memcpy(address.sun_path, path, strlen(path) + 1);
    return true;
}

size_t outer_length(uint32_t id_len) {
    size_t length = be32_to_cpu(id_len) & BLOB_ATTR_LEN_MASK;
    return length >= sizeof(blob_attr) && length <= UBUS_MAX_MSGLEN ? length : 0;
}

// A payload of this form and of any length.
static constexpr blob_attr_info form(unsigned type) {
    return {type, 0, 0, nullptr};
}

Attributes parse(blob_attr *outer, size_t length) {
    static constexpr std::array<blob_attr_info, UBUS_ATTR_MAX> FORMS{
        form(BLOB_ATTR_UNSPEC), form(BLOB_ATTR_INT32),  form(BLOB_ATTR_STRING),
        form(BLOB_ATTR_INT32),  form(BLOB_ATTR_STRING), form(BLOB_ATTR_INT32),
        form(BLOB_ATTR_NESTED), form(BLOB_ATTR_NESTED), form(BLOB_ATTR_INT32),
        form(BLOB_ATTR_INT8),   form(BLOB_ATTR_INT8),   form(BLOB_ATTR_NESTED),
        form(BLOB_ATTR_STRING), form(BLOB_ATTR_STRING),
    };
    Attributes found;
    blob_parse_untrusted(outer, length, found.data(), FORMS.data(), UBUS_ATTR_MAX);
    return found;
}

uint32_t number(const blob_attr *attr) {
    return attr ? blob_get_u32(attr) : 0;
}

const char *text(const blob_attr *attr) {
    return attr ? blob_get_string(attr) : nullptr;
}

} // namespace wire
