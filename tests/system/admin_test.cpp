// The administration object, seen through the bus: every reply of the command-line client, and the
// daemon's behaviour around it.
#include "bus.h"
#include "database.h"

#include <fnmatch.h>
#include <sys/resource.h>

using namespace harness;

namespace {

constexpr char database[] = "/etc/vantrelle/vantrelle.db";

struct Admin : BusTest {};

// One run of the client. Its exit status under a script is 256 - the status of the call.
struct Call {
    const char *method;
    std::string arguments;
    int exit_status;
    std::string output; // a pattern for the JSON text and what follows on standard error

    void run() const {
        SCOPED_TRACE(method + " "s + arguments);
        std::vector<std::string> words{"-S", "call", "vantrelle", method};
        if (!arguments.empty())
            words.push_back(arguments);
        Process client(BUS_CLIENT, words);
        EXPECT_EQ(client.wait(), exit_status);
        EXPECT_EQ(fnmatch(output.c_str(), client.output().c_str(), 0), 0) << client.output();
    }
};

std::string message(const std::string &text) {
    return "{\"message\":\"" + text + "\"}\n";
}

std::string page(const std::string &max, const std::string &records, const std::string &items) {
    return R"({"max_records":")" + max + R"(","records":")" + records + R"(","list_items":{)" +
           items + "}}\n";
}

// An edit that waits for another process ends with the daemon, and says what it could not do.
TEST_F(Admin, AShutdownEndsAnEditsWait) {
    start();
    const Holder other(database, "begin immediate");
    Connection connection;
    connection.start("add", R"({"list":"bl","pattern":"late.example"})");
    connection.serve(300);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(daemon->stop(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(3500));
    EXPECT_EQ(log_priority("SQL error inserting list key late.example into local_black: "
                           "database is locked"),
              3);
}

// The object is on the bus before the lists are there; a call waits for them.
TEST_F(Admin, AnEditDuringTheStartIsKept) {
    std::optional<Holder> other(std::in_place, database, "begin exclusive");
    Process client("/bin/sh", {"-c", BUS_CLIENT " -t 10 wait_for vantrelle; " BUS_CLIENT
                                                R"( call vantrelle add '{"list":"bl","option":"4",)"
                                                R"("pattern":"early.example"}')"});
    const std::jthread end([&] {
        EXPECT_EQ(client.wait(1500), -1) << "there is no database yet";
        other.reset();
    });
    start();
    EXPECT_EQ(client.wait(), 0);
    EXPECT_EQ(rcode_of(Client().ask(query("early.example")).value()), 3);
    EXPECT_EQ(read_rows(database, "select frag, opt, disabled from local_black"),
              "early.example|4|0\n");
}

} // namespace

TEST_F(Admin, EditsAndPagesThroughLists) {
    start();
    const auto edit = [](const char *list, const std::string &pattern, const char *option = "4") {
        return R"({"list":")"s + list + R"(","option":")" + option + R"(","pattern":")" + pattern +
               "\"}";
    };
    const auto added = [](const std::string &pattern, const char *list) {
        return message("Successfully added <B>" + pattern + "</B> to <B>" + list + "</B> list");
    };
    const auto removed = [](const char *pattern, const char *list) {
        return message("Successfully removed <B>"s + pattern + "</B> from <B>" + list +
                       "</B> list");
    };
    const auto absent = [](const char *pattern, const char *list) {
        return message("Error: <B>"s + pattern + "</B> does not exist in <B>" + list + "</B> list");
    };
    const std::string longest(5000, 'x'),
        exists = "Error: <B>x.ads.example</B> already exists in <B>Black</B> list",
        no_item = "Error: Cannot add empty or NULL item to list";
    const Call calls[] = {
        {"add", edit("bl", "ads.example", "1"), 0, added("ads.example", "Black")},
        {"add", edit("bl", "x.ads.example", "1"), 2, message(exists)},
        {"add", R"({"list":"bl","pattern":"zz\ncut"})", 0, added("zz", "Black")},
        {"add", edit("wl", "100%% %n%s" + longest), 0, added("100% %n%s" + longest, "White")},
        {"add", edit("bd", "192.168.8.23"), 0, added("192.168.8.23", "Unknown")},
        {"add", edit("ad", "192.168.8.24"), 0, added("192.168.8.24", "Device")},
        {"add", edit("xx", "a"), 0, added("a", "Black")},
        {"add", edit("ad", "#a"), 3, message(no_item)},
        {"add", "", 0, added("(unknown)", "Black")},
        {"remove", edit("wl", "absent"), 7, absent("absent", "White")},
        {"add", edit("bl", "~zz", "260"), 0, added("~zz", "Black")}, // disables the row
        {"remove", edit("bl", "2"), 0, removed("2", "Black")}, // the row's number, not the pattern
        {"remove", edit("bl", "2"), 7, absent("2", "Black")},
        {"remove", edit("bl", ""), 7, absent("", "Black")},
        {"list", R"({"list":"wl","start":"1","count":"5"})", 0,
         page("1", "1", R"("1":"100%% %n%s)" + longest + '"')},
        {"list", R"({"list":"bd","start":"1","count":"5"})", 0, page("0", "0", "")},
        {"list", R"({"list":"bl","start":1,"count":"2147483647"})", 0,
         page("2", "2", R"("1":"~zz","2":"ads.example")")},
        {"list", "", 0, page("0", "0", "")},
        {"nine", "", 3, ""},
    };
    // A deferred answer comes after a second, not before and not much later.
    auto shortest = std::chrono::steady_clock::duration::max();
    for (const Call &call : calls) {
        const auto begin = std::chrono::steady_clock::now();
        call.run();
        if (*call.method == 'a' || *call.method == 'r')
            shortest = std::min(shortest, std::chrono::steady_clock::now() - begin);
    }
    EXPECT_NEAR(std::chrono::duration<double>(shortest).count(), 1.25, 0.25);
    EXPECT_FALSE(passes("www.ads.example"));
    for (const bool listed : {true, false}) { // of 23 as blocked, of 24 as excluded from blocking
        EXPECT_NE(passes("plain.example", 23), listed);
        EXPECT_EQ(passes("www.ads.example", 24), listed);
        if (listed) {
            Call{"remove", edit("bd", "192.168.8.23"), 0, removed("192.168.8.23", "Unknown")}.run();
            Call{"remove", edit("ad", "192.168.8.24"), 0, removed("192.168.8.24", "Device")}.run();
        }
    }
    EXPECT_EQ(daemon->stop(), 0);
    EXPECT_EQ(read_rows(database, "select * from local_black union all select * from local_device"),
              "1|ads.example|1|0\n2|zz|-1|1\n1|192.168.8.24|4|1\n");
}

TEST_F(Admin, APageTellsHowManyOfItsRecordsFitIntoTheMessage) {
    constexpr int listed = 5000, fit = 4098;
    auto pattern = [](int number) {
        return std::string(225, 'x') + std::to_string(10000 + number);
    };
    std::string file;
    for (int number = 1; number <= listed; number++)
        file += pattern(number) + ",4\n";
    write_file("/etc/vantrelle/local_black.lst", file);
    start();
    Call{"list", R"({"list":"bl","start":"1","count":"5000"})", 0,
         page("5000", std::to_string(fit), "*,\"4098\":\"" + pattern(fit) + '"')}
        .run();
    EXPECT_EQ(log_priority("List page cut to 4098 records, no more fit into a message"),
              LOG_WARNING);
}

TEST_F(Admin, ReportsStatusAndSettings) {
    start({{"port", "65589"}, {"log_level", "6"}, {"board", "b1"}});
    run("ip neigh add 192.168.8.77 lladdr 00:11:22:33:44:55 dev apcli0");
    const Call calls[] = {
        {"ping", "", 0, message("Ping Reply")},
        {"clients", "", 0, "{\"clients\":{\"0\":\"192.168.8.77\"}}\n"},
        {"get_config", "", 0,
         R"({"config":{"dns1":"10.53.0.1","dns2":"10.53.0.2","dns3":"10.53.0.3",)"
         R"("dns4":"10.53.0.4","dns_timeout":2000,"dns_port":53,"threads":5,"log_level":6,)"
         R"("interface":"apcli0","job_queue_length":0,"disabled":0,"track":1,"remote_log":0}})"
         "\n"},
        {"stats", "", 0,
         R"({"stats":{"name":"Vantrelle-22AABBCC","version":"2.03a","board_version":"b1","count":1,)"
         R"("blocked":0,"block_rate":0.000000,"resets":0,"errors":0,"bl":0,"main_bl":0,"wl":0,)"
         R"("main_wl":0,"time":"[ 12][0-9]:[0-5][0-9]:[0-5][0-9]"}})"
         "\n"},
    };
    for (const Call &call : calls)
        call.run();
}

TEST_F(Admin, StoredSettingsSurviveARestart) {
    start({{"dns_timeout", "100"}});
    // Numbers are stored as signed 16 bits, and then as if they were unsigned.
    Call{"set_config", R"({"loglevel":"-1","disabled":"40000","track":"65537","remote_log":"-1"})",
         0, message("Successfully updated DNS configuration")}
        .run();
    for (const char *option : {"log_level '4294967295'", "disabled '4294941760'",
                               "record_traffic '1'", "log_remote '4294967295'"})
        EXPECT_NE(
            (read_file("/etc/config/vantrelle") + read_file("/etc/config/system")).find(option),
            std::string::npos)
            << option;
    const char *settings = R"({"dns1":"10.53.0.3","dns2":"10.53.0.2","dns3":"10.53.0.1",)"
                           R"("dns4":"%%","loglevel":"7","disabled":"1","remote_log":"1"})";
    Call{"set_config", settings, 0, message("Successfully updated DNS configuration")}.run();
    EXPECT_TRUE(read_file("/etc/config/system").ends_with("\toption log_remote '1'\n\n"));
    const std::string stored = read_file("/etc/config/vantrelle");
    Upstream third(3);
    EXPECT_TRUE(passes("a.example"));
    // A writer that fails ends the chain and leaves the running settings alone.
    unlink("/etc/config/vantrelle");
    Call{"set_config", R"({"dns1":"10.53.0.4"})", 1, message("Error updating DNS configuration")}
        .run();
    EXPECT_TRUE(passes("b.example"));
    EXPECT_EQ(third.count(), 2U) << "the new address is in use at once, and still is";
    EXPECT_EQ(daemon->stop(), 0);
    write_file("/etc/config/vantrelle", stored);
    start_daemon();
    Call{"get_config", "", 0,
         R"({"config":{"dns1":"10.53.0.3","dns2":"10.53.0.2","dns3":"10.53.0.1","dns4":"%%",)"
         R"("dns_timeout":100,"dns_port":53,"threads":5,"log_level":7,"interface":"apcli0",)"
         R"("job_queue_length":0,"disabled":1,"track":1,"remote_log":1}})"
         "\n"}
        .run();
}

// What waits for the address in use moves when that address changes, and nothing else happens.
TEST_F(Admin, ANewAddressHoldsForQueriesThatWait) {
    start({{"concurrent_queries", "300"}, {"dns_timeout", "20000"}});
    upstream.reset();
    const Socket silent("10.53.0.1", 53);
    const Upstream next(2);
    const Client client;
    const size_t timed_out = log_count("timed out");
    for (uint16_t id = 1; id <= 50; id++)
        client.send(query("a.example", id));
    sockaddr_in from{};
    std::optional<Bytes> last;
    for (int count = 0; count < 50; count++)
        last = silent.receive(3000, &from);
    ASSERT_TRUE(last);
    Call{"set_config",
         R"({"dns1":"10.53.0.2","dns2":"10.53.0.2","dns3":"10.53.0.3","dns4":"10.53.0.4"})", 0,
         message("Successfully updated DNS configuration")}
        .run();
    silent.send_to(*Upstream::echo(*last), from);
    std::map<uint16_t, int> answers;
    for (int count = 0; count < 50; count++)
        answers[id_of(client.receive().value_or(""))]++;
    EXPECT_EQ(answers.size(), 50U);
    EXPECT_FALSE(client.receive(100));
    EXPECT_EQ(next.count(), 50U);
    EXPECT_EQ(log_count("Switching") + log_count("timed out") - timed_out, 0U);
}

TEST_F(Admin, ABusThatEndsTakesNothingWithIt) {
    start();
    daemon->signal(SIGINT); // the event loop of the bus thread must not swallow it
    EXPECT_EQ(daemon->wait(), 128 + SIGINT);
    start_daemon();
    for (const int end : {SIGTERM, SIGKILL}) {
        bus->signal(end);
        EXPECT_EQ(bus->wait(), end == SIGTERM ? 0 : 128 + end);
        EXPECT_TRUE(passes("gone.example"));
        start_bus();
        // The daemon looks for no new bus, only one that starts anew is on it.
        Call{"ping", "", 4, ""}.run();
        EXPECT_TRUE(passes("back.example"));
        EXPECT_EQ(daemon->stop(), 0);
        start_daemon();
        Call{"ping", "", 0, message("Ping Reply")}.run();
    }
    EXPECT_EQ(daemon->stop(), 0);
    bus.reset();
    PrimedDaemon alone;
    EXPECT_TRUE(passes("a.example"));
    expect_logged(3, {"Failed to connect to UBUS socket. Admin is disabled"});
}

TEST_F(Admin, WithoutDescriptorsQueriesAreStillAnswered) {
    start({{"dns_timeout", "100"}});
    const auto limit_to = [this](size_t count) {
        const rlimit limit{count, 4096};
        ASSERT_EQ(prlimit(daemon->pid(), RLIMIT_NOFILE, &limit, nullptr), 0);
    };
    Connection connection;
    const std::string numbers = "/proc/" + std::to_string(daemon->pid()) + "/fd/";
    size_t none = 0; // the lowest number that is free
    while (fs::exists(numbers + std::to_string(none)))
        none++;
    const size_t open = daemon->descriptors();
    for (const size_t limit : {none, size_t{1024}}) {
        limit_to(limit);
        Client().send(query("silent.example"));
        // The upstream socket is replaced under the number that it had.
        EXPECT_TRUE(passes("a.example"));
        for (const char *method : {"clients", "set_config"})
            EXPECT_EQ(connection.call(method, R"({"dns1":"10.53.0.1"})") == 0, limit > none);
    }
    EXPECT_EQ(log_count("Response timed out"), 2U);
    for (int i = 0; i < 1000; i++)
        ASSERT_EQ(connection.call("clients"), 0);
    EXPECT_EQ(daemon->descriptors(), open) << "calls leave none behind, failed ones neither";
#ifndef __SANITIZE_ADDRESS__ // which needs descriptors itself when the process ends
    // Without even that one the daemon can only start anew, which is its supervisor's business.
    limit_to(3);
    Client().send(query("silent.example"));
    EXPECT_EQ(daemon->wait(), 1);
    EXPECT_EQ(log_priority("Cannot open upstream DNS connection"), 2);
#endif
}
