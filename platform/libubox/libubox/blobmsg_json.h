// JSON text to messages and back. The reader takes more than JSON: see blobmsg_json.cpp.
#pragma once

#include "blobmsg.h"

// The text to print for the value of a field, or null for the usual one.
typedef const char *(*blobmsg_json_format_t)(void *priv, struct blob_attr *attr);

// Appends the members of the JSON object in the text. False, with the message unchanged,
// if it is not a well-formed object or does not fit.
bool blobmsg_add_json_from_string(struct blob_buf *b, const char *str);

// JSON text on the heap. `list`: the contents of `attr` as an object (an array if it is an array
// field); otherwise the field itself with its name. `indent`: level of the text, or < 0 for text on
// one line. `cb` may be null; it is not asked about the outermost list.
char *blobmsg_format_json_with_cb(struct blob_attr *attr, bool list, blobmsg_json_format_t cb,
                                  void *priv, int indent);

static inline char *blobmsg_format_json(struct blob_attr *attr, bool list) {
    return blobmsg_format_json_with_cb(attr, list, NULL, NULL, -1);
}
static inline char *blobmsg_format_json_indent(struct blob_attr *attr, bool list, int indent) {
    return blobmsg_format_json_with_cb(attr, list, NULL, NULL, indent);
}
