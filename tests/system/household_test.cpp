// What an owner types on a router: vantrelle, with the daemon under the service script and on the
// bus.
#include "router.h"
#include "transcript.h"

#include <random>
#include <set>

using namespace harness;

namespace {

struct Household : Router {
    const Upstream upstream{1};

    void SetUp() override {
        Router::SetUp();
        fs::create_directories("/etc/vantrelle");
        configure({{"stats_db_path", "/etc/vantrelle"}});
        start_bus();
    }
    void TearDown() override { run("/etc/init.d/vantrelle stop"); }

    static void start() { run(". " ROUTER_FILES "/owner.sh && service start"); }
};

// --- why -----------------------------------------------------------------------------------------

struct Random {
    std::mt19937 engine{17};

    size_t below(size_t limit) { return engine() % limit; }
    std::string name() {
        static constexpr const char *LABELS[] = {"a",    "b",    "ads",     "t",    "co",
                                                 "red",  "Ads",  "x-ads",   "adsx", "example",
                                                 "shop", "arpa", "in-addr", "_tcp"};
        std::string text = LABELS[below(std::size(LABELS))];
        for (size_t more = below(4); more > 0; more--)
            text.append(".").append(LABELS[below(std::size(LABELS))]);
        return text;
    }
    // Parts of names, so that patterns match each other as well; 3 is no mode.
    std::string list(size_t lines, size_t shortest) {
        static constexpr int MODES[] = {0, 1, 1, 2, 3, 4, 4};
        std::string text;
        for (size_t i = 0; i < lines; i++) {
            const std::string whole = name();
            const std::string part =
                whole.substr(below(2) ? 0 : below(whole.size()), below(2) ? 99 : 6);
            if (part.size() >= shortest)
                text += part + "," + std::to_string(MODES[below(std::size(MODES))]) + "\n";
            if (i % 9 == 8)
                text += "~" + part + "\n";
        }
        return text;
    }
};

TEST_F(Household, WhyAgreesWithTheDaemon) {
    Random random;
    const std::pair<std::string, std::string> lists[] = {
        {"black", random.list(60, 3)},
        {"local_black", random.list(30, 4)},
        {"white", random.list(15, 5)},
        {"local_white", random.list(15, 5)},
        {"local_device", "192.168.8.22,4\n192.168.8.21,4\n"},
        {"blocked_device", "8.21,1\n2.168.8.21,1\n"},
    };
    for (const auto &[name, lines] : lists)
        write_file("/etc/vantrelle/" + name + ".lst", lines);
    start();
    std::string questions;
    std::vector<std::pair<std::string, int>> queries;
    for (int i = 0; i < 1000; i++) {
        const auto &[name, client] =
            queries.emplace_back(random.name(), 20 + (i % 7 < 3 ? i % 7 : 3));
        questions += name + " 192.168.8." + std::to_string(client) + "\n";
    }
    write_file("/tmp/questions", questions);
    // Half of them each, beside each other.
    std::istringstream answers(
        shell("ask() { while read -r name client; do vantrelle why $name $client; done; }; "
              "head -n 500 /tmp/questions | ask >/tmp/first & tail -n 500 /tmp/questions | ask "
              ">/tmp/last; wait; cat /tmp/first /tmp/last"));
    std::set<std::string> reasons;
    for (const auto &[name, client] : queries) {
        const auto reply = Client(client).ask(query(name));
        ASSERT_TRUE(reply);
        const std::string outcome =
            name + (rcode_of(*reply) == 3 ? " is blocked: " : " is forwarded: ");
        std::string answer;
        std::getline(answers, answer);
        EXPECT_EQ(answer.substr(0, outcome.size()), outcome) << client << answer;
        reasons.insert(answer.substr(answer.find(": ") + 2, 9));
    }
    // Each list decided some, and so did the rules beside the lists.
    EXPECT_EQ(reasons.size(), 8U) << testing::PrintToString(reasons);
}

// --- the other commands --------------------------------------------------------------------------

TEST_F(Household, Commands) {
    EXPECT_EQ(shell("vantrelle status"), "daemon          not running\nexit 2\n");
    write_file("/etc/vantrelle/black.lst",
               "ads.example,4\n.ads.example,1\ny.ads,2\nold.example\n~old.example\n");
    start();
    EXPECT_EQ(shell("vantrelle block Games.Example."),
              "games.example is blocked: local_black has \"games.example\" (all of it)\n");
    for (int i = 0; i < 3; i++)
        EXPECT_FALSE(passes("x.games.example"));
    EXPECT_TRUE(passes("xgames.example"));
    for (int time = 0; time < 2; time++) // the second one finds nothing to do
        expect_like(shell("vantrelle allow games.example"),
                    "games.example is forwarded: local_white ...\n");
    EXPECT_TRUE(passes("x.games.example", 21));
    EXPECT_FALSE(passes("x.ads.example"));
    EXPECT_TRUE(passes("\x1b[31m\n.example"));
    expect_transcript("owner");
}

TEST_F(Household, PauseEndsByItself) {
    expect_transcript("owner-pause", ". " ROUTER_FILES "/owner.sh\n");
}

} // namespace
