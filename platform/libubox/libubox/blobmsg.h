// Typed and named fields on top of attributes: a field is an extended attribute whose id is its
// type and whose payload starts with the name: 16 bits of length, the name, a zero byte and padding
// to a multiple of 4. A message is a sequence of fields in a plain attribute, such as the head of a
// `blob_buf`.
#pragma once

#include "blob.h"

#include <stdarg.h>

#define BLOBMSG_ALIGN 2
#define BLOBMSG_PADDING(len) (((len) + (1 << BLOBMSG_ALIGN) - 1) & ~((1 << BLOBMSG_ALIGN) - 1))

enum blobmsg_type {
    BLOBMSG_TYPE_UNSPEC, // JSON's null; in policies: any type
    BLOBMSG_TYPE_ARRAY,
    BLOBMSG_TYPE_TABLE,
    BLOBMSG_TYPE_STRING,
    BLOBMSG_TYPE_INT64,
    BLOBMSG_TYPE_INT32,
    BLOBMSG_TYPE_INT16,
    BLOBMSG_TYPE_INT8,
    BLOBMSG_TYPE_DOUBLE,
    __BLOBMSG_TYPE_LAST,
    BLOBMSG_TYPE_LAST = __BLOBMSG_TYPE_LAST - 1,
    BLOBMSG_TYPE_BOOL = BLOBMSG_TYPE_INT8,
    BLOBMSG_CAST_INT64 = __BLOBMSG_TYPE_LAST // in policies only: any integer type
};

struct blobmsg_hdr {
    uint16_t namelen; // big-endian, without the zero byte
    uint8_t name[];
} __packed;

struct blobmsg_policy {
    const char *name; // null: matches nothing
    enum blobmsg_type type;
};

static inline int blobmsg_hdrlen(unsigned int namelen) {
    return (int)BLOBMSG_PADDING(sizeof(struct blobmsg_hdr) + namelen + 1);
}

static inline uint16_t blobmsg_namelen(const struct blobmsg_hdr *hdr) {
    return be16_to_cpu(hdr->namelen);
}

// Bytes of payload before the data: 0 without a name header, and never more than there are.
static inline size_t blobmsg_data_offset_(const struct blob_attr *attr) {
    size_t len = blob_len(attr);
    if (!blob_is_extended(attr))
        return 0;
    if (len < sizeof(struct blobmsg_hdr))
        return len;
    size_t offset = (size_t)blobmsg_hdrlen(blobmsg_namelen((struct blobmsg_hdr *)blob_data(attr)));
    return offset < len ? offset : len;
}

static inline const char *blobmsg_name(const struct blob_attr *attr) {
    if (!blob_is_extended(attr) || blob_len(attr) <= sizeof(struct blobmsg_hdr))
        return "";
    return (const char *)((struct blobmsg_hdr *)blob_data(attr))->name;
}

static inline int blobmsg_type(const struct blob_attr *attr) {
    return (int)blob_id(attr);
}

static inline void *blobmsg_data(const struct blob_attr *attr) {
    return attr ? (char *)blob_data(attr) + blobmsg_data_offset_(attr) : NULL;
}

static inline size_t blobmsg_data_len(const struct blob_attr *attr) {
    return attr ? blob_len(attr) - blobmsg_data_offset_(attr) : 0;
}

static inline size_t blobmsg_len(const struct blob_attr *attr) {
    return blobmsg_data_len(attr);
}

// Whether a field is well formed: its header lies inside and the data have the form of its type
// (contents of arrays and tables are not examined). `name`: its name must not be empty. The _len
// form also checks that the field lies within `len` bytes.
bool blobmsg_check_attr(const struct blob_attr *attr, bool name);
bool blobmsg_check_attr_len(const struct blob_attr *attr, bool name, size_t len);

// Zeroes `tb` and stores in tb[i] the first field with the name and type of policy[i]. 0; -1 at the
// first malformed field (what was found before stays); -EINVAL without data.
int blobmsg_parse(const struct blobmsg_policy *policy, int policy_len, struct blob_attr **tb,
                  void *data, unsigned int len);
// The same by position: tb[i] is the next element of policy[i]'s type. 0, or -1.
int blobmsg_parse_array(const struct blobmsg_policy *policy, int policy_len, struct blob_attr **tb,
                        void *data, unsigned int len);

// Adders return 0, or -1 with the message unchanged. A null name is the empty name.
int blobmsg_add_field(struct blob_buf *buf, int type, const char *name, const void *data,
                      unsigned int len);
void *blobmsg_open_nested(struct blob_buf *buf, const char *name, bool array);

static inline int blobmsg_add_double(struct blob_buf *buf, const char *name, double val) {
    uint64_t bits;
    memcpy(&bits, &val, sizeof(bits));
    bits = cpu_to_be64(bits);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_DOUBLE, name, &bits, sizeof(bits));
}
static inline int blobmsg_add_u8(struct blob_buf *buf, const char *name, uint8_t val) {
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT8, name, &val, sizeof(val));
}
static inline int blobmsg_add_u16(struct blob_buf *buf, const char *name, uint16_t val) {
    val = cpu_to_be16(val);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT16, name, &val, sizeof(val));
}
static inline int blobmsg_add_u32(struct blob_buf *buf, const char *name, uint32_t val) {
    val = cpu_to_be32(val);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT32, name, &val, sizeof(val));
}
static inline int blobmsg_add_u64(struct blob_buf *buf, const char *name, uint64_t val) {
    val = cpu_to_be64(val);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT64, name, &val, sizeof(val));
}
static inline int blobmsg_add_string(struct blob_buf *buf, const char *name, const char *string) {
    return blobmsg_add_field(buf, BLOBMSG_TYPE_STRING, name, string,
                             (unsigned int)strlen(string) + 1);
}
// Copies a field with its name and type.
static inline int blobmsg_add_blob(struct blob_buf *buf, struct blob_attr *attr) {
    return blobmsg_add_field(buf, blobmsg_type(attr), blobmsg_name(attr), blobmsg_data(attr),
                             (unsigned int)blobmsg_data_len(attr));
}

static inline void *blobmsg_open_array(struct blob_buf *buf, const char *name) {
    return blobmsg_open_nested(buf, name, true);
}
static inline void *blobmsg_open_table(struct blob_buf *buf, const char *name) {
    return blobmsg_open_nested(buf, name, false);
}
static inline void blobmsg_close_array(struct blob_buf *buf, void *cookie) {
    blob_nest_end(buf, cookie);
}
static inline void blobmsg_close_table(struct blob_buf *buf, void *cookie) {
    blob_nest_end(buf, cookie);
}
static inline int blobmsg_buf_init(struct blob_buf *buf) {
    return blob_buf_init(buf, BLOBMSG_TYPE_TABLE);
}

// Getters do not check the type; the parsers have.
static inline uint8_t blobmsg_get_u8(struct blob_attr *attr) {
    return (uint8_t)blob_read_number_(blobmsg_data(attr), 1);
}
static inline bool blobmsg_get_bool(struct blob_attr *attr) {
    return blobmsg_get_u8(attr) != 0;
}
static inline uint16_t blobmsg_get_u16(struct blob_attr *attr) {
    return (uint16_t)blob_read_number_(blobmsg_data(attr), 2);
}
static inline uint32_t blobmsg_get_u32(struct blob_attr *attr) {
    return (uint32_t)blob_read_number_(blobmsg_data(attr), 4);
}
static inline uint64_t blobmsg_get_u64(struct blob_attr *attr) {
    return blob_read_number_(blobmsg_data(attr), 8);
}
static inline double blobmsg_get_double(struct blob_attr *attr) {
    uint64_t bits = blobmsg_get_u64(attr);
    double val;
    memcpy(&val, &bits, sizeof(val));
    return val;
}
static inline char *blobmsg_get_string(struct blob_attr *attr) {
    return (char *)blobmsg_data(attr);
}
// Any integer type, widened; other types give 0.
static inline int64_t blobmsg_cast_s64(struct blob_attr *attr) {
    switch (blobmsg_type(attr)) {
    case BLOBMSG_TYPE_INT64:
        return (int64_t)blobmsg_get_u64(attr);
    case BLOBMSG_TYPE_INT32:
        return (int32_t)blobmsg_get_u32(attr);
    case BLOBMSG_TYPE_INT16:
        return (int16_t)blobmsg_get_u16(attr);
    case BLOBMSG_TYPE_INT8:
        return (int8_t)blobmsg_get_u8(attr);
    default:
        return 0;
    }
}
static inline uint64_t blobmsg_cast_u64(struct blob_attr *attr) {
    switch (blobmsg_type(attr)) {
    case BLOBMSG_TYPE_INT64:
        return blobmsg_get_u64(attr);
    case BLOBMSG_TYPE_INT32:
        return blobmsg_get_u32(attr);
    case BLOBMSG_TYPE_INT16:
        return blobmsg_get_u16(attr);
    case BLOBMSG_TYPE_INT8:
        return blobmsg_get_u8(attr);
    default:
        return 0;
    }
}

// Steps through the members of a table or array field, or of a message; a null `attr` has none.
#define blobmsg_for_each_attr(pos, attr, rem)                                                      \
    for (rem = blobmsg_data_len(attr), pos = (struct blob_attr *)blobmsg_data(attr);               \
         blob_fits_(pos, rem); rem -= blob_pad_len(pos), pos = blob_next(pos))
