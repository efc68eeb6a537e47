extern "C" {
#include <libubox/blobmsg.h>
}

#include <algorithm>
#include <cerrno>
#include <cstring>

// The form of each type's data, by type number.
static constexpr int DATA_FORMS[] = {
    BLOB_ATTR_UNSPEC, BLOB_ATTR_NESTED, BLOB_ATTR_NESTED, BLOB_ATTR_STRING, BLOB_ATTR_INT64,
    BLOB_ATTR_INT32,  BLOB_ATTR_INT16,  BLOB_ATTR_INT8,   BLOB_ATTR_DOUBLE,
};
static_assert(ARRAY_SIZE(DATA_FORMS) == __BLOBMSG_TYPE_LAST);

static const blobmsg_hdr *name_header(const blob_attr *attr) {
    return static_cast<const blobmsg_hdr *>(blob_data(attr));
}

static bool has_well_formed_name(const blob_attr *attr, bool name_needed) {
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

static bool type_matches(int wanted, int type) {
    if (wanted == BLOBMSG_CAST_INT64)
        return type >= BLOBMSG_TYPE_INT64 && type <= BLOBMSG_TYPE_INT8;
    return wanted == BLOBMSG_TYPE_UNSPEC || wanted == type;
}

static bool name_matches(const char *wanted, const blob_attr *attr) {
    const size_t len = blobmsg_namelen(name_header(attr));
    return strlen(wanted) == len && memcmp(wanted, name_header(attr)->name, len) == 0;
}

// Adds a field whose data, of `len` bytes, are zero.
static blob_attr *new_field(blob_buf *buf, int type, const char *name, size_t len) {
    const size_t name_len = name ? strlen(name) : 0;
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
        memcpy(header->name, name, name_len);
    return attr;
}

bool blobmsg_check_attr_len(const blob_attr *attr, bool name, size_t len) {
    if (len < sizeof(*attr) || blob_raw_len(attr) < sizeof(*attr) || blob_raw_len(attr) > len)
        return false;
    return has_well_formed_name(attr, name) && blobmsg_type(attr) <= BLOBMSG_TYPE_LAST &&
           blob_check_type(blobmsg_data(attr), static_cast<unsigned int>(blobmsg_data_len(attr)),
                           DATA_FORMS[blobmsg_type(attr)]);
}

bool blobmsg_check_attr(const blob_attr *attr, bool name) {
    return blobmsg_check_attr_len(attr, name, blob_raw_len(attr));
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

int blobmsg_add_field(blob_buf *buf, int type, const char *name, const void *data,
                      unsigned int len) {
    blob_attr *attr = new_field(buf, type, name, len);
    if (!attr)
        return -1;
    if (len)
        memcpy(blobmsg_data(attr), data, len);
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
