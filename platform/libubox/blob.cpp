extern "C" {
#include <libubox/blob.h>
}

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

static constexpr int MEMORY_STEP = 256;
static constexpr int MAX_MEMORY = BLOB_ATTR_LEN_MASK + 1;

static constexpr size_t padded(size_t len) {
    return (len + BLOB_ATTR_ALIGN - 1) & ~size_t{BLOB_ATTR_ALIGN - 1};
}

static blob_attr *attr_at(const blob_buf *buf, size_t offset) {
    return reinterpret_cast<blob_attr *>(static_cast<char *>(buf->buf) + offset);
}

static size_t offset_of(const blob_buf *buf, const blob_attr *attr) {
    return static_cast<size_t>(reinterpret_cast<const char *>(attr) -
                               static_cast<char *>(buf->buf));
}

static bool grow_on_heap(blob_buf *buf, int more) {
    void *memory = realloc(buf->buf, static_cast<size_t>(buf->buflen) + static_cast<size_t>(more));
    if (!memory)
        return false;
    memset(static_cast<char *>(memory) + buf->buflen, 0, static_cast<size_t>(more));
    buf->buf = memory;
    buf->buflen += more;
    return true;
}

// Writes a zeroed attribute with `payload` bytes at `offset`; it belongs to no other one yet.
static blob_attr *make_attr(blob_buf *buf, size_t offset, int id, size_t payload) {
    if (payload > BLOB_ATTR_LEN_MASK)
        return nullptr;
    const size_t len = sizeof(blob_attr) + payload;
    const size_t end = offset + padded(len);
    if (end > BLOB_ATTR_LEN_MASK)
        return nullptr;
    const auto missing = static_cast<int>(end) - buf->buflen;
    if (missing > 0 && !blob_buf_grow(buf, missing))
        return nullptr;
    blob_attr *attr = attr_at(buf, offset);
    memset(attr, 0, padded(len));
    attr->id_len = cpu_to_be32(static_cast<uint32_t>(id) << BLOB_ATTR_ID_SHIFT & BLOB_ATTR_ID_MASK);
    blob_set_raw_len(attr, static_cast<unsigned int>(len));
    return attr;
}

static bool matches(blob_attr *attr, const blob_attr_info &info) {
    const size_t len = blob_raw_len(attr);
    return blob_check_type(blob_data(attr), static_cast<unsigned int>(blob_len(attr)),
                           static_cast<int>(info.type)) &&
           (!info.minlen || len >= info.minlen) && (!info.maxlen || len <= info.maxlen) &&
           (!info.validate || info.validate(&info, attr));
}

bool blob_buf_grow(blob_buf *buf, int required) {
    if (required < 0 || required > MAX_MEMORY - buf->buflen)
        return false;
    // By half at least, so that long messages are not copied at every step.
    const int wanted = std::clamp(buf->buflen / 2, required, MAX_MEMORY - buf->buflen);
    const int more = (wanted + MEMORY_STEP - 1) / MEMORY_STEP * MEMORY_STEP;
    const size_t head = buf->head ? offset_of(buf, buf->head) : 0;
    if (!(buf->grow ? buf->grow : grow_on_heap)(buf, more))
        return false;
    if (buf->head)
        buf->head = attr_at(buf, head);
    return true;
}

int blob_buf_init(blob_buf *buf, int id) {
    buf->head = nullptr;
    buf->head = make_attr(buf, 0, id, 0);
    return buf->head ? 0 : -ENOMEM;
}

void blob_buf_free(blob_buf *buf) {
    free(buf->buf);
    buf->buf = nullptr;
    buf->head = nullptr;
    buf->buflen = 0;
}

blob_attr *blob_new(blob_buf *buf, int id, int payload) {
    const size_t offset = offset_of(buf, buf->head) + blob_pad_len(buf->head);
    blob_attr *attr = payload < 0 ? nullptr : make_attr(buf, offset, id, size_t(payload));
    if (attr)
        blob_set_raw_len(buf->head,
                         static_cast<unsigned int>(blob_pad_len(buf->head) + blob_pad_len(attr)));
    return attr;
}

blob_attr *blob_put(blob_buf *buf, int id, const void *ptr, unsigned int len) {
    if (len > BLOB_ATTR_LEN_MASK)
        return nullptr;
    blob_attr *attr = blob_new(buf, id, static_cast<int>(len));
    if (attr && len)
        memcpy(attr->data, ptr, len);
    return attr;
}

blob_attr *blob_put_raw(blob_buf *buf, const void *ptr, unsigned int len) {
    if (len < sizeof(blob_attr) || len > BLOB_ATTR_LEN_MASK)
        return nullptr;
    blob_attr *attr = blob_new(buf, 0, static_cast<int>(len - sizeof(blob_attr)));
    if (attr)
        memcpy(attr, ptr, len);
    return attr;
}

void *blob_nest_start(blob_buf *buf, int id) {
    void *cookie = blob_nest_cookie_(buf);
    blob_attr *attr = blob_new(buf, id, 0);
    if (!attr)
        return nullptr;
    buf->head = attr;
    return cookie;
}

void blob_nest_end(blob_buf *buf, void *cookie) {
    if (!cookie) // the nest could not be opened
        return;
    blob_attr *outer = attr_at(buf, reinterpret_cast<uintptr_t>(cookie) - BLOB_COOKIE);
    const size_t end = offset_of(buf, buf->head) + blob_pad_len(buf->head);
    blob_set_raw_len(outer, static_cast<unsigned int>(end - offset_of(buf, outer)));
    buf->head = outer;
}

int blob_parse(blob_attr *attr, blob_attr **data, const blob_attr_info *info, int max) {
    int found = 0;
    std::fill_n(data, max, nullptr);
    blob_attr *child;
    size_t rem;
    blob_for_each_attr(child, attr, rem) {
        const auto id = static_cast<int>(blob_id(child));
        if (id >= max || (info && !matches(child, info[id])))
            continue;
        found += !data[id];
        data[id] = child;
    }
    return found;
}

int blob_parse_untrusted(blob_attr *attr, size_t attr_len, blob_attr **data,
                         const blob_attr_info *info, int max) {
    const bool whole = attr_len >= sizeof(blob_attr) && attr_len >= blob_raw_len(attr);
    return blob_parse(whole ? attr : nullptr, data, info, max);
}

bool blob_check_type(const void *ptr, unsigned int len, int type) {
    switch (type) {
    case BLOB_ATTR_UNSPEC:
    case BLOB_ATTR_NESTED:
    case BLOB_ATTR_BINARY:
        return true;
    case BLOB_ATTR_STRING:
        return len > 0 && static_cast<const char *>(ptr)[len - 1] == '\0';
    case BLOB_ATTR_INT8:
        return len == sizeof(int8_t);
    case BLOB_ATTR_INT16:
        return len == sizeof(int16_t);
    case BLOB_ATTR_INT32:
        return len == sizeof(int32_t);
    case BLOB_ATTR_INT64:
        return len == sizeof(int64_t);
    case BLOB_ATTR_DOUBLE:
        return len >= sizeof(double);
    default:
        return false;
    }
}

blob_attr *blob_memdup(const blob_attr *attr) {
    auto *copy = static_cast<blob_attr *>(calloc(1, padded(sizeof(*attr) + blob_len(attr))));
    if (copy)
        memcpy(copy, attr, sizeof(*attr) + blob_len(attr));
    return copy;
}

void blob_fill_pad(blob_attr *attr) {
    memset(reinterpret_cast<char *>(attr) + blob_raw_len(attr), 0,
           blob_pad_len(attr) - blob_raw_len(attr));
}

void blob_set_raw_len(blob_attr *attr, unsigned int len) {
    const uint32_t others = be32_to_cpu(attr->id_len) & ~uint32_t{BLOB_ATTR_LEN_MASK};
    attr->id_len = cpu_to_be32(others | (len & BLOB_ATTR_LEN_MASK));
}
