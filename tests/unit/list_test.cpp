#include "config.h"
#include "list_helpers.h"

#include <climits>
#include <gtest/gtest.h>
#include <syslog.h>
#include <vector>

namespace {

ListResult add(const std::string &item, int opt, List *list) {
    return add_item_copy(item.c_str(), static_cast<int8_t>(opt), list);
}

void add_expiring(const char *frag, int64_t exp_time, List *list) {
    Node *node = create_node(frag, MATCH_CONTAINS);
    node->exp_time = exp_time;
    ASSERT_EQ(add_node(node, list), 1);
}

TEST(ListTest, ModesDecideWhatMatches) {
    const struct {
        const char *pattern;
        int opt;
        std::vector<const char *> matching, others;
    } cases[] = {{"xam", 0, {"xam", "example.com", "my.xam"}, {"eXample.com", "xa", ""}},
                 {"ample.com", 1, {"ample.com", "example.com"}, {"ample.com.", "Ample.com", "com"}},
                 {"ab", 1, {"abcab"}, {"abc"}},
                 {"ex", 2, {"ex", "example.com"}, {"my.ex", "Ex", "e"}},
                 {"ex.com", 4, {"ex.com"}, {"Ex.com", "ex.co", "ex.com.", "an.ex.com"}},
                 {"same", 3, {}, {"same"}},
                 {"same", -1, {}, {"same"}}};
    for (const auto &[pattern, opt, matching, others] : cases) {
        const TestList list;
        ASSERT_EQ(add(pattern, opt, list), LIST_OK);
        for (const char *key : matching)
            EXPECT_EQ(found(key, list), pattern) << key;
        for (const char *key : others)
            EXPECT_EQ(found(key, list), "-") << pattern << " mode " << opt << " in " << key;
    }
}

TEST(ListTest, ItemsAreRefusedOrLinkedInOrderAndRemovedByText) {
    const TestList list;
    const struct {
        const char *item;
        int opt;
        ListResult result;
        const char *chain;
    } added[] = {{"bbb.example", 4, LIST_OK, "bbb.example:4 "},
                 {"bbb.example", 0, LIST_EXISTS, "bbb.example:4 "},
                 {"aaa.example", 1, LIST_OK, "bbb.example:4 aaa.example:1 "},
                 {"www.aaa.example", 2, LIST_EXISTS, "bbb.example:4 aaa.example:1 "},
                 {"ads\nrest\n", 0, LIST_OK, "ads:0 bbb.example:4 aaa.example:1 "},
                 {"xyz", 3, LIST_OK, "ads:0 xyz:3 bbb.example:4 aaa.example:1 "},
                 {"# x", 0, LIST_EMPTY_ITEM, "ads:0 xyz:3 bbb.example:4 aaa.example:1 "},
                 {"\nx", 4, LIST_OK, ":4 ads:0 xyz:3 bbb.example:4 aaa.example:1 "},
                 {"xyz", 4, LIST_OK, ":4 ads:0 xyz:3 xyz:4 bbb.example:4 aaa.example:1 "}};
    for (const auto &step : added) {
        EXPECT_EQ(add(step.item, step.opt, list), step.result) << step.item;
        EXPECT_EQ(chain(list), step.chain);
    }
    EXPECT_EQ(add_item_copy(nullptr, 0, list), LIST_EMPTY_ITEM);
    EXPECT_EQ(found("", list), "");
    EXPECT_EQ(found("bbb.example.ads", list), "ads"); // the shortest of two
    EXPECT_EQ(remove_item("XYZ", list), LIST_NOT_FOUND);
    const std::pair<const char *, const char *> removed[] = {
        {"", "ads:0 xyz:3 xyz:4 bbb.example:4 aaa.example:1 "},
        {"xyz", "ads:0 xyz:4 bbb.example:4 aaa.example:1 "}, // the first, whatever its mode
        {"bbb.example", "ads:0 xyz:4 aaa.example:1 "},
        {"aaa.example", "ads:0 xyz:4 "},
        {"xyz", "ads:0 "},
        {"ads", ""}};
    for (const auto &[item, left] : removed) {
        EXPECT_EQ(remove_item(item, list), LIST_OK);
        EXPECT_EQ(chain(list), left);
    }
    EXPECT_EQ(get_list_size(list), 0);
    char line[] = "one\r\ntwo\n";
    EXPECT_EQ(add_item(line, 0, list), LIST_OK);
    EXPECT_EQ(found("one\r", list), "one\r");
    const TestList none(nullptr);
    EXPECT_EQ(found("a", none), "-");
    EXPECT_EQ(add("a", 0, none), LIST_INSERT_FAILED);
    EXPECT_EQ(remove_item("a", none), LIST_IS_NULL);
}

TEST(ListTest, PagesCountFromOne) {
    const TestList list;
    for (char c = 'a'; c < 'a' + 20; c++)
        ASSERT_EQ(add(std::string(3, c), 4, list), LIST_OK);
    const struct {
        int start, count, first, size;
    } cases[] = {{3, 10, 2, 10},          {18, 10, 17, 3},          {0, 10, 0, 9},
                 {21, 5, 0, 0},           {1, INT_MAX, 0, 20},      {-5, 10, 0, 4},
                 {5, -1, 0, 0},           {INT_MIN, INT_MIN, 0, 0}, {0, 0, 0, 0},
                 {INT_MAX, INT_MAX, 0, 0}};
    for (const auto &[start, count, first, size] : cases) {
        const TestList page(get_sub_list(list, start, count));
        std::string expected;
        for (int i = first; i < first + size; i++)
            expected += std::string(3, static_cast<char>('a' + i)) + ":4 ";
        EXPECT_EQ(chain(page), expected) << start << ", " << count;
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
    add_expiring("aa", 1, list);
    add_expiring("bb", time(nullptr) + 1000, list);
    ASSERT_EQ(add("cccccc", 4, list), LIST_OK);
    EXPECT_EQ(found("aa bb", list), "bb");
    EXPECT_EQ(chain(list), "bb:0 cccccc:4 ");
    // The node behind an expired one is tested even if it has expired too.
    const TestList pair;
    add_expiring("ee", 1, pair);
    add_expiring("ff", 1, pair);
    EXPECT_EQ(found("ff", pair), "ff");
    EXPECT_EQ(found("ff", pair), "-");
    EXPECT_EQ(get_list_size(pair), 0);
    // A long list takes up its index when the last expiring node has gone.
    for (int i = 0; i < 100; i++)
        ASSERT_EQ(add(std::to_string(i) + "n", 4, list), LIST_OK);
    EXPECT_EQ(list->index, nullptr);
    ASSERT_EQ(remove_item("bb", list), LIST_OK);
    EXPECT_EQ(found("77n", list), "77n");
    EXPECT_NE(list->index, nullptr);
}

TEST(ListTest, TracesFollowTheirFlags) {
    const TestList list;
    for (const auto &[item, opt] : {std::pair("zz", 4), {"yy", 2}, {"xx", 1}, {"ww", 0}})
        ASSERT_EQ(add(item, opt, list), LIST_OK);
    const auto traces = [&list](int debug, int debug_sql, int priorities) {
        const int mask = setlogmask(priorities);
        oDNS.debug = debug;
        oDNS.debug_sql = debug_sql;
        testing::internal::CaptureStderr();
        openlog("t", LOG_PERROR, LOG_LOCAL0);
        find_in_list("a.ww", list, 1, nullptr);
        openlog("t", 0, LOG_LOCAL0);
        closelog();
        oDNS.debug = oDNS.debug_sql = 0;
        setlogmask(mask);
        return testing::internal::GetCapturedStderr();
    };
    EXPECT_EQ(traces(0, 1, LOG_UPTO(LOG_DEBUG)),
              "t: Check Match: zz (4)\nt: Check Match: yy (2)\n"
              "t: Check a.ww Begins With yy\nt: Check Match: xx (1)\n"
              "t: Check Match: ww (0)\nt: Found any match: ww\n");
    EXPECT_EQ(traces(1, 0, LOG_MASK(LOG_DEBUG)),
              "t: Check a.ww ends with xx\nt: Check ww contains a.ww\n");
    EXPECT_EQ(traces(0, 0, LOG_UPTO(LOG_DEBUG)), "");
}

} // namespace
