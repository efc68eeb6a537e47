#include "list_helpers.h"

#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;

ListResult add(const std::string &item, int opt, List *list) {
    return add_item_copy(item.c_str(), static_cast<int8_t>(opt), list);
}

json cases(const char *kind) {
    return json::parse(std::ifstream(TEST_DATA "/list.json"))[kind];
}

TEST(ListTest, ModesDecideWhatMatches) {
    for (const json &c : cases("matches")) {
        const std::string pattern = c["pattern"];
        const TestList list;
        ASSERT_EQ(add(pattern, c["mode"], list), LIST_OK);
        for (const std::string key : c["in"])
            EXPECT_EQ(found(key, list), pattern) << key;
        for (const std::string key : c["not in"])
            EXPECT_EQ(found(key, list), "-") << c;
    }
}

TEST(ListTest, ItemsAreLeftOutOrLinkedInOrder) {
    const TestList list;
    for (const json &c : cases("edits")) {
        const std::string item = c.value("add", c.value("remove", ""));
        const ListResult result =
            c.contains("add") ? add(item, c["mode"], list) : remove_item(item.c_str(), list);
        EXPECT_EQ(result, c.value("status", 0)) << c;
        EXPECT_EQ(chain(list), c["chain"]) << c;
    }
    EXPECT_EQ(get_list_size(list), 0);
    EXPECT_EQ(add_item_copy(nullptr, 0, list), LIST_EMPTY_ITEM);
    const TestList none(nullptr);
    EXPECT_EQ(found("a", none), "-");
    EXPECT_EQ(add("a", 0, none), LIST_INSERT_FAILED);
    EXPECT_EQ(remove_item("a", none), LIST_IS_NULL);
}

TEST(ListTest, PagesCountFromOne) {
    const TestList list;
    for (char item = 'a'; item <= 't'; item++)
        ASSERT_EQ(add(std::string(1, item), 4, list), LIST_OK);
    for (const json &c : cases("pages of a, b ... t")) {
        const TestList page(get_sub_list(list, c["start"], c["count"]));
        EXPECT_EQ(chain(page), c["page"]) << c;
    }
    EXPECT_EQ(get_sub_list(nullptr, 1, 1), nullptr);
}

TEST(ListTest, AnIndexBeyond65535Wraps) {
    const TestList list;
    for (int i = 0; i < 65536 + 5; i++) {
        ASSERT_EQ(add(std::to_string(i + 1000000), 4, list), LIST_OK);
        EXPECT_EQ(get_list_size(list), (i + 1) % 65536);
    }
    // The last two before the wrap, and no stop after.
    const TestList page(get_sub_list(list, 65535, 3));
    EXPECT_EQ(chain(page), "1065534:4 1065535:4 ");
}

TEST(ListTest, ExpiredNodesGoWhenALookupMeetsThem) {
    const TestList list;
    const auto add_expiring = [&](const char *frag, int64_t exp_time) {
        Node *node = create_node(frag, MATCH_CONTAINS);
        node->exp_time = exp_time;
        ASSERT_EQ(add_node(node, list), 1);
    };
    add_expiring("aa", time(nullptr)); // this very second
    add_expiring("bb", time(nullptr) + 1000);
    for (int i = 10; i < 70; i++)
        ASSERT_EQ(add(std::to_string(i) + "n", 4, list), LIST_OK);
    EXPECT_EQ(found("aa bb", list), "bb");
    EXPECT_EQ(get_list_size(list), 61);
    // A long list takes up its index when the last expiring node has gone.
    EXPECT_EQ(list->index, nullptr);
    ASSERT_EQ(remove_item("bb", list), LIST_OK);
    EXPECT_EQ(found("33n", list), "33n");
    EXPECT_NE(list->index, nullptr);
}

} // namespace
