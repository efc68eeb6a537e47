// What an owner types on a router: vantrelle, with the daemon under the service script and on the
// bus.
#include "router.h"

#include <random>
#include <set>
#include <sstream>

#include <fnmatch.h>

using namespace harness;

namespace {

// What a command of the router's shell prints, with its exit status behind it unless that is 0.
std::string shell(const std::string &command) {
    Process process("/bin/sh", {"-c", command});
    const int status = process.wait(100'000);
    return process.output() + (status ? "exit " + std::to_string(status) + "\n" : "");
}

void expect_output(const std::string &command, const std::string &pattern) {
    const std::string output = shell(command);
    EXPECT_EQ(fnmatch(pattern.c_str(), output.c_str(), 0), 0) << command << "\n" << output;
}

struct Household : Router {
    const Upstream upstream{1};
    std::optional<Process> bus;

    void SetUp() override {
        Router::SetUp();
        fs::create_directories("/var/run/ubus");
        fs::create_directories("/etc/vantrelle");
        unlink("/var/run/ubus/ubus.sock");
        write_file("/etc/config/system", "config system\n\toption log_remote '0'\n");
        configure({{"stats_db_path", "/etc/vantrelle"}});
        bus.emplace("ubusd", std::vector<std::string>{});
        ASSERT_TRUE(eventually([] { return fs::exists("/var/run/ubus/ubus.sock"); }));
    }
    void TearDown() override { run("/etc/init.d/vantrelle stop"); }

    static void service(const std::string &action) {
        run("/etc/init.d/vantrelle " + action + " && ubus -t 20 wait_for vantrelle");
        ASSERT_TRUE(
            eventually([] { return Client(29).ask(query("first.example")).has_value(); }, 20000));
    }
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
    const struct {
        const char *name;
        std::string lines;
    } lists[] = {
        {"black", random.list(60, 3)},        {"local_black", random.list(30, 4)},
        {"white", random.list(15, 5)},        {"local_white", random.list(15, 5)},
        {"local_device", "192.168.8.22,4\n"}, {"blocked_device", "8.21,1\n2.168.8.21,1\n"},
    };
    for (const auto &[name, lines] : lists)
        write_file("/etc/vantrelle/"s + name + ".lst", lines);
    service("start");
    std::string questions;
    std::vector<std::pair<std::string, int>> queries;
    for (int i = 0; i < 1000; i++) {
        const auto &[name, client] =
            queries.emplace_back(random.name(), 20 + (i % 7 < 3 ? i % 7 : 3));
        questions += name + " 192.168.8." + std::to_string(client) + "\n";
    }
    write_file("/tmp/questions", questions);
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
    expect_output("vantrelle status", "daemon          not running\nexit 2\n");
    write_file("/etc/vantrelle/black.lst",
               "ads.example,4\n.ads.example,1\nold.example\n~old.example\n");
    service("start");
    expect_output("vantrelle block Games.Example.",
                  "games.example is blocked: local_black has \"games.example\" (all of it)\n");
    EXPECT_FALSE(passes("x.games.example"));
    EXPECT_TRUE(passes("xgames.example"));
    for (int time = 0; time < 2; time++) // the second one finds nothing to do
        expect_output("vantrelle allow games.example",
                      "games.example is forwarded: local_white *\n");
    EXPECT_TRUE(passes("x.games.example", 21));
    for (int i = 0; i < 3; i++)
        EXPECT_FALSE(passes("x.ads.example"));
    EXPECT_TRUE(passes("\x1b[31m.example"));
    expect_output("vantrelle why vantrelle", "* it is the router's own name\n");
    expect_output("vantrelle why $(ubus -S call vantrelle stats | cut -d '\"' -f 6).LOCA",
                  "* own name\n");
    expect_output("vantrelle status",
                  "daemon *running, version *\nfiltering *on\nqueries * 4 of them blocked\n"
                  "servers *\nlocal_white *2 entries\nwhite *0 entries\nlocal_black *0 entries\n"
                  "black *2 entries\nlocal_device *0 entries\nblocked_device *0 entries\n");
    expect_output("vantrelle top blocked", "* pattern\n       3  black *.ads.example\n*");
    expect_output("vantrelle top names 2", "* name\n*\n*\n");
    expect_output("vantrelle top names", "*  ?[31m.example\n*");
    expect_output("vantrelle top clients",
                  "*client\n* 2  4 *192.168.8.20\n* 1  0 *192.168.8.21\n*");
    const char *refused[] = {"block com",
                             "block 'a b.example'",
                             "block 'a\".example'",
                             "why \"x'y\"",
                             "allow 'a\nb.example'",
                             "why a..b",
                             "why -- -x.example",
                             "why .",
                             "why x.example 1.2.3",
                             "top names 1x",
                             "top names 9999999999",
                             "pause 0",
                             "pause 1441",
                             "why",
                             "resume now"};
    for (const std::string command : refused)
        expect_output("vantrelle " + command, "*exit 1\n");
    run("mv /tmp/router/sqlite3 /tmp/router/hidden");
    expect_output("vantrelle status",
                  "daemon *servers *needs sqlite3, * package sqlite3-cli\nexit 3\n");
    expect_output("vantrelle why x.example", "*sqlite3-cli\nexit 3\n");
    run("mv /tmp/router/hidden /tmp/router/sqlite3");
}

// A minute has three seconds here.
TEST_F(Household, PauseEndsByItself) {
    run("sed -i 's/\\* 60/* 3/' /usr/sbin/vantrelle");
    write_file("/etc/vantrelle/black.lst", "ads.example,1\n");
    service("start");
    const auto is_filtering = [] { return !passes("ads.example"); };
    const auto stored = [] { return shell("uci get vantrelle.@main[0].disabled"); };
    expect_output("vantrelle pause 2", "paused for 2 min\n");
    EXPECT_FALSE(is_filtering());
    expect_output("vantrelle status", "*filtering *paused, on again in ? min\n*");
    expect_output("vantrelle why ads.example", "ads.example is forwarded: filtering is paused*\n");
    service("restart");
    EXPECT_FALSE(is_filtering());
    EXPECT_TRUE(eventually(is_filtering, 8000));
    EXPECT_EQ(stored(), "0\n");
    EXPECT_TRUE(eventually([] { return !fs::exists("/etc/vantrelle/paused"); }));

    // A second pause replaces the first; resumed, neither of them comes back to end anything.
    expect_output("(flock 9; sleep 3; echo first) 9>/var/run/vantrelle.lock & sleep 1; "
                  "vantrelle pause 1 && vantrelle pause 3",
                  "first\npaused*paused for 3 min\n");
    EXPECT_FALSE(eventually(is_filtering, 4000));
    expect_output("vantrelle resume", "filtering is on\n");
    EXPECT_TRUE(is_filtering());

    // The daemon stores what it can before it refuses.
    expect_output(
        "mv /etc/config/system /tmp; vantrelle pause; echo $?; mv /tmp/system /etc/config",
        "*refused\n4\n");
    EXPECT_EQ(stored(), "0\n");
    ASSERT_TRUE(eventually([] { return Client(29).ask(query("first.example")).has_value(); }));
    EXPECT_TRUE(is_filtering());

    // The power fails: what is in memory is gone, and the boot is another one.
    run("vantrelle pause 1440 && /etc/init.d/vantrelle stop && sed -i 's/^./x/' "
        "/etc/vantrelle/paused");
    EXPECT_EQ(stored(), "1\n");
    service("start");
    EXPECT_TRUE(is_filtering());
    EXPECT_EQ(stored(), "0\n");

    // What the owner switched off for good is no pause.
    configure({{"stats_db_path", "/etc/vantrelle"}, {"disabled", "1"}});
    service("restart");
    expect_output("vantrelle pause", "*off already*\nexit 4\n");
    EXPECT_FALSE(eventually(is_filtering, 1000));
    expect_output("vantrelle status", "*filtering *off\n*");
    // The daemon does not run when it comes back.
    run("/etc/init.d/vantrelle stop && vantrelle resume");
    EXPECT_EQ(stored(), "0\n");
}

} // namespace
