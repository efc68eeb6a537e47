// Arbitrary bytes as a message from the bus and as JSON text: nothing is read outside them, and
// what the JSON reader accepts can be printed and read again.
#include "fuzz.h"

#include <memory>
#include <vector>

extern "C" {
#include <libubox/blobmsg_json.h>
}

namespace {

using Text = std::unique_ptr<char, decltype(&std::free)>;

void read_message(blob_attr *message, size_t size) {
    static const blobmsg_policy policy[] = {
        {"a", BLOBMSG_TYPE_STRING}, {"b", BLOBMSG_TYPE_UNSPEC}, {"c", BLOBMSG_CAST_INT64}};
    static const blob_attr_info info[] = {{BLOB_ATTR_NESTED, 8, 64, nullptr},
                                          {BLOB_ATTR_INT32, 0, 0, nullptr},
                                          {BLOB_ATTR_STRING, 0, 0, nullptr}};
    blob_attr *found[3];
    blob_parse_untrusted(message, size, found, info, 3);
    blobmsg_parse(policy, 3, found, message, static_cast<unsigned int>(size));
    for (blob_attr *field : found)
        if (field && blobmsg_type(field) == BLOBMSG_TYPE_STRING)
            check(std::strlen(blobmsg_get_string(field)) < blobmsg_data_len(field));
    blobmsg_parse_array(policy, 3, found, message, static_cast<unsigned int>(size));
    if (!blobmsg_check_attr_len(message, false, size))
        return;
    for (const bool list : {false, true})
        Text(blobmsg_format_json_indent(message, list, list ? 0 : -1), &std::free);
}

void read_text(const std::string &text) {
    blob_buf message = {}, again = {};
    blob_buf_init(&message, 0);
    blob_buf_init(&again, 0);
    if (blobmsg_add_json_from_string(&message, text.c_str())) {
        Text printed(blobmsg_format_json(message.head, true), &std::free);
        // Not everything printed is JSON: a member with an empty name is printed without it.
        if (blobmsg_add_json_from_string(&again, printed.get()))
            check(std::strcmp(printed.get(),
                              Text(blobmsg_format_json(again.head, true), &std::free).get()) == 0);
    } else {
        check(blob_raw_len(message.head) == sizeof(blob_attr));
    }
    blob_buf_free(&message);
    blob_buf_free(&again);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // A block of exactly this size, so that a sanitizer sees every step outside.
    std::vector<uint8_t> copy(data, data + size);
    read_message(reinterpret_cast<blob_attr *>(copy.data()), size);
    read_text(std::string(text_of(data, size)));
    return 0;
}
