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

json data(const std::string &name) {
    return json::parse(std::ifstream(TEST_DATA "/" + name + ".json"));
}

json vectors(const char *kind) {
    return data("captures/34_blobmsg_vectors")[kind];
}

// A message under construction that frees itself.
struct Message : blob_buf {
    explicit Message(int id = 0) : blob_buf{} { blob_buf_init(this, id); }
    Message(const Message &) = delete;
    ~Message() { blob_buf_free(this); }
    Bytes bytes() const { return Bytes(reinterpret_cast<char *>(head), blob_raw_len(head)); }
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

// Adds what `field` holds, the members of a nest one by one; 0 if all of it was added.
int add_copy(blob_buf *to, blob_attr *field) {
    const char *name = blobmsg_name(field);
    const int type = blobmsg_type(field);
    if (type == BLOBMSG_TYPE_INT16) // the only number that no JSON text becomes
        return blobmsg_add_u16(to, name, blobmsg_get_u16(field));
    if (type != BLOBMSG_TYPE_ARRAY && type != BLOBMSG_TYPE_TABLE)
        return blobmsg_add_field(to, type, name, blobmsg_data(field), blobmsg_data_len(field));
    void *nest = blobmsg_open_nested(to, name, type == BLOBMSG_TYPE_ARRAY);
    int failures = 0;
    blob_attr *member;
    size_t rest;
    blobmsg_for_each_attr(member, field, rest) failures += add_copy(to, member);
    blobmsg_close_table(to, nest);
    return failures;
}

TEST(Blobmsg, EncodesAndPrintsAsRecorded) {
    for (const json &vector : vectors("encode")) {
        SCOPED_TRACE(vector["note"].get<std::string>());
        Bytes expected = from_hex(vector["hex"]);
        Message message(static_cast<uint8_t>(expected[0]));
        blob_attr *field;
        size_t rest;
        blob_for_each_attr(field, attr_in(expected), rest) EXPECT_EQ(add_copy(&message, field), 0);
        EXPECT_EQ(message.bytes(), expected);
        EXPECT_EQ(format(attr_in(expected), -1), vector["json_compact"]);
        EXPECT_EQ(format(attr_in(expected), 0), vector["json_indented"]);
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
        EXPECT_EQ(message.bytes(), from_hex(vector["hex"])) << vector;
    }
}

TEST(Blobmsg, ReadsLenientlyAndLeavesRefusedTextsOut) {
    for (const json &c : data("json-texts")) {
        Message message;
        EXPECT_EQ(add_json(message, c["text"]), !c.contains("refused")) << c;
        EXPECT_EQ(format(message.head, -1), c.value("printed", "{}")) << c;
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

TEST(Blobmsg, KeepsTheMessageWhenAnAddDoesNotFit) {
    Message message;
    const std::string half(0x7fff00, 'x'), whole = half + half, name(70000, 'n');
    EXPECT_EQ(blobmsg_add_string(&message, "a", half.c_str()), 0);
    const Bytes before = message.bytes();
    EXPECT_EQ(blobmsg_add_string(&message, name.c_str(), "v"), -1);
    EXPECT_EQ(blobmsg_add_string(&message, "b", whole.c_str()), -1);
    EXPECT_FALSE(add_json(message, "{\"b\":1,\"c\":{\"d\":\"" + whole + "\"}}"));
    EXPECT_TRUE(message.bytes() == before);
    Message largest;
    EXPECT_EQ(blob_new(&largest, 0, 0xfffff8), nullptr); // its length would not fit in 24 bits
    EXPECT_NE(blob_new(&largest, 0, 0xfffff4), nullptr);
}

TEST(Blob, ParsesPlainAttributes) {
    Message message;
    blob_put_u32(&message, 1, 7);
    blob_put_u32(&message, 1, 0xfffffff8); // the last duplicate counts
    blob_put_u8(&message, 2, 1);           // too short for its form
    blob_put(&message, 3, "abc", 3);       // no terminating zero byte
    blob_put_string(&message, 4, "abc");   // longer than allowed
    void *nest = blob_nest_start(&message, 5);
    blob_put_u64(&message, 0, 1);
    blob_nest_end(&message, nest);
    blob_put_u8(&message, 9, 1); // unknown
    const blob_attr_info info[] = {{},
                                   {BLOB_ATTR_INT32, 0, 0, nullptr},
                                   {BLOB_ATTR_INT32, 0, 0, nullptr},
                                   {BLOB_ATTR_STRING, 0, 0, nullptr},
                                   {BLOB_ATTR_STRING, 0, 7, nullptr},
                                   {BLOB_ATTR_NESTED, 16, 16, nullptr}};
    blob_attr *found[6];
    EXPECT_EQ(blob_parse_untrusted(message.head, blob_raw_len(message.head), found, info, 6), 2);
    EXPECT_EQ(blob_get_int32(found[1]), -8);
    EXPECT_EQ(blob_get_u64(static_cast<blob_attr *>(blob_data(found[5]))), 1u);
    EXPECT_TRUE(!found[0] && !found[2] && !found[3] && !found[4]);
    EXPECT_EQ(blob_parse_untrusted(message.head, blob_raw_len(message.head) - 1, found, info, 6),
              0);
    EXPECT_EQ(found[1], nullptr);
}

} // namespace
