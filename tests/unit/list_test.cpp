#include "config.h"
#include "list_helpers.h"
#include "log.h"

#include <fstream>
#include <future>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <syslog.h>
#include <thread>

namespace {

using nlohmann::json;

ListResult add(const std::string &item, int opt, List *list) {
    return add_item_copy(item.c_str(), static_cast<int8_t>(opt), list);
}

void add_expiring(const char *frag, int64_t exp_time, List *list) {
    Node *node = create_node(frag, MATCH_CONTAINS);
    node->exp_time = exp_time;
    ASSERT_EQ(add_node(node, list), 1);
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
        std::string items = chain(page);
        std::erase_if(items, [](char each) { return each < 'a'; }); // modes and blanks
        EXPECT_EQ(items, c["page"]) << c;
    }
    EXPECT_EQ(get_sub_list(nullptr, 1, 1), nullptr);
}

TEST(ListTest, APageIsLoggedWhileTheListIsFree) {
    constexpr int patterns = 3000;
    const TestList list;
    ASSERT_EQ(add_node(create_node("#", 4), list), 1);
    for (int i = 1; i < patterns; i++)
        ASSERT_EQ(add(std::to_string(i + 10000), 4, list), LIST_OK);
    // The log goes into a pipe that nobody reads until the lookup is done.
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const UniqueFd error(dup(STDERR_FILENO)), reading(ends[0]);
    dup2(ends[1], STDERR_FILENO);
    close(ends[1]);
    openlog("t", LOG_PERROR, LOG_LOCAL0);
    auto page = std::async([&] { return TestList(get_sub_list(list, 1, patterns)); });
    pollfd full{STDERR_FILENO, POLLOUT, 0};
    for (int i = 0; i < 5000 && poll(&full, 1, 0) == 1; i++)
        usleep(1000);
    auto lookup = std::async([&] { return found("10001", list); });
    EXPECT_EQ(lookup.wait_for(std::chrono::seconds(2)), std::future_status::ready);
    std::thread reader([&] {
        char buffer[4096];
        while (read(reading.get(), buffer, sizeof buffer) > 0)
            continue;
    });
    EXPECT_EQ(get_list_size(page.get()), patterns - 1);
    dup2(error.get(), STDERR_FILENO);
    openlog("t", 0, LOG_LOCAL0);
    closelog();
    reader.join();
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
    add_expiring("aa", time(nullptr), list); // this very second
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

} // namespace
