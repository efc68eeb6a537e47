extern "C" {
#include <libubox/blobmsg.h>
}

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

// The form of each type's data, by type number.
constexpr int data_forms[] = {
    BLOB_ATTR_UNSPEC, BLOB_ATTR_NESTED, BLOB_ATTR_NESTED, BLOB_ATTR_STRING, BLOB_ATTR_INT64,
    BLOB_ATTR_INT32,  BLOB_ATTR_INT16,  BLOB_ATTR_INT8,   BLOB_ATTR_DOUBLE,
};
static_assert(ARRAY_SIZE(data_forms) == __BLOBMSG_TYPE_LAST);

const blobmsg_hdr *name_header(const blob_attr *attr) {
    return static_cast<const blobmsg_hdr *>(blob_data(attr));
}

bool has_well_formed_name(const blob_attr *attr, bool name_needed) {
    if (!blob_is_extended(attr))
        return !name_needed;
    if (blob_len(attr) < sizeof(blobmsg_hdr))
        return false;
    const blobmsg_hdr *header = name_header(attr);
    const unsigned int name_len = blobmsg_namelen(header);
    return (name_len || !name_needed) &&
           static_cast<size_t>(blobmsg_hdrlen(name_len)) <= blob_len(attr) &&
           header->name[name_len] == '\0';
}

bool type_matches(int wanted, int type) {
    if (wanted == BLOBMSG_CAST_INT64)
        return type >= BLOBMSG_TYPE_INT64 && type <= BLOBMSG_TYPE_INT8;
    return wanted == BLOBMSG_TYPE_UNSPEC || wanted == type;
}

bool name_matches(const char *wanted, const blob_attr *attr) {
    const size_t len = blobmsg_namelen(name_header(attr));
    return std::strlen(wanted) == len && std::memcmp(wanted, name_header(attr)->name, len) == 0;
}

// Adds a field whose data, of `len` bytes, are zero.
blob_attr *new_field(blob_buf *buf, int type, const char *name, size_t len) {
    const size_t name_len = name ? std::strlen(name) : 0;
    if (name_len > UINT16_MAX || len > BLOB_ATTR_LEN_MASK)
        return nullptr;
    const int header_len = blobmsg_hdrlen(static_cast<unsigned int>(name_len));
    blob_attr *attr = blob_new(buf, type, header_len + static_cast<int>(len));
    if (!attr)
        return nullptr;
    attr->id_len |= const_cpu_to_be32(BLOB_ATTR_EXTENDED);
    auto *header = static_cast<blobmsg_hdr *>(blob_data(attr));
    header->namelen = cpu_to_be16(name_len);
    if (name_len)
        std::memcpy(header->name, name, name_len);
    return attr;
}

} // namespace

bool blobmsg_check_attr_len(const blob_attr *attr, bool name, size_t len) {
    if (len < sizeof(*attr) || blob_raw_len(attr) < sizeof(*attr) || blob_raw_len(attr) > len)
        return false;
    return has_well_formed_name(attr, name) && blobmsg_type(attr) <= BLOBMSG_TYPE_LAST &&
           blob_check_type(blobmsg_data(attr), static_cast<unsigned int>(blobmsg_data_len(attr)),
                           data_forms[blobmsg_type(attr)]);
}

bool blobmsg_check_attr(const blob_attr *attr, bool name) {
    return blobmsg_check_attr_len(attr, name, blob_raw_len(attr));
}

int blobmsg_check_array_len(const blob_attr *attr, int type, size_t len) {
    if (!blobmsg_check_attr_len(attr, false, len))
        return -1;
    const bool table = blobmsg_type(attr) == BLOBMSG_TYPE_TABLE;
    if (!table && blobmsg_type(attr) != BLOBMSG_TYPE_ARRAY)
        return -1;
    int elements = 0;
    const blob_attr *element;
    size_t rem;
    blobmsg_for_each_attr(element, attr, rem) {
        if (!blobmsg_check_attr_len(element, table, rem) ||
            (type != BLOBMSG_TYPE_UNSPEC && type != blobmsg_type(element)))
            return -1;
        elements++;
    }
    return elements;
}

int blobmsg_check_array(const blob_attr *attr, int type) {
    return blobmsg_check_array_len(attr, type, blob_raw_len(attr));
}

bool blobmsg_check_attr_list_len(const blob_attr *attr, int type, size_t len) {
    return blobmsg_check_array_len(attr, type, len) >= 0;
}

bool blobmsg_check_attr_list(const blob_attr *attr, int type) {
    return blobmsg_check_array(attr, type) >= 0;
}

int blobmsg_parse(const blobmsg_policy *policy, int policy_len, blob_attr **tb, void *data,
                  unsigned int len) {
    std::fill_n(tb, policy_len, nullptr);
    if (!data || !len)
        return -EINVAL;
    blob_attr *attr;
    size_t rem = len;
    __blob_for_each_attr(attr, data, rem) {
        if (!blobmsg_check_attr_len(attr, false, rem))
            return -1;
        if (!blob_is_extended(attr))
            continue;
        // Only the first field of the right name and type counts; two entries may take the same
        // one.
        for (int i = 0; i < policy_len; i++)
            if (!tb[i] && policy[i].name && type_matches(policy[i].type, blobmsg_type(attr)) &&
                name_matches(policy[i].name, attr))
                tb[i] = attr;
    }
    return 0;
}

int blobmsg_parse_array(const blobmsg_policy *policy, int policy_len, blob_attr **tb, void *data,
                        unsigned int len) {
    std::fill_n(tb, policy_len, nullptr);
    blob_attr *attr;
    size_t rem = data ? len : 0;
    int filled = 0;
    __blob_for_each_attr(attr, data, rem) {
        if (filled >= policy_len)
            break;
        if (!blobmsg_check_attr_len(attr, false, rem))
            return -1;
        if (type_matches(policy[filled].type, blobmsg_type(attr)))
            tb[filled++] = attr;
    }
    return 0;
}

int blobmsg_parse_attr(const blobmsg_policy *policy, int policy_len, blob_attr **tb,
                       blob_attr *data) {
    const bool array = data && blob_is_extended(data) && blobmsg_type(data) == BLOBMSG_TYPE_ARRAY;
    return (array ? blobmsg_parse_array
                  : blobmsg_parse)(policy, policy_len, tb, blobmsg_data(data),
                                   static_cast<unsigned int>(blobmsg_data_len(data)));
}

int blobmsg_add_field(blob_buf *buf, int type, const char *name, const void *data,
                      unsigned int len) {
    blob_attr *attr = new_field(buf, type, name, len);
    if (!attr)
        return -1;
    if (len)
        std::memcpy(blobmsg_data(attr), data, len);
    return 0;
}

void *blobmsg_open_nested(blob_buf *buf, const char *name, bool array) {
    void *cookie = blob_nest_cookie_(buf);
    blob_attr *attr = new_field(buf, array ? BLOBMSG_TYPE_ARRAY : BLOBMSG_TYPE_TABLE, name, 0);
    if (!attr)
        return nullptr;
    buf->head = attr;
    return cookie;
}

int blobmsg_vprintf(blob_buf *buf, const char *name, const char *format, va_list arg) {
    va_list again;
    va_copy(again, arg);
    const int len = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    blob_attr *attr =
        len < 0 ? nullptr : new_field(buf, BLOBMSG_TYPE_STRING, name, static_cast<size_t>(len) + 1);
    if (!attr)
        return -1;
    std::vsnprintf(static_cast<char *>(blobmsg_data(attr)), static_cast<size_t>(len) + 1, format,
                   arg);
    return 0;
}

int blobmsg_printf(blob_buf *buf, const char *name, const char *format, ...) {
    va_list arg;
    va_start(arg, format);
    const int result = blobmsg_vprintf(buf, name, format, arg);
    va_end(arg);
    return result;
}

// A string buffer is a field behind the end of the head attribute that the head does not count yet.
void *blobmsg_alloc_string_buffer(blob_buf *buf, const char *name, unsigned int maxlen) {
    const auto head_len = static_cast<unsigned int>(blob_raw_len(buf->head));
    blob_attr *attr = maxlen < BLOB_ATTR_LEN_MASK
                          ? new_field(buf, BLOBMSG_TYPE_STRING, name, maxlen + 1)
                          : nullptr;
    if (!attr)
        return nullptr;
    blob_set_raw_len(buf->head, head_len);
    return blobmsg_data(attr);
}

void *blobmsg_realloc_string_buffer(blob_buf *buf, unsigned int maxlen) {
    blob_attr *attr = blob_next(buf->head);
    const auto offset = reinterpret_cast<char *>(attr) - static_cast<char *>(buf->buf);
    const size_t header_len =
        static_cast<size_t>(blobmsg_hdrlen(blobmsg_namelen(name_header(attr))));
    const size_t len = sizeof(*attr) + header_len + maxlen + 1;
    const size_t end = static_cast<size_t>(offset) + BLOBMSG_PADDING(len);
    if (maxlen >= BLOB_ATTR_LEN_MASK || end > BLOB_ATTR_LEN_MASK)
        return nullptr;
    const auto missing = static_cast<int>(end) - buf->buflen;
    if (missing > 0 && !blob_buf_grow(buf, missing))
        return nullptr;
    attr = blob_next(buf->head);
    blob_set_raw_len(attr, static_cast<unsigned int>(len));
    return blobmsg_data(attr);
}

void blobmsg_add_string_buffer(blob_buf *buf) {
    blob_attr *attr = blob_next(buf->head);
    auto *text = static_cast<char *>(blobmsg_data(attr));
    const size_t len = strnlen(text, blobmsg_data_len(attr) - 1);
    text[len] = '\0';
    blob_set_raw_len(
        attr, static_cast<unsigned int>(blob_raw_len(attr) - blobmsg_data_len(attr) + len + 1));
    blob_fill_pad(attr);
    blob_set_raw_len(buf->head,
                     static_cast<unsigned int>(blob_pad_len(buf->head) + blob_pad_len(attr)));
}
