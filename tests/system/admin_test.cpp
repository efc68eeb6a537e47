// The administration object, seen through the bus: every reply of the command-line client, and the
// daemon's behaviour around it.
#include "bus.h"
#include "database.h"
#include "transcript.h"

#include <set>

#include <sys/resource.h>

using namespace harness;

namespace {

constexpr char DATABASE[] = "/etc/vantrelle/vantrelle.db";
constexpr char PING[] = BUS_CLIENT " -S call vantrelle ping";
constexpr char PING_REPLY[] = "{\"message\":\"Ping Reply\"}\n";

// The client in the PATH, and a long text.
constexpr char TOOLS[] = "PATH=" BUILT_PROGRAMS ":$PATH; X5000=$(printf %5000s | tr ' ' x)\n";

struct Admin : BusTest {};

// An edit that waits for another process ends with the daemon, and says what it could not do.
TEST_F(Admin, AShutdownEndsAnEditsWait) {
    start();
    const Holder other(DATABASE, "begin immediate");
    Connection connection;
    connection.start("add", R"({"list":"bl","pattern":"late.example"})");
    connection.serve(300);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(daemon->stop(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(4500));
    EXPECT_EQ(log_priority("SQL error inserting list key late.example into local_black: "
                           "database is locked"),
              3);
}

// The object is on the bus before the lists are there; a call waits for them.
TEST_F(Admin, AnEditDuringTheStartIsKept) {
    std::optional<Holder> other(std::in_place, DATABASE, "begin exclusive");
    Process client("/bin/sh", {"-c", BUS_CLIENT " -t 20 wait_for vantrelle; " BUS_CLIENT
                                                R"( call vantrelle add '{"list":"bl","option":"4",)"
                                                R"("pattern":"early.example"}')"});
    const std::jthread end([&] {
        EXPECT_EQ(client.wait(1500), -1) << "there is no database yet";
        other.reset();
    });
    start();
    EXPECT_EQ(client.wait(), 0);
    EXPECT_FALSE(passes("early.example"));
    EXPECT_EQ(read_rows("select frag, opt, disabled from local_black"), "early.example|4|0\n");
}

TEST_F(Admin, EditsAndPagesThroughLists) {
    start();
    Connection connection;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(connection.call("remove", R"({"list":"xx"})"), 0);
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    EXPECT_NEAR(took.count(), 2.0, 1.0) << "edits are answered after a second";
    expect_transcript("admin-lists", TOOLS);
    EXPECT_FALSE(passes("www.ads.example"));
    for (const bool listed : {true, false}) { // of 23 as blocked, of 24 as excluded from blocking
        EXPECT_NE(passes("plain.example", 23), listed);
        EXPECT_EQ(passes("www.ads.example", 24), listed);
        connection.call("remove", R"({"list":"bd","pattern":"192.168.8.23"})");
        connection.call("remove", R"({"list":"ad","pattern":"192.168.8.24"})");
    }
    EXPECT_EQ(daemon->stop(), 0);
    EXPECT_EQ(read_rows("select * from local_black union all select * from local_device"),
              "1|ads.example|1|0\n2|zz|-1|1\n1|192.168.8.24|4|1\n");
}

TEST_F(Admin, APageTellsHowManyOfItsRecordsFitIntoTheMessage) {
    const auto pattern = [](int number) {
        return std::string(225, 'x') + std::to_string(10000 + number);
    };
    std::string file;
    for (int number = 1; number <= 5000; number++)
        file += pattern(number) + ",4\n";
    write_file("/etc/vantrelle/local_black.lst", file);
    start();
    expect_like(
        shell(BUS_CLIENT R"( -S call vantrelle list '{"list":"bl","start":"2","count":"5000"}')"),
        R"({"max_records":"5000","records":"4098","list_items":{"1":"...","4098":")" +
            pattern(4099) + "\"}}\n");
    EXPECT_EQ(log_priority("List page cut to 4098 records, no more fit into a message"),
              LOG_WARNING);
}

TEST_F(Admin, ReportsStatusAndSettings) {
    start({{"port", "65589"}, {"log_level", "6"}, {"board", "b1"}});
    run("ip neigh add 192.168.8.77 lladdr 00:11:22:33:44:55 dev apcli0");
    expect_transcript("admin-status", TOOLS);
}

TEST_F(Admin, StoredSettingsSurviveARestart) {
    start({{"dns_timeout", "1000"}});
    const Upstream third(3);
    expect_transcript("admin-settings", TOOLS);
    EXPECT_TRUE(passes("a.example"));
    EXPECT_EQ(third.count(), 1U) << "the new address is in use at once, and still is";
    EXPECT_EQ(daemon->stop(), 0);
    start_daemon();
    expect_like(shell(BUS_CLIENT " -S call vantrelle get_config"),
                R"({"config":{"dns1":"10.53.0.3","dns2":"10.53.0.2","dns3":"10.53.0.1",)"
                R"("dns4":"%%","dns_timeout":1000,"dns_port":53,"threads":5,"log_level":7,)"
                R"("interface":"apcli0","job_queue_length":0,"disabled":1,"track":1,)"
                R"("remote_log":1}})"
                "\n");
}

// What waits for the address in use moves when that address changes, and nothing else happens.
TEST_F(Admin, ANewAddressHoldsForQueriesThatWait) {
    start({{"concurrent_queries", "300"}, {"dns_timeout", "20000"}});
    upstream.reset();
    const Socket silent("10.53.0.1", 53);
    const Upstream next(2);
    const Client client;
    for (uint16_t id = 1; id <= 50; id++)
        client.send(query("a.example", id));
    sockaddr_in from{};
    std::optional<Bytes> last;
    for (int count = 0; count < 50; count++)
        last = silent.receive(3000, &from);
    ASSERT_TRUE(last);
    EXPECT_EQ(Connection().call("set_config", R"({"dns1":"10.53.0.2","dns2":"10.53.0.2"})"), 0);
    silent.send_to(*Upstream::echo(*last), from);
    std::set<uint16_t> answers;
    for (int count = 0; count < 50; count++)
        answers.insert(id_of(client.receive().value_or("")));
    EXPECT_EQ(answers.size(), 50U);
    EXPECT_FALSE(client.receive(100));
    EXPECT_EQ(next.count(), 50U);
    EXPECT_EQ(log_count("Switching") + log_count("Response timed out"), 0U);
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
        EXPECT_EQ(shell(PING), "exit 4\n");
        EXPECT_TRUE(passes("back.example"));
        EXPECT_EQ(daemon->stop(), 0);
        start_daemon();
        EXPECT_EQ(shell(PING), PING_REPLY);
    }
    EXPECT_EQ(daemon->stop(), 0);
    bus.reset();
    PrimedDaemon alone;
    EXPECT_TRUE(passes("a.example"));
    expect_logged(3, {"Failed to connect to UBUS socket. Admin is disabled"});
}

TEST_F(Admin, WithoutDescriptorsQueriesAreStillAnswered) {
    start({{"dns_timeout", "500"}});
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

} // namespace
