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
    const Upstream servers[]{Upstream(1), Upstream(2), Upstream(3), Upstream(4)};
    configure({{"dns_timeout", "2"}});
    Daemon daemon;
    const Client client;
    auto lose = [&, sent = size_t{0}](size_t last) mutable {
        while (sent < last) {
            sent++;
            client.send(query("silent.example"));
            ASSERT_TRUE(wait_for_log("Response timed out", sent));
        }
    };
    lose(21);
    // One after the other, the move comes at the start of the sixth query, not with the fifth
    // time-out.
    std::string expected;
    for (const char *to : {"Secondary", "Tertiary", "Quaternary", "Primary"}) {
        for (int count = 1; count <= 5; count++)
            expected += "3 ERROR: Upstream DNS Response timed out, Resetting connection (" +
                        std::to_string(count) + ")\n";
        expected.append("6 Switching to ").append(to).append(" Upstream DNS\n");
    }
    std::string texts;
    for (const LogLine &line : log_lines())
        if (line.text.starts_with("ERROR") || line.text.starts_with("Switching"))
            texts += std::to_string(line.priority) + " " + line.text + "\n";
    EXPECT_EQ(texts.substr(0, expected.size()), expected);
    EXPECT_TRUE(texts.ends_with("(1)\n"));
    for (const Upstream &server : servers)
        EXPECT_TRUE(eventually([&] { return server.count() == (&server == servers ? 6U : 5U); }));
    daemon.signal(SIGUSR2);
    EXPECT_TRUE(wait_for_log("Connection Reset Count: 21"));
    EXPECT_EQ(log_count("Message Count: 21"), 1U);
    size_t descriptors = 0; // one less while the last reset is still under way
    for (int sample = 0; sample < 100; sample++, usleep(1000))
        descriptors = std::max(descriptors, daemon.descriptors());
    lose(300);
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
    configure();
    PrimedDaemon daemon;
    const Client client;
    uint16_t id = 0;
    for (const int copies : {1, 0, 2, 0, 64, 0, 65, 0, 3000, 0}) {
        // So many, beside the answer itself.
        const Upstream server(1, [&](const Bytes &message) {
            return std::vector(1 + copies, std::pair{0, *Upstream::echo(message)});
        });
        for (int asked = copies ? 1 : 100; asked > 0; asked--)
            ASSERT_EQ(id_of(client.ask(query("own.example", ++id)).value_or("")), id) << copies;
    }
    daemon.signal(SIGUSR2);
    EXPECT_TRUE(wait_for_log("Connection Reset Count: 1")) << "that of the first datagram";
}

TEST_F(ForwardTest, PassesEveryByteAndCutsAt512) {
    Upstream primary(1, [](const Bytes &message) { return message + message; });
    configure();
    Daemon daemon;
    const Client client;
    client.send(query("first.example")); // the first datagram's sender is never answered
    ASSERT_TRUE(eventually([&] { return primary.count() == 1; }));
    EXPECT_FALSE(client.receive(200));
    for (const size_t size : {0, 1, 29, 255, 256, 257, 511, 512, 513, 600}) {
        Bytes message(size, '\0');
        for (size_t at = 13; at < size; at++) // a name of no labels, so that only the forwarding
            message[at] = static_cast<char>(at * 7 + size); // looks at it
        const Bytes up = message.substr(0, 512);
        EXPECT_EQ(client.ask(message), (up + up).substr(0, 512)) << size;
        EXPECT_EQ(primary.received().back(), up) << size;
    }
}

TEST_F(ForwardTest, AQueryThatCannotLeaveCostsAnError) {
    harness::configure({{"upstream_dns", "240.0.0.1"}});
    const Daemon daemon;
    Client().send(query("a.example"));
    EXPECT_TRUE(wait_for_log("Sendto Error: Network is unreachable -1"));
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
    EXPECT_TRUE(eventually([&] { return primary.count() == 1 + bound + workers; }, 30000));
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
}

} // namespace
