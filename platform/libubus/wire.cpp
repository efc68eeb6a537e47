#include "wire.h"

namespace wire {

size_t outer_length(uint32_t id_len) {
    size_t length = be32_to_cpu(id_len) & BLOB_ATTR_LEN_MASK;
    return length >= sizeof(blob_attr) && length <= UBUS_MAX_MSGLEN ? length : 0;
}

Attributes parse(blob_attr *outer, size_t length) {
    static constexpr auto FORM = [](unsigned type) { return blob_attr_info{type, 0, 0, nullptr}; };
    static constexpr std::array<blob_attr_info, UBUS_ATTR_MAX> FORMS{
        FORM(BLOB_ATTR_UNSPEC), FORM(BLOB_ATTR_INT32),  FORM(BLOB_ATTR_STRING),
        FORM(BLOB_ATTR_INT32),  FORM(BLOB_ATTR_STRING), FORM(BLOB_ATTR_INT32),
        FORM(BLOB_ATTR_NESTED), FORM(BLOB_ATTR_NESTED), FORM(BLOB_ATTR_INT32),
        FORM(BLOB_ATTR_INT8),   FORM(BLOB_ATTR_INT8),   FORM(BLOB_ATTR_NESTED),
        FORM(BLOB_ATTR_STRING), FORM(BLOB_ATTR_STRING),
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
