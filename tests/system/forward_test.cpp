// Queries on their way to the upstream servers and back: failover, exact bytes, nothing lost.
#include "harness.h"

using namespace harness;

namespace {

struct ForwardTest : SystemTest {
    const Client client;
    std::optional<Daemon> daemon;

    void start(const Options &main = {}, const char *program = daemon_program) {
        configure(main);
        daemon.emplace(std::vector<std::string>{}, program);
    }
};

// What holds in both ways of forwarding; the parameter is how many queries may be forwarded at
// once, 0 for one after the other.
struct BothWays : ForwardTest, testing::WithParamInterface<const char *> {
    void start(Options main = {}, const char *program = daemon_program) {
        main.emplace_back("concurrent_queries", GetParam());
        ForwardTest::start(main, program);
    }
};

INSTANTIATE_TEST_SUITE_P(Queries, BothWays, testing::Values("0", "300"));

TEST_P(BothWays, MovesRoundTheRingAndLeavesNoDescriptorBehind) {
    const Upstream servers[]{Upstream(1), Upstream(2), Upstream(3), Upstream(4)};
    start({{"dns_timeout", "2"}});
    auto lose = [&, sent = size_t{0}](size_t last) mutable {
        while (sent < last) {
            client.send(query("silent.example"));
            ASSERT_TRUE(wait_for_log("Response timed out", ++sent));
        }
    };
    lose(21);
    // One after the other, the move comes at the start of the sixth query, not with the fifth
    // time-out.
    std::string events; // the count of a time-out, the first letter of a server
    for (const LogLine &line : log_lines())
        if (line.text.starts_with("ERROR: Upstream DNS Response timed out"))
            events += line.text[line.text.size() - 2];
        else if (line.text.starts_with("Switching to "))
            events += line.text[strlen("Switching to ")];
    EXPECT_EQ(events, "12345S12345T12345Q12345P1");
    expect_logged(LOG_ERR, {"ERROR: Upstream DNS Response timed out, Resetting connection (1)"});
    expect_logged(LOG_INFO, {"Switching to Primary Upstream DNS"});
    for (const Upstream &server : servers)
        EXPECT_TRUE(eventually([&] { return server.count() == (&server == servers ? 6U : 5U); }));
    daemon->signal(SIGUSR2);
    EXPECT_TRUE(wait_for_log("Connection Reset Count: 21"));
    EXPECT_EQ(log_count("Message Count: 21"), 1U);
    size_t descriptors = 0; // one less while the last reset is still under way
    for (int sample = 0; sample < 100; sample++, usleep(1000))
        descriptors = std::max(descriptors, daemon->descriptors());
    lose(300);
    EXPECT_TRUE(eventually([&] { return daemon->descriptors() == descriptors; }))
        << descriptors << " before, now " << daemon->descriptors();
}

TEST_P(BothWays, AsksServersOnAPortOfTheirOwn) {
    const Socket server("10.53.0.1", 5353);
    start({{"upstream_port", "5353"}});
    client.send(query("a.example"));
    EXPECT_TRUE(server.receive());
    expect_logged(LOG_INFO, {"Upstream port: 5353"});
}

TEST_P(BothWays, AnAnswerClearsTheCountAndLateOnesReachNobody) {
    const Upstream primary(1, [](const Bytes &message) {
        const bool is_late = message.find("late") != Bytes::npos;
        return std::vector{std::pair{is_late ? 1000 : 0, *Upstream::echo(message)}};
    });
    start({{"dns_timeout", "300"}});
    Daemon::prime();
    for (size_t lost = 1; lost <= 8; lost++) {
        client.send(query("late.example"));
        ASSERT_TRUE(wait_for_log("Response timed out", lost));
        EXPECT_TRUE(lost % 4 != 0 || passes("next.example", 21));
    }
    EXPECT_FALSE(client.receive(1000));
    EXPECT_EQ(log_count("Switching"), 0U);
}

TEST_P(BothWays, WhatCameBeforeAQueryIsNotItsAnswer) {
    start();
    Daemon::prime();
    uint16_t id = 0;
    for (const int copies : {1, 0, 2, 0, 64, 0, 65, 0, 3000, 0}) {
        // So many, beside the answer itself.
        const Upstream server(1, [&](const Bytes &message) {
            return std::vector(1 + copies, std::pair{0, *Upstream::echo(message)});
        });
        for (int asked = copies ? 1 : 100; asked > 0; asked--)
            ASSERT_EQ(id_of(client.ask(query("own.example", ++id)).value_or("")), id) << copies;
    }
    daemon->signal(SIGUSR2);
    EXPECT_TRUE(wait_for_log("Connection Reset Count: 1")) << "that of the first datagram";
}

TEST_F(ForwardTest, PassesEveryByteAndCutsAt512) {
    const Upstream primary(1, [](const Bytes &message) { return message + message; });
    start();
    client.send(query("first.example")); // the first datagram's sender is never answered
    EXPECT_FALSE(client.receive(300));
    EXPECT_EQ(primary.count(), 1U);
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
    start({{"upstream_dns", "240.0.0.1"}});
    client.send(query("a.example"));
    EXPECT_TRUE(wait_for_log("Sendto Error: Network is unreachable -1"));
}

TEST_F(ForwardTest, AFloodDuringSilenceCostsAFewMegabytesAndPasses) {
    constexpr size_t SENT = 100'000, AT_ONCE = 250, BOUND = 4096, WORKERS = 5;
    constexpr char warning[] = "Job queue is full, dropping queries";
    std::atomic<bool> silent = false;
    const Upstream primary(1, [&](const Bytes &message) {
        while (silent)
            usleep(1000);
        return Upstream::echo(message);
    });
    start({{"dns_timeout", "60000"}, {"socket_buffer_size", "200000"}});
    Daemon::prime();
    const size_t memory = daemon->figure("VmRSS");
    silent = true;
    const time_t begin = time(nullptr);
    for (size_t number = 0; number < SENT; number++) {
        client.send(query("flood.example", static_cast<uint16_t>(number)));
        ASSERT_TRUE(number % AT_ONCE != 0 || eventually([] { return not_received() == 0; }));
    }
    EXPECT_LT(daemon->figure("VmRSS"), memory + 16384);
    expect_logged(LOG_WARNING, {warning});
    EXPECT_LE(log_count(warning), 1 + static_cast<size_t>(time(nullptr) - begin) / 10);
    silent = false;
    EXPECT_TRUE(eventually([&] { return primary.count() == 1 + BOUND + WORKERS; }, 30000));
    EXPECT_TRUE(passes("after.example"));
}

TEST_P(BothWays, AnInterfaceMayLoseItsAddressForAWhile) {
    const Upstream primary(1, [](const Bytes &message) {
        if (message.find("gone") != Bytes::npos)
            run("ip addr del 192.168.8.1/24 dev apcli0");
        return Upstream::echo(message);
    });
    start();
    Daemon::prime();
    const size_t failed = log_count("Received error: ");
    client.send(query("gone.example", 2));
    EXPECT_TRUE(wait_for_log("Received error: ", failed + 1));
    run("ip addr add 192.168.8.1/24 dev apcli0");
    EXPECT_TRUE(passes("back.example"));
}

TEST_P(BothWays, AClockThatIsSetBackLeadsToThePrimary) {
    const Upstream primary(1), secondary(2);
    write_file("/tmp/clock", "0");
    start({{"dns_timeout", "200"}, {"dns_max_time_on_secondary", "600"}}, STAGED_DAEMON);
    for (uint16_t id = 1; id <= 5; id++)
        client.send(query("silent.example", id));
    ASSERT_TRUE(wait_for_log("Response timed out", 5));
    for (const auto &[seconds, second_slot] : {std::pair{"0", 1U}, {"-599", 2U}, {"-3600", 2U}}) {
        write_file("/tmp/clock", seconds);
        EXPECT_TRUE(passes("a.example"));
        EXPECT_EQ(secondary.count(), second_slot) << seconds;
    }
    expect_logged(LOG_INFO, {"Switching to Primary Upstream DNS (Max Time On Secondary)"});
}

} // namespace
