// Messages and their JSON form, checked against transcripts of the real library, and what must hold
// for bytes that no library ever wrote.
#include "hex.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <nlohmann/json.hpp>
#include <vector>

extern "C" { // last: their macro `fallthrough` breaks other headers
#include <libubox/avl.h>
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
    explicit Message(int id = 0) : blob_buf{} { blob_buf_init(this, id); }
    Message(const Message &) = delete;
    ~Message() { blob_buf_free(this); }
    Bytes bytes() const { return Bytes(reinterpret_cast<char *>(head), blob_raw_len(head)); }
};

blob_attr *attr_in(Bytes &bytes) {
    return reinterpret_cast<blob_attr *>(bytes.data());
}

std::string format(blob_attr *attr, int indent, bool list = true) {
    const std::unique_ptr<char, decltype(&std::free)> text(
        blobmsg_format_json_indent(attr, list, indent), &std::free);
    return text.get();
}

enum blobmsg_type type_number(const std::string &name) {
    static const char *const names[] = {"UNSPEC", "ARRAY", "TABLE", "STRING", "INT64",
                                        "INT32",  "INT16", "INT8",  "DOUBLE", "CAST_INT64"};
    const auto *const at = std::find(std::begin(names), std::end(names), name);
    return static_cast<enum blobmsg_type>(at - names);
}

// Adds a [type, name, value] triple the way a program does; 0 if all of it was added.
int add(blob_buf *to, const json &field) {
    const std::string name_text = field[1].is_null() ? "" : field[1];
    const char *name = field[1].is_null() ? nullptr : name_text.c_str();
    const json &value = field[2];
    int failures = 0;
    switch (const int type = type_number(field[0])) {
    case BLOBMSG_TYPE_STRING:
        return blobmsg_add_string(to, name, value.get_ref<const std::string &>().c_str());
    case BLOBMSG_TYPE_INT64:
        return blobmsg_add_u64(to, name, value);
    case BLOBMSG_TYPE_INT32:
        return blobmsg_add_u32(to, name, value);
    case BLOBMSG_TYPE_INT16:
        return blobmsg_add_u16(to, name, value);
    case BLOBMSG_TYPE_INT8:
        return blobmsg_add_u8(to, name, value);
    case BLOBMSG_TYPE_DOUBLE: // the bits of NaN are given, since MIPS has others for its own
        return blobmsg_add_double(to, name,
                                  value == "nan" ? std::bit_cast<double>(uint64_t{0x7FF8} << 48)
                                  : value.is_string() ? -HUGE_VAL
                                                      : value.get<double>());
    case BLOBMSG_TYPE_UNSPEC:
        return blobmsg_add_field(to, BLOBMSG_TYPE_UNSPEC, name, nullptr, 0);
    default:
        void *nest = blobmsg_open_nested(to, name, type == BLOBMSG_TYPE_ARRAY);
        for (const json &member : value)
            failures += add(to, member);
        blobmsg_close_table(to, nest);
        return failures;
    }
}

} // namespace

TEST(Blobmsg, EncodesAndPrintsAsRecorded) {
    for (const json &vector : vectors("encode")) {
        SCOPED_TRACE(vector["note"].get<std::string>());
        Bytes expected = from_hex(vector["hex"]);
        Message message(static_cast<uint8_t>(expected[0]));
        for (const json &field : vector["fields"])
            EXPECT_EQ(add(&message, field), 0);
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

TEST(Blobmsg, ReadsJsonAsRecorded) {
    for (const json &vector : vectors("json_to_blobmsg")) {
        Message message;
        const std::string text = vector["text"];
        EXPECT_TRUE(blobmsg_add_json_from_string(&message, text.c_str()));
        EXPECT_EQ(message.bytes(), from_hex(vector["hex"])) << text;
    }
}

TEST(Blobmsg, BoundsNestingAndRefusesBrokenText) {
    const auto nested = [](size_t levels) {
        return "{\"a\":" + std::string(levels, '[') + std::string(levels, ']') + "}";
    };
    const std::string accepted[] = {"{\"a\":[1,],}", nested(31), "{\"a\":-Infinity} x",
                                    "//c\n{'a':\"\\ud800\\ud83d\\ude00\"/**/}"};
    const std::string refused[] = {nested(32),     nested(100000), "{,}",        "{\"a\":[,]}",
                                   "{\"a\":1e5.}", "{\"a\":-}",    "{\"a\":1x}", "{\"a\":\"\\u12",
                                   "/*{}",         "{\"a\":0x10}", "{\"a\":tru}"};
    Message message;
    for (const std::string &text : accepted)
        EXPECT_TRUE(blobmsg_add_json_from_string(&message, text.c_str())) << text;
    const Bytes before = message.bytes();
    for (const std::string &text : refused)
        EXPECT_FALSE(blobmsg_add_json_from_string(&message, text.c_str())) << text;
    EXPECT_EQ(message.bytes(), before);
    EXPECT_EQ(format(static_cast<blob_attr *>(blob_data(message.head)), 0, false),
              "\"a\": [\n\t1\n]");
    EXPECT_NE(format(message.head, -1).find("\"a\":\"\xef\xbf\xbd\xf0\x9f\x98\x80\""),
              std::string::npos);

    Message deep;
    std::vector<void *> nests(100000);
    for (void *&nest : nests)
        nest = blobmsg_open_table(&deep, nullptr);
    for (; !nests.empty(); nests.pop_back())
        blobmsg_close_table(&deep, nests.back());
    EXPECT_LT(format(deep.head, -1).size(), 1000u); // printed down to some level only
}

TEST(Blobmsg, KeepsTheMessageWhenAnAddDoesNotFit) {
    Message message;
    const std::string part(0x7fff00, 'x'), name(70000, 'n');
    EXPECT_EQ(blobmsg_add_string(&message, "a", part.c_str()), 0);
    const Bytes before = message.bytes();
    EXPECT_EQ(blobmsg_add_string(&message, name.c_str(), "v"), -1);
    EXPECT_EQ(blobmsg_add_string(&message, "b", (part + part).c_str()), -1);
    EXPECT_FALSE(blobmsg_add_json_from_string(
        &message, ("{\"b\":1,\"c\":{\"d\":\"" + part + part + "\"}}").c_str()));
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

TEST(Avl, KeepsOrderAndRefusesDuplicates) {
    const auto compare = [](const void *k1, const void *k2, void *) {
        return std::strcmp(static_cast<const char *>(k1), static_cast<const char *>(k2));
    };
    avl_tree tree;
    avl_init(&tree, compare, false, nullptr);
    const char *const keys[] = {"b", "c", "a", "b"};
    avl_node nodes[4] = {};
    for (int i = 0; i < 4; i++) {
        nodes[i].key = keys[i];
        EXPECT_EQ(avl_insert(&tree, &nodes[i]), i == 3 ? -1 : 0);
    }
    EXPECT_EQ(avl_find(&tree, "b"), &nodes[0]);
    avl_delete(&tree, &nodes[0]);
    EXPECT_EQ(avl_find(&tree, "b"), nullptr);
    EXPECT_EQ(tree.list_head.next, &nodes[2].list);
    EXPECT_EQ(tree.count, 2u);
}
