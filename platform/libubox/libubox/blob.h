// Attributes: the binary trees that bus messages are made of. An attribute is one big-endian word
// `id_len` (bit 31: extended; bits 30-24: id; bits 23-0: length, these 4 bytes included) and a
// payload. Attributes start at multiples of 4; the zero bytes in between are counted in the length
// of the containing attribute only.
//
// Readers never look outside an attribute whose raw length lies within valid memory; that this is
// so is checked by blob_parse_untrusted() and by the iteration macros for each child.
#pragma once

#include "utils.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define BLOB_COOKIE 0x01234567

// Forms of plain payloads, as readers expect them. They are never on the wire.
enum {
    BLOB_ATTR_UNSPEC,
    BLOB_ATTR_NESTED,
    BLOB_ATTR_BINARY,
    BLOB_ATTR_STRING,
    BLOB_ATTR_INT8,
    BLOB_ATTR_INT16,
    BLOB_ATTR_INT32,
    BLOB_ATTR_INT64,
    BLOB_ATTR_DOUBLE,
    BLOB_ATTR_LAST
};

#define BLOB_ATTR_ID_MASK 0x7f000000
#define BLOB_ATTR_ID_SHIFT 24
#define BLOB_ATTR_LEN_MASK 0x00ffffff
#define BLOB_ATTR_ALIGN 4
#define BLOB_ATTR_EXTENDED 0x80000000

struct blob_attr {
    uint32_t id_len; // big-endian
    char data[];
} __packed;

struct blob_attr_info {
    unsigned int type; // BLOB_ATTR_*
    unsigned int minlen;
    unsigned int maxlen; // both with the 4 bytes of `id_len`; 0: no limit
    bool (*validate)(const struct blob_attr_info *, struct blob_attr *);
};

// A message under construction; zeroed before first use. `head` is the attribute being filled.
// Every add may move the memory: attribute pointers into it are invalid afterwards.
struct blob_buf {
    struct blob_attr *head;
    bool (*grow)(struct blob_buf *buf, int minlen);
    int buflen;
    void *buf;
};

// The big-endian number in `size` bytes. Payloads may have any alignment, hence byte by byte.
static inline uint64_t blob_read_number_(const void *from, size_t size) {
    const unsigned char *bytes = (const unsigned char *)from;
    uint64_t value = 0;
    for (size_t i = 0; i < size; i++)
        value = value << 8 | bytes[i];
    return value;
}

static inline void *blob_data(const struct blob_attr *attr) {
    return (void *)attr->data;
}

static inline unsigned int blob_id(const struct blob_attr *attr) {
    return (be32_to_cpu(attr->id_len) & BLOB_ATTR_ID_MASK) >> BLOB_ATTR_ID_SHIFT;
}

static inline bool blob_is_extended(const struct blob_attr *attr) {
    return (be32_to_cpu(attr->id_len) & BLOB_ATTR_EXTENDED) != 0;
}

// Length with the 4 bytes of `id_len`, without padding.
static inline size_t blob_raw_len(const struct blob_attr *attr) {
    return be32_to_cpu(attr->id_len) & BLOB_ATTR_LEN_MASK;
}

// Length of the payload; 0 for a malformed attribute that is shorter than its own header.
static inline size_t blob_len(const struct blob_attr *attr) {
    size_t raw = blob_raw_len(attr);
    return raw < sizeof(struct blob_attr) ? 0 : raw - sizeof(struct blob_attr);
}

static inline size_t blob_pad_len(const struct blob_attr *attr) {
    return (blob_raw_len(attr) + BLOB_ATTR_ALIGN - 1) & ~(size_t)(BLOB_ATTR_ALIGN - 1);
}

static inline uint8_t blob_get_u8(const struct blob_attr *attr) {
    return (uint8_t)blob_read_number_(attr->data, 1);
}
static inline uint16_t blob_get_u16(const struct blob_attr *attr) {
    return (uint16_t)blob_read_number_(attr->data, 2);
}
static inline uint32_t blob_get_u32(const struct blob_attr *attr) {
    return (uint32_t)blob_read_number_(attr->data, 4);
}
static inline uint64_t blob_get_u64(const struct blob_attr *attr) {
    return blob_read_number_(attr->data, 8);
}
static inline int8_t blob_get_int8(const struct blob_attr *attr) {
    return (int8_t)blob_get_u8(attr);
}
static inline int16_t blob_get_int16(const struct blob_attr *attr) {
    return (int16_t)blob_get_u16(attr);
}
static inline int32_t blob_get_int32(const struct blob_attr *attr) {
    return (int32_t)blob_get_u32(attr);
}
static inline int64_t blob_get_int64(const struct blob_attr *attr) {
    return (int64_t)blob_get_u64(attr);
}
static inline const char *blob_get_string(const struct blob_attr *attr) {
    return attr->data;
}

// What follows `attr`: its start plus its padded length.
static inline struct blob_attr *blob_next(const struct blob_attr *attr) {
    return (struct blob_attr *)((char *)attr + blob_pad_len(attr));
}

// Starts a new empty message. 0 or -ENOMEM.
int blob_buf_init(struct blob_buf *buf, int id);
void blob_buf_free(struct blob_buf *buf);
// Makes room for `required` more bytes; false when memory or the largest size runs out.
bool blob_buf_grow(struct blob_buf *buf, int required);

// Adders return the new attribute, or null with the message unchanged.
struct blob_attr *blob_new(struct blob_buf *buf, int id, int payload);
struct blob_attr *blob_put(struct blob_buf *buf, int id, const void *ptr, unsigned int len);
// Appends a ready-made attribute (or several) of at least 4 bytes.
struct blob_attr *blob_put_raw(struct blob_buf *buf, const void *ptr, unsigned int len);
// What blob_nest_end() needs to return to the attribute that is being filled now.
static inline void *blob_nest_cookie_(const struct blob_buf *buf) {
    return (void *)(uintptr_t)((char *)buf->head - (char *)buf->buf + BLOB_COOKIE);
}
// Opens a nested attribute and returns a cookie for its end, never null on success.
void *blob_nest_start(struct blob_buf *buf, int id);
void blob_nest_end(struct blob_buf *buf, void *cookie);

// Zeroes `data` and stores the last well-formed child of each id below `max`. Returns the number of
// ids found.
int blob_parse(struct blob_attr *attr, struct blob_attr **data, const struct blob_attr_info *info,
               int max);
// The same for an attribute from elsewhere, of which `attr_len` bytes are at hand; 0 if it is
// longer.
int blob_parse_untrusted(struct blob_attr *attr, size_t attr_len, struct blob_attr **data,
                         const struct blob_attr_info *info, int max);
bool blob_check_type(const void *ptr, unsigned int len, int type);

// A heap copy, or null.
struct blob_attr *blob_memdup(const struct blob_attr *attr);
// Zeroes the bytes between the end of the attribute and the next multiple of 4.
void blob_fill_pad(struct blob_attr *attr);
void blob_set_raw_len(struct blob_attr *attr, unsigned int len);

static inline struct blob_attr *blob_put_string(struct blob_buf *buf, int id, const char *str) {
    return blob_put(buf, id, str, (unsigned int)strlen(str) + 1);
}
static inline struct blob_attr *blob_put_u8(struct blob_buf *buf, int id, uint8_t val) {
    return blob_put(buf, id, &val, sizeof(val));
}
static inline struct blob_attr *blob_put_u16(struct blob_buf *buf, int id, uint16_t val) {
    val = cpu_to_be16(val);
    return blob_put(buf, id, &val, sizeof(val));
}
static inline struct blob_attr *blob_put_u32(struct blob_buf *buf, int id, uint32_t val) {
    val = cpu_to_be32(val);
    return blob_put(buf, id, &val, sizeof(val));
}
static inline struct blob_attr *blob_put_u64(struct blob_buf *buf, int id, uint64_t val) {
    val = cpu_to_be64(val);
    return blob_put(buf, id, &val, sizeof(val));
}
#define blob_put_int8 blob_put_u8
#define blob_put_int16 blob_put_u16
#define blob_put_int32 blob_put_u32
#define blob_put_int64 blob_put_u64

// Whether an attribute at `pos` lies within `rem` bytes and is no shorter than its header.
#define blob_fits_(pos, rem)                                                                       \
    ((rem) >= sizeof(struct blob_attr) && blob_raw_len(pos) >= sizeof(struct blob_attr) &&         \
     blob_pad_len(pos) <= (rem))

// Steps through attributes that lie one after another in `rem` bytes from `attr`, up to the first
// one that does not fit.
#define __blob_for_each_attr(pos, attr, rem)                                                       \
    for (pos = (struct blob_attr *)(attr); blob_fits_(pos, rem);                                   \
         rem -= blob_pad_len(pos), pos = blob_next(pos))

// Steps through the children of `attr`; a null `attr` has none.
#define blob_for_each_attr(pos, attr, rem)                                                         \
    for (rem = (attr) ? blob_len(attr) : 0,                                                        \
        pos = (struct blob_attr *)((attr) ? blob_data(attr) : NULL);                               \
         blob_fits_(pos, rem); rem -= blob_pad_len(pos), pos = blob_next(pos))
