// Queries on their way to the upstream servers and back: failover, exact bytes, nothing lost.
#include "harness.h"

#include <map>

using namespace harness;

namespace {

struct ForwardTest : SystemTest {};

// What holds in both ways of forwarding; the parameter is how many queries may be forwarded at
// once, 0 for one after the other.
struct BothWays : ForwardTest, testing::WithParamInterface<const char *> {
    const bool at_once = GetParam()[0] != '0';
    static void configure(Options main = {}) {
        main.emplace_back("concurrent_queries", GetParam());
        harness::configure(main);
    }
};

INSTANTIATE_TEST_SUITE_P(Queries, BothWays, testing::Values("0", "300"));

TEST_P(BothWays, MovesRoundTheRingAndLeavesNoDescriptorBehind) {
    const Upstream first(1), second(2), third(3), fourth(4);
    configure({{"dns_timeout", "2"}, {"log_level", "7"}});
    Daemon daemon;
    Client client;
    for (size_t sent = 1; sent <= 21; sent++) {
        client.send(query("silent.example"));
        ASSERT_TRUE(wait_for_log("Response timed out", sent));
        // One after the other, the move comes at the start of the sixth query, not with the fifth
        // time-out.
        EXPECT_TRUE(eventually([&] { return log_count("Reset upstream") == sent; }));
        EXPECT_TRUE(eventually([&] { return log_count("Switching to") == (sent - !at_once) / 5; }))
            << "after " << sent;
    }
    expect_logged(6, {"Switching to Secondary Upstream DNS", "Switching to Tertiary Upstream DNS",
                      "Switching to Quaternary Upstream DNS", "Switching to Primary Upstream DNS"});
    for (const Upstream *server : {&first, &second, &third, &fourth})
        EXPECT_TRUE(eventually([&] { return server->count() == (server == &first ? 6 : 5); }));
    for (const auto &[count, times] : std::map<int, size_t>{{1, 5}, {5, 4}, {6, 0}}) {
        std::string text = "ERROR: Upstream DNS Response timed out, Resetting connection (" +
                           std::to_string(count) + ")";
        EXPECT_EQ(log_count(text), times) << text;
        EXPECT_EQ(log_priority(text), times ? 3 : -1);
    }
    daemon.signal(SIGUSR2);
    EXPECT_TRUE(wait_for_log("Connection Reset Count: 21"));
    EXPECT_EQ(log_count("Message Count: 21"), 1U);
    size_t descriptors = 0; // one less while the last reset is still under way
    for (int sample = 0; sample < 100; sample++, usleep(1000))
        descriptors = std::max(descriptors, daemon.descriptors());
    for (size_t sent = 22; sent <= 300; sent++) {
        client.send(query("silent.example"));
        ASSERT_TRUE(wait_for_log("Response timed out", sent));
    }
    EXPECT_TRUE(eventually([&] { return daemon.descriptors() == descriptors; }))
        << descriptors << " before, now " << daemon.descriptors();
}

TEST_P(BothWays, AsksServersOnAPortOfTheirOwn) {
    configure({{"upstream_port", "5353"}});
    const Socket server("10.53.0.1", 5353);
    const Daemon daemon;
    Client().send(query("a.example"));
    EXPECT_TRUE(server.receive());
    expect_logged(6, {"Upstream port: 5353"});
}

TEST_P(BothWays, AnAnswerClearsTheCountAndLateOnesReachNobody) {
    constexpr uint16_t in_time = 2;
    std::atomic<int> answers = 0;
    const Upstream primary(1, [&](const Bytes &message) {
        const bool is_late = message.find("late") != Bytes::npos;
        while (is_late && answers == 0)
            usleep(1000);
        answers -= is_late;
        return Upstream::echo(message);
    });
    const Upstream secondary(2);
    configure({{"dns_timeout", "300"}});
    PrimedDaemon daemon;
    const Client first(20), second(21);
    for (size_t lost = 1; lost <= 8; lost++) {
        first.send(query("late.example"));
        ASSERT_TRUE(wait_for_log("Response timed out", lost));
        answers++; // now that nobody waits for it
        if (lost % 4 == 0) {
            EXPECT_EQ(id_of(second.ask(query("next.example", in_time)).value_or("")), in_time);
        }
    }
    EXPECT_FALSE(first.receive(100));
    EXPECT_EQ(log_count("Switching") + secondary.count(), 0U);
}

TEST_P(BothWays, WhatCameBeforeAQueryIsNotItsAnswer) {
    // So many queries, and behind the answer to each as many copies of it.
    constexpr struct {
        int queries, copies;
    } rounds[] = {{1, 1},  {300, 0}, {300, 1},  {1, 64}, {300, 0},
                  {1, 65}, {300, 0}, {1, 3000}, {300, 0}};
    configure({{"log_level", "7"}});
    Daemon daemon;
    std::optional<Upstream> primer(1);
    Daemon::prime();
    primer.reset();
    const Socket server("10.53.0.1", 53);
    const Client client;
    uint16_t id = 0;
    for (const auto &[queries, copies] : rounds)
        for (int asked = 0; asked < queries; asked++) {
            sockaddr_in from{};
            client.send(query("own.example", ++id));
            const Bytes asked_for = server.receive(3000, &from).value_or("");
            for (int copy = 0; copy <= copies; copy++)
                server.send_to(*Upstream::echo(asked_for), from);
            ASSERT_EQ(id_of(client.receive().value_or("")), id) << copies;
        }
    EXPECT_EQ(log_count("Upsteam socket fd is"), at_once ? 1U : 3U)
        << "a new socket behind more than 64 copies";
    daemon.signal(SIGUSR2);
    EXPECT_TRUE(wait_for_log("Connection Reset Count: 0"));
}

TEST_F(ForwardTest, PassesEveryByteAndCutsAt512) {
    constexpr struct {
        size_t asked, passed_up, answered, relayed;
    } cases[] = {
        {29, 29, 300, 300}, {512, 512, 512, 512}, {600, 512, 600, 512},
        {1, 1, 1, 1},       {0, 0, 45, 45},       {29, 29, 0, 0},
    };
    std::atomic<size_t> answer_size = 1;
    auto filled = [](size_t size) {
        Bytes bytes;
        while (bytes.size() < size)
            bytes += static_cast<char>(bytes.size() * 7 + size);
        return bytes;
    };
    Upstream primary(1, [&](const Bytes &) { return filled(answer_size); });
    configure();
    Daemon daemon;
    Client client;
    client.send(query("first.example")); // the first datagram's sender is never answered
    ASSERT_TRUE(eventually([&] { return primary.count() == 1; }));
    EXPECT_FALSE(client.receive(200));
    for (const auto &[asked, passed_up, answered, relayed] : cases) {
        answer_size = answered;
        Bytes message = filled(asked);
        if (asked > 12) // a name of no labels, so that nothing but the forwarding looks at it
            message[12] = 0;
        auto answer = client.ask(message);
        ASSERT_TRUE(answer) << asked;
        EXPECT_EQ(*answer, filled(answered).substr(0, relayed)) << asked;
        EXPECT_EQ(primary.received().back(), message.substr(0, passed_up)) << asked;
    }
}

TEST_F(ForwardTest, AFloodDuringSilenceCostsAFewMegabytesAndPasses) {
    constexpr size_t sent = 100'000, at_once = 250, bound = 4096, workers = 5;
    constexpr char warning[] = "Job queue is full, dropping queries";
    std::atomic<bool> silent = false;
    Upstream primary(1, [&](const Bytes &message) {
        while (silent)
            usleep(1000);
        return Upstream::echo(message);
    });
    configure({{"dns_timeout", "60000"}, {"socket_buffer_size", "200000"}});
    PrimedDaemon daemon;
    const size_t memory = daemon.figure("VmRSS");
    silent = true;
    const time_t begin = time(nullptr);
    const Client client;
    for (size_t number = 0; number < sent; number++) {
        client.send(query("flood.example", static_cast<uint16_t>(number)));
        ASSERT_TRUE(number % at_once != 0 || eventually([] { return not_received() == 0; }));
    }
    EXPECT_LT(daemon.figure("VmRSS"), memory + 16384);
    EXPECT_EQ(log_priority(warning), 4);
    EXPECT_LE(log_count(warning), 1 + static_cast<size_t>(time(nullptr) - begin) / 10);
    silent = false;
    EXPECT_TRUE(eventually([&] { return primary.count() == 1 + bound + workers; }));
    std::vector<uint16_t> order;
    for (const Bytes &message : primary.received())
        order.push_back(id_of(message));
    EXPECT_TRUE(std::is_sorted(order.begin() + 1, order.end())); // behind the first datagram
    EXPECT_TRUE(passes("after.example"));
}

TEST_P(BothWays, AnInterfaceMayLoseItsAddressForAWhile) {
    Upstream primary(1, [&](const Bytes &message) {
        if (message.find("gone") != Bytes::npos)
            run("ip addr del 192.168.8.1/24 dev apcli0");
        return Upstream::echo(message);
    });
    configure();
    PrimedDaemon daemon;
    const size_t failed = log_count("Received error: ");
    Client().send(query("gone.example", 2));
    EXPECT_TRUE(wait_for_log("Received error: ", failed + 1));
    run("ip addr add 192.168.8.1/24 dev apcli0");
    EXPECT_TRUE(passes("back.example"));
}

TEST_P(BothWays, AClockThatIsSetBackLeadsToThePrimary) {
    const auto move_clock = [](const char *seconds) { write_file("/tmp/clock", seconds); };
    const Upstream primary(1), secondary(2);
    configure({{"dns_timeout", "200"}, {"dns_max_time_on_secondary", "600"}});
    move_clock("0");
    Daemon daemon({}, STAGED_DAEMON);
    const Client client;
    for (uint16_t id = 1; id <= 5; id++)
        client.send(query("silent.example", id));
    ASSERT_TRUE(wait_for_log("Response timed out", 5));
    for (const auto &[seconds, second_slot] : {std::pair{"0", 1U}, {"-599", 2U}, {"-3600", 2U}}) {
        move_clock(seconds);
        EXPECT_TRUE(passes("a.example"));
        EXPECT_EQ(secondary.count(), second_slot) << seconds;
    }
    EXPECT_EQ(log_priority("Switching to Primary Upstream DNS (Max Time On Secondary)"), 6);
    // Once more, while the pool waits for a worker.
    client.send(query("silent.example"));
    daemon.signal(SIGTERM);
    ASSERT_TRUE(eventually([&] {
        client.send(query("last.example"));
        return log_count("Shutting down ...") > 0;
    }));
    move_clock("-7200");
    EXPECT_EQ(daemon.wait(), 0);
}

} // namespace
