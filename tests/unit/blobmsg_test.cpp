// Messages and their JSON form, checked against transcripts of the real library, and what must hold
// for bytes that no library ever wrote.
#include "hex.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <nlohmann/json.hpp>
#include <vector>

extern "C" { // last: their macro `fallthrough` breaks other headers
#include <libubox/blobmsg_json.h>
}

using nlohmann::json;

namespace {

using Bytes = std::string;

json vectors(const char *kind) {
    return json::parse(std::ifstream(TEST_DATA "/captures/34_blobmsg_vectors.json"))[kind];
}

// A message under construction that frees itself.
struct Message : blob_buf {
    Message() : blob_buf{} { blob_buf_init(this, 0); }
    Message(const Message &) = delete;
    ~Message() { blob_buf_free(this); }
};

blob_attr *attr_in(Bytes &bytes) {
    return reinterpret_cast<blob_attr *>(bytes.data());
}

std::string format(blob_attr *attr, int indent) {
    const std::unique_ptr<char, decltype(&std::free)> text(
        blobmsg_format_json_indent(attr, true, indent), &std::free);
    return text.get();
}

enum blobmsg_type type_number(const std::string &name) {
    static const char *const names[] = {"UNSPEC", "ARRAY", "TABLE", "STRING", "INT64",
                                        "INT32",  "INT16", "INT8",  "DOUBLE", "CAST_INT64"};
    const auto *const at = std::find(std::begin(names), std::end(names), name);
    return static_cast<enum blobmsg_type>(at - names);
}

TEST(Blobmsg, PrintsAsRecorded) {
    for (const json &vector : vectors("encode")) {
        Bytes message = from_hex(vector["hex"]);
        EXPECT_EQ(format(attr_in(message), -1), vector["json_compact"]) << vector;
        EXPECT_EQ(format(attr_in(message), 0), vector["json_indented"]) << vector;
    }
}

TEST(Blobmsg, ParsesAsRecorded) {
    for (const json &vector : vectors("parse")) {
        SCOPED_TRACE(vector["note"].get<std::string>());
        std::vector<blobmsg_policy> policy;
        for (const json &entry : vector["policy"]) {
            const auto *name = entry[0].get_ptr<const std::string *>();
            policy.push_back({name ? name->c_str() : nullptr, type_number(entry[1])});
        }
        Bytes data = from_hex(vector["data_hex"]);
        std::vector<blob_attr *> found(policy.size(), attr_in(data));
        const auto parse =
            vector["function"] == "blobmsg_parse" ? blobmsg_parse : blobmsg_parse_array;
        EXPECT_EQ(parse(policy.data(), static_cast<int>(policy.size()), found.data(), data.data(),
                        static_cast<unsigned>(data.size())),
                  vector["result"]);
        json offsets = json::array();
        for (blob_attr *attr : found)
            offsets.push_back(attr ? json(reinterpret_cast<char *>(attr) - data.data()) : json());
        EXPECT_EQ(offsets, vector["found_at_offset"]);
    }
}

bool add_json(Message &message, const std::string &text) {
    return blobmsg_add_json_from_string(&message, text.c_str());
}

TEST(Blobmsg, ReadsJsonAsRecorded) {
    for (const json &vector : vectors("json_to_blobmsg")) {
        Message message;
        EXPECT_TRUE(add_json(message, vector["text"])) << vector;
        const Bytes bytes(reinterpret_cast<char *>(message.head), blob_raw_len(message.head));
        EXPECT_EQ(bytes, from_hex(vector["hex"])) << vector;
    }
}

TEST(Blobmsg, BoundsNesting) {
    const auto nested = [](size_t levels) {
        return "{\"a\":" + std::string(levels, '[') + std::string(levels, ']') + "}";
    };
    Message message, deep;
    EXPECT_TRUE(add_json(message, nested(31)));
    EXPECT_FALSE(add_json(message, nested(32)));
    EXPECT_FALSE(add_json(message, nested(100000)));
    std::vector<void *> nests(100000);
    for (void *&nest : nests)
        nest = blobmsg_open_table(&deep, nullptr);
    for (; !nests.empty(); nests.pop_back())
        blobmsg_close_table(&deep, nests.back());
    EXPECT_LT(format(deep.head, -1).size(), 1000u); // printed down to some level only
}

TEST(Blobmsg, RejectsWhatItsLengthsCannotHold) {
    Message message;
    const std::string name(70000, 'n'), value(0x1000000, 'x');
    EXPECT_EQ(blobmsg_add_string(&message, name.c_str(), "v"), -1);
    EXPECT_EQ(blobmsg_add_string(&message, "b", value.c_str()), -1);
    EXPECT_EQ(blob_raw_len(message.head), sizeof(blob_attr));
}

} // namespace
