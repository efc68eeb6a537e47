// Many queries at once: whose answer reaches whom, what is never believed, and what becomes of
// queries that wait while servers fall silent, refuse or change.
#include "database.h"
#include "harness.h"

#include <algorithm>
#include <deque>
#include <map>
#include <random>
#include <set>

using namespace harness;

namespace {

struct Relay : SystemTest {
    const Client client;
    std::optional<Upstream> primary{std::in_place, 1};
    std::optional<Socket> server; // in the primary's place, when the test answers by itself
    std::optional<Daemon> daemon;

    void start(Options main = {}, const char *program = daemon_program) {
        main.insert(main.begin(), {{"concurrent_queries", "300"}, {"dns_timeout", "20000"}});
        configure(main);
        daemon.emplace(std::vector<std::string>{}, program);
        Daemon::prime();
    }
    void answer_by_hand() {
        primary.reset();
        server.emplace("10.53.0.1", 53);
    }
    void send(std::string_view name, uint16_t first, uint16_t last) const {
        for (uint16_t id = first; id <= last; id++)
            client.send(query(name, id));
    }
    // Asks the server; returns what arrives there, and who sent it.
    std::pair<Bytes, sockaddr_in> send_on(const Bytes &message) const {
        client.send(message);
        sockaddr_in from{};
        const std::optional<Bytes> arrived = server->receive(3000, &from);
        EXPECT_TRUE(arrived);
        return {arrived.value_or(Bytes(12, '\0')), from};
    }
    void expect_report(const std::string &line) const {
        daemon->signal(SIGUSR2);
        EXPECT_TRUE(eventually([&] { return log_priority(line) >= 0; })) << line;
    }
};

Bytes with_id(Bytes message, uint16_t id) {
    message[0] = static_cast<char>(id >> 8);
    message[1] = static_cast<char>(id);
    return message;
}

// Those that the queries from one to before the other came from.
std::set<uint16_t> ports(const Upstream &server, size_t from, size_t to) {
    std::set<uint16_t> all;
    const std::vector<sockaddr_in> senders = server.senders();
    for (size_t at = from; at < to; at++)
        all.insert(senders.at(at).sin_port);
    return all;
}

TEST_F(Relay, AThousandClientsWithOneIdGetTheirOwnAnswersInAnyOrder) {
    constexpr size_t TOTAL = 1000;
    primary.emplace(1, [random = std::mt19937(1)](const Bytes &message) mutable {
        return std::vector{std::pair{static_cast<int>(random() % 300), *Upstream::echo(message)}};
    });
    start({{"concurrent_queries", "1000"}});
    std::deque<Client> clients;
    const auto asked = [](size_t number) { return query(std::to_string(number) + ".example", 7); };
    for (size_t number = 0; number < TOTAL; number++) {
        clients.emplace_back(20 + number % 10).send(asked(number));
        ASSERT_TRUE(number % 50 != 49 || eventually([] { return not_received() == 0; }));
    }
    for (size_t number = 0; number < TOTAL; number++)
        EXPECT_EQ(clients[number].receive(), Upstream::echo(asked(number))) << number;
    for (const Client &waiting : clients)
        ASSERT_FALSE(waiting.receive(0)) << "a second answer";
    std::set<uint16_t> ids;
    for (const Bytes &message : primary->received())
        ids.insert(id_of(message));
    EXPECT_GE(ids.size(), 970U) << "drawn from 65,536, some 8 of them twice";
    EXPECT_GE(ports(*primary, 1, 101).size(), 20U);
}

TEST_F(Relay, SocketsAreReplacedAfterTenSecondsAndAThousandQueries) {
    start();
    for (int asked = 0; asked < 200; asked++) {
        if (asked == 100)
            sleep(10);
        ASSERT_TRUE(passes("a.example"));
    }
    const std::set<uint16_t> before = ports(*primary, 1, 101), after = ports(*primary, 101, 201);
    EXPECT_LE(std::ranges::count_if(after, [&](auto port) { return before.contains(port); }), 3)
        << "of some 30; the kernel may draw one twice";

    for (int round = 0; round < 800; round++) {
        send("b.example", 1, 50);
        for (int count = 0; count < 50; count++)
            ASSERT_TRUE(client.receive()) << round;
    }
    std::map<uint16_t, size_t> uses;
    for (const sockaddr_in &sender : primary->senders())
        uses[sender.sin_port]++;
    EXPECT_LE(std::ranges::count_if(uses, [](auto &port) { return port.second > 1000; }), 2)
        << "of 32 that 1,250 queries each would use; drawn twice, perhaps";
}

TEST_F(Relay, ForgedAnswersReachNobody) {
    start({{"log_level", "7"}});
    answer_by_hand();
    const auto [own, from] = send_on(query("Own.example"));
    const Bytes answer = *Upstream::echo(own);
    constexpr char dropping[] = "Dropping what answers no query";
    size_t dropped = log_count(dropping);
    // Another source, with every id.
    const Socket stranger("10.53.0.2", 53);
    for (unsigned guess = 0; guess <= UINT16_MAX; guess++)
        stranger.send_to(with_id(answer, static_cast<uint16_t>(guess)), from);
    EXPECT_FALSE(client.receive(200));
    EXPECT_EQ(log_count(dropping), dropped) << "the kernel refuses them";

    // The right source: each of these is dropped with a line.
    Bytes renamed = answer, other_case = answer, questionless = answer.substr(0, 12);
    renamed[13] = 'X';
    other_case[13] = 'o';
    questionless[5] = 0;
    const uint16_t other_id = id_of(own) ^ 1;
    for (const Bytes &forgery : {own, with_id(answer, other_id), renamed, questionless, ""s}) {
        server->send_to(forgery, from);
        EXPECT_TRUE(wait_for_log(dropping, ++dropped)) << forgery;
    }
    // The right id at the wrong one of our sockets.
    sockaddr_in other = from;
    for (uint16_t id = 2; other.sin_port == from.sin_port && id < 50; id++)
        other = send_on(query("other.example", id)).second;
    server->send_to(answer, other);
    EXPECT_TRUE(wait_for_log(dropping, ++dropped));
    EXPECT_FALSE(client.receive(100));

    // The case of letters in the name alone does not matter, and one answer is enough.
    const Bytes real = other_case + Bytes(2000, 'x');
    for (int copy = 0; copy < 2; copy++)
        server->send_to(real, from);
    EXPECT_EQ(client.receive(), with_id(real, 1)) << "whole, whatever its length";
    EXPECT_TRUE(wait_for_log(dropping, ++dropped));
    EXPECT_FALSE(client.receive(100));
    const auto [refused, asker] = send_on(query("refused.example", 3));
    questionless[3] = 5;
    server->send_to(with_id(questionless, id_of(refused)), asker);
    EXPECT_EQ(client.receive(), with_id(questionless, 3));
    expect_report("Connection Reset Count: 0");
}

TEST_F(Relay, WhatCannotBeMatchedGoesBackOrNowhere) {
    start({{"socket_buffer_size", "200000"}});
    answer_by_hand();
    const Bytes good = query("a.example", 9);
    Bytes two = good, flags = good;
    two[5] = 2;
    flags[2] = 0x29; // come back as they are
    flags[3] = 0x7F;
    for (const Bytes &message : {two, flags.substr(0, good.size() - 1), good.substr(0, 12)}) {
        Bytes expected = *Upstream::echo(message);
        expected[3] = static_cast<char>((expected[3] & 0xF0) | 1);
        EXPECT_EQ(client.ask(message), expected);
    }
    for (const Bytes &message : {good.substr(0, 11), ""s, *Upstream::echo(good)})
        client.send(message);
    EXPECT_FALSE(client.receive(200));
    EXPECT_FALSE(server->receive(0));
    expect_report("Message Count: 1");
    // Nobody waits for answers to a device that is gone.
    const Client gone(29);
    daemon->signal(SIGSTOP);
    for (int count = 0; count < 400; count++)
        gone.send(good.substr(0, 12));
    run("ip addr del 192.168.8.29/32 dev lo");
    daemon->signal(SIGCONT);
    client.send(good.substr(0, 12));
    EXPECT_TRUE(client.receive(1500));
    run("ip addr add 192.168.8.29/32 dev lo");
}

// Each of the silent servers costs the oldest five. What the last one does not answer is given up:
// all four were tried.
TEST_F(Relay, ABurstAtADeadServerLosesFiveAndMovesOn) {
    const auto silence = [](const Bytes &message) {
        return message.find("first") == Bytes::npos ? std::nullopt : Upstream::echo(message);
    };
    primary.reset();
    const Upstream servers[]{Upstream(1, silence), Upstream(2, silence), Upstream(3, silence),
                             Upstream(4)};
    start({{"dns_timeout", "1000"}});
    send("b.example", 1, 30);
    send("silent.example", 31, 60);
    std::set<Bytes> answers, expected;
    for (uint16_t id = 16; id <= 30; id++) {
        answers.insert(client.receive(10'000).value_or(""));
        expected.insert(*Upstream::echo(query("b.example", id)));
    }
    EXPECT_EQ(answers, expected);
    ASSERT_TRUE(wait_for_log("Switching to Primary Upstream DNS"));
    EXPECT_FALSE(client.receive(1200));
    EXPECT_EQ(log_count("Response timed out"), 20U);
    EXPECT_EQ(log_count("Switching to"), 4U);
    for (size_t number = 0; number < 4; number++)
        EXPECT_EQ(servers[number].count(), 60 - 5 * number + (number == 0)) << number;
    expect_report("Connection Reset Count: 20");
    expect_report("Message Count: 61");
}

TEST_F(Relay, RefusalsEndQueriesAtOnceAndAServerThatIsBackAnswers) {
    // The first one ends, nobody listens at the second, the third is no address and the fourth is
    // out of reach.
    start({{"upstream_dns3", "nowhere"}, {"upstream_dns4", "240.0.0.1"}});
    EXPECT_TRUE(passes("before.example"));
    primary.reset();
    for (uint16_t id = 1; id <= 20; id++) {
        send("c.example", id, id);
        ASSERT_TRUE(wait_for_log("Response timed out", id)) << id;
    }
    EXPECT_TRUE(wait_for_log("Switching to Primary Upstream DNS"));
    EXPECT_EQ(log_count("Switching to"), 4U);
    primary.emplace(1);
    EXPECT_TRUE(eventually([] { return passes("back.example"); }));
    EXPECT_EQ(log_count("Sendto Error"), 0U);
}

TEST_F(Relay, LostMeansCostAQueryAndAnEarlierRefusalCostsNone) {
    start({}, STAGED_DAEMON);
    size_t answered = 1;
    constexpr struct {
        const char *call;
        int error;
        const char *line; // with the query that is lost
    } cases[] = {{"socket", EMFILE, "No socket for upstream queries, socket: "},
                 {"epoll_ctl", ENOMEM, "No socket for upstream queries, epoll_ctl: "},
                 {"getrandom", EAGAIN, "No random numbers for upstream queries: "},
                 {"sendmsg", ECONNREFUSED, ""}};
    for (const auto &[call, error, line] : cases) {
        for (int filled = 0; !*line && filled < 300; filled++, answered++)
            EXPECT_TRUE(passes("b.example")); // all places have a socket then
        const std::string file = "/tmp/error_of_"s + call;
        write_file(file, std::to_string(error));
        size_t lost = 0;
        for (int tries = 0; fs::exists(file) && tries < 300; tries++) {
            send("a.example", 1, 1);
            (client.receive(1000) ? answered : lost)++;
        }
        EXPECT_FALSE(fs::exists(file)) << call;
        EXPECT_EQ(lost, *line ? 1U : 0U) << call;
        EXPECT_TRUE(!*line || log_count(line) == 1) << line;
    }
    expect_report("Message Count: " + std::to_string(answered));
    EXPECT_EQ(log_count("timed out"), 0U);
}

TEST_F(Relay, AWaitingQueryIsSentAgainAndAFullTableDropsOnlyOthers) {
    write_file("/etc/vantrelle/black.lst", "ads.example\n");
    start({{"concurrent_queries", "2"}, {"stats_db_path", "/etc/vantrelle"}});
    answer_by_hand();
    expect_logged(LOG_INFO, {"Concurrent queries: 2"});
    const size_t timed_out = log_count("timed out");
    const Bytes one = query("one.example", 1);
    const auto [first, from] = send_on(one);
    send_on(query("two.example", 2));
    constexpr char warning[] = "Too many queries wait for an answer, dropping queries";
    send("three.example", 3, 5);
    EXPECT_EQ(rcode_of(client.ask(query("ads.example", 6)).value_or("")), 3);
    EXPECT_EQ(log_count(warning), 1U);
    expect_logged(LOG_WARNING, {warning});
    const auto [again, again_from] = send_on(one);
    EXPECT_EQ(again, first);
    EXPECT_EQ(again_from.sin_port, from.sin_port);
    expect_report("Message Count: 5"); // with the first, the blocked and the repeated one
    for (int copy = 0; copy < 2; copy++)
        server->send_to(*Upstream::echo(first), from);
    EXPECT_EQ(client.receive(), Upstream::echo(one));
    EXPECT_FALSE(client.receive(100));
    EXPECT_NE(send_on(one).first, first) << "no repeat any more: another id, of 65,535";
    // Those that still wait get nothing, and are not waited for.
    EXPECT_EQ(daemon->stop(), 0);
    EXPECT_EQ(log_count("timed out"), timed_out);
}

TEST_F(Relay, ATimeOutsRowHoldsUpNoAnswer) {
    start({{"dns_timeout", "3000"},
           {"log_stats_interval", "4"},
           {"stats_db_path", "/etc/vantrelle"}});
    answer_by_hand();
    const auto [quick, from] = send_on(query("quick.example", 2));
    server->send_to(*Upstream::echo(quick), from);
    EXPECT_TRUE(client.receive());
    send_on(query("silent.example", 3));
    sleep(1);
    // The fourth: from now on each reset writes a row, too.
    const Bytes fourth = query("slow.example", 4);
    const auto [slow, slow_from] = send_on(fourth);
    ASSERT_TRUE(wait_for_log("[ Req: 4 ]"));
    {
        const Holder other("/etc/vantrelle/vantrelle.db", "begin exclusive");
        ASSERT_TRUE(wait_for_log("Response timed out"));
        server->send_to(*Upstream::echo(slow), slow_from);
        EXPECT_EQ(client.receive(700), Upstream::echo(fourth)) << "waited for the row";
    }
    EXPECT_TRUE(wait_for_log("[ Req: 4 ] [ Blocked: 0 ] [ Resets: 1 ]"));
}

} // namespace
