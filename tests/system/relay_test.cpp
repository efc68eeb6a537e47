// Many queries at once: whose answer reaches whom, what is never believed, and what becomes of
// queries that wait while servers fall silent, refuse or change.
#include "harness.h"

#include <algorithm>
#include <map>
#include <random>
#include <set>

#include <sqlite3.h>

using namespace harness;

namespace {

struct Relay : SystemTest {
    const Client client;
    static void configure(Options main = {}) {
        main.insert(main.begin(), {"concurrent_queries", "300"});
        harness::configure(main);
    }
    // Starts the daemon with a server at the primary's address that only the test answers for.
    void start(const Options &main = {}) {
        configure(main);
        daemon.emplace();
        {
            const Upstream primer(1);
            Daemon::prime();
        }
        server.emplace("10.53.0.1", 53);
    }
    // The next query at that server, and who sent it.
    std::pair<Bytes, sockaddr_in> arrival() const {
        sockaddr_in from{};
        const std::optional<Bytes> message = server->receive(3000, &from);
        EXPECT_TRUE(message);
        return {message.value_or(Bytes(12, '\0')), from};
    }
    // One of the counters that a report shows.
    size_t counted(const std::string &name) const {
        const size_t before = log_count(name);
        daemon->signal(SIGUSR2);
        EXPECT_TRUE(wait_for_log(name, before + 1));
        size_t number = 0;
        for (const LogLine &line : log_lines())
            if (line.text.starts_with(name))
                number = std::stoul(line.text.substr(name.size()));
        return number;
    }
    std::optional<Daemon> daemon;
    std::optional<Socket> server;
};

Bytes with_id(Bytes message, uint16_t id) {
    message[0] = static_cast<char>(id >> 8);
    message[1] = static_cast<char>(id);
    return message;
}

Bytes answer_to(const Bytes &message, uint16_t id) {
    return with_id(Upstream::echo(message).value_or(""), id);
}

TEST_F(Relay, AThousandClientsWithOneIdGetTheirOwnAnswersInAnyOrder) {
    constexpr size_t total = 1000;
    constexpr uint16_t id = 7;
    std::mt19937 random(1);
    const Upstream primary(1, [&](const Bytes &message) {
        return std::vector{std::pair{static_cast<int>(random() % 300), *Upstream::echo(message)}};
    });
    configure({{"concurrent_queries", "1000"}});
    PrimedDaemon primed;
    std::vector<std::unique_ptr<Client>> clients;
    const auto asked = [](size_t number) {
        return query("n" + std::to_string(number) + ".example", id);
    };
    for (size_t number = 0; number < total; number++) {
        clients.push_back(std::make_unique<Client>(20 + number % 10));
        clients.back()->send(asked(number));
        if (number % 50 == 49) // the listening socket's buffer holds a few hundred
            usleep(5000);
    }
    for (size_t number = 0; number < total; number++)
        EXPECT_EQ(clients[number]->receive(), Upstream::echo(asked(number))) << number;
    for (const auto &waiting : clients)
        ASSERT_FALSE(waiting->receive(0)) << "a second answer";

    const std::vector<Bytes> received = primary.received();
    const std::vector<sockaddr_in> senders = primary.senders();
    ASSERT_EQ(received.size(), 1 + total);
    std::set<uint16_t> first_ports, ids;
    std::set<std::pair<uint16_t, uint16_t>> sent;
    for (size_t at = 1; at <= total; at++) {
        if (at <= 100)
            first_ports.insert(senders[at].sin_port);
        ids.insert(id_of(received[at]));
        sent.insert({senders[at].sin_port, id_of(received[at])});
    }
    EXPECT_GE(first_ports.size(), 20U);
    EXPECT_GE(ids.size(), 970U) << "drawn from 65,536, some 8 of them twice";
    EXPECT_GE(sent.size(), total - 5) << "one that was answered may be drawn again";
}

TEST_F(Relay, SocketsAreReplacedAfterTenSecondsAndAThousandQueries) {
    constexpr size_t each = 100, at_once = 50, total = 40'000;
    const Upstream primary(1);
    configure();
    PrimedDaemon running;
    for (size_t number = 0; number < 2 * each; number++) {
        if (number == each)
            sleep(10);
        ASSERT_TRUE(passes("a.example"));
    }
    const std::vector<sockaddr_in> senders = primary.senders();
    std::set<uint16_t> before, again;
    for (size_t at = 1; at <= 2 * each; at++)
        if (at <= each)
            before.insert(senders[at].sin_port);
        else if (before.contains(senders[at].sin_port))
            again.insert(senders[at].sin_port);
    EXPECT_LE(again.size(), 3U) << "of some 30; the kernel may draw one twice";

    for (size_t number = 0; number < total; number += at_once) {
        for (size_t id = number; id < number + at_once; id++)
            client.send(query("b.example", static_cast<uint16_t>(id)));
        for (size_t id = number; id < number + at_once; id++)
            ASSERT_TRUE(client.receive()) << id;
    }
    std::map<uint16_t, size_t> uses;
    for (const sockaddr_in &sender : primary.senders())
        uses[sender.sin_port]++;
    const auto overused = std::count_if(uses.begin(), uses.end(),
                                        [](const auto &port) { return port.second > 1000; });
    EXPECT_LE(overused, 2) << "of 32 that 1,250 queries each would use; drawn twice, perhaps";
}

TEST_F(Relay, ForgedAnswersReachNobody) {
    start({{"log_level", "7"}, {"dns_timeout", "20000"}});
    client.send(query("Own.example", 1, 'A')); // the type has a letter's number
    const auto [own, from] = arrival();
    const uint16_t id = id_of(own);
    const Bytes answer = answer_to(own, id);
    // Another source, with every id.
    const Socket stranger("10.53.0.2", 53);
    const size_t before = log_count("Dropping what answers no query");
    for (unsigned guess = 0; guess <= UINT16_MAX; guess++) {
        stranger.send_to(with_id(answer, static_cast<uint16_t>(guess)), from);
        if (guess % 100 == 0)
            usleep(100);
    }
    EXPECT_EQ(log_count("Dropping what answers no query"), before) << "the kernel refuses them";

    // The right source: each of these is dropped with a line.
    const auto changed = [&](size_t at, char value) {
        Bytes message = answer;
        message[at] = value;
        return message;
    };
    const auto questionless = [&](char code) {
        Bytes header = answer.substr(0, 12);
        header[3] = code;
        header[5] = 0;
        return header;
    };
    const size_t name_end = 12 + 1 + 3 + 1 + 7;
    const std::pair<const char *, Bytes> forgeries[] = {
        {"a query", own},
        {"another id", with_id(answer, id ^ 1)},
        {"the client's id", with_id(answer, id == 1 ? 2 : 1)},
        {"another name", changed(13, 'X')},
        {"another label length", changed(12, 4)},
        {"another type", changed(name_end + 2, 28)},
        {"another class", changed(name_end + 4, 3)},
        {"a type that differs as cases do", changed(name_end + 2, 'a')},
        {"a cut question", answer.substr(0, answer.size() - 1)},
        {"two questions", changed(5, 2)},
        {"no question and no error", questionless(0)},
        {"no question and a name error", questionless(3)},
        {"a cut header", answer.substr(0, 11)},
        {"nothing", ""},
    };
    size_t dropped = before;
    for (const auto &[what, forgery] : forgeries) {
        server->send_to(forgery, from);
        EXPECT_TRUE(wait_for_log("Dropping what answers no query", ++dropped)) << what;
    }
    // The right id at the wrong one of our sockets.
    sockaddr_in other = from;
    for (uint16_t more = 2; other.sin_port == from.sin_port && more < 50; more++) {
        client.send(query("other.example", more));
        other = arrival().second;
    }
    server->send_to(answer, other);
    EXPECT_TRUE(wait_for_log("Dropping what answers no query", ++dropped));
    EXPECT_FALSE(client.receive(100));

    // The case of letters in the name alone does not matter, and one answer is enough.
    Bytes real = changed(13, 'o') + Bytes(2000, 'x');
    server->send_to(real, from);
    server->send_to(real, from);
    EXPECT_EQ(client.receive(), with_id(real, 1)) << "whole, whatever its length";
    EXPECT_TRUE(wait_for_log("Dropping what answers no query", ++dropped));
    EXPECT_FALSE(client.receive(100));
    client.send(query("refused.example", 3));
    const auto [refused, asker] = arrival();
    Bytes refusal = with_id(questionless(5), id_of(refused));
    server->send_to(refusal, asker);
    EXPECT_EQ(client.receive(), with_id(refusal, 3));
    EXPECT_EQ(counted("Connection Reset Count: "), 0U);
}

TEST_F(Relay, WhatCannotBeMatchedGoesBackOrNowhere) {
    start({{"socket_buffer_size", "200000"}});
    const Bytes good = query("a.example", 9);
    const auto changed = [&](std::initializer_list<std::pair<size_t, char>> places) {
        Bytes message = good;
        for (const auto &[at, value] : places)
            message[at] = value;
        return message;
    };
    const Bytes malformed[] = {
        changed({{5, 0}}),                                          // no question
        changed({{5, 2}}),                                          // two
        changed({{4, 1}}),                                          // 257
        changed({{2, 0x29}, {3, 0x7F}}).substr(0, good.size() - 1), // cut; flags come back
        changed({{12, 64}}) + Bytes(90, '\0'),                      // a label too long
        changed({{12, '\xC0'}}) + Bytes(220, '\0'),                 // a pointer
        good.substr(0, 12),
    };
    for (const Bytes &message : malformed) {
        Bytes expected = message;
        expected[2] = static_cast<char>(expected[2] | 0x80);
        expected[3] = static_cast<char>((expected[3] & 0xF0) | 1);
        EXPECT_EQ(client.ask(message), expected);
    }
    for (const Bytes &message : {good.substr(0, 11), Bytes(), changed({{2, '\x81'}})})
        client.send(message);
    EXPECT_FALSE(client.receive(200));
    EXPECT_FALSE(server->receive(0));
    EXPECT_EQ(counted("Message Count: "), 1U);
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

TEST_F(Relay, ABurstAtADeadServerLosesFiveAndMovesOn) {
    const Upstream secondary(2);
    start({{"dns_timeout", "500"}});
    for (uint16_t id = 1; id <= 60; id++)
        client.send(query("b.example", id));
    std::set<uint16_t> answered;
    for (int count = 0; count < 55; count++)
        answered.insert(id_of(client.receive(1000).value_or("")));
    EXPECT_EQ(answered.size(), 55U);
    EXPECT_EQ(*answered.begin(), 6U) << "the oldest five are lost";
    EXPECT_FALSE(client.receive(100));
    std::vector<std::string> texts;
    for (const LogLine &line : log_lines())
        if (line.text.starts_with("ERROR: ") || line.text.starts_with("Switching"))
            texts.push_back(line.text);
    ASSERT_EQ(texts.size(), 6U);
    for (size_t count = 1; count <= 5; count++)
        EXPECT_EQ(texts[count - 1],
                  "ERROR: Upstream DNS Response timed out, Resetting connection (" +
                      std::to_string(count) + ")");
    EXPECT_EQ(texts[5], "Switching to Secondary Upstream DNS");
    EXPECT_EQ(counted("Connection Reset Count: "), 5U);
    EXPECT_EQ(counted("Message Count: "), 61U);
    EXPECT_EQ(secondary.count(), 55U);
}

TEST_F(Relay, AQueryIsGivenUpWhenAllFourWereTried) {
    const Upstream servers[]{Upstream(1), Upstream(2), Upstream(3), Upstream(4)};
    configure({{"dns_timeout", "400"}});
    PrimedDaemon running;
    for (uint16_t id = 1; id <= 60; id++)
        client.send(query("silent.example", id));
    ASSERT_TRUE(wait_for_log("Switching to Primary Upstream DNS"));
    usleep(600'000);
    EXPECT_EQ(log_count("Response timed out"), 20U);
    EXPECT_EQ(log_count("Switching to"), 4U);
    for (size_t number = 0; number < 4; number++)
        EXPECT_EQ(servers[number].count(), 60 - 5 * number + (number == 0)) << number;
    EXPECT_TRUE(passes("next.example"));
}

TEST_F(Relay, RefusalsEndQueriesAtOnceAndAServerThatIsBackAnswers) {
    // The first one ends, nobody listens at the second, the third is no address and the fourth is
    // out of reach.
    configure(
        {{"dns_timeout", "20000"}, {"upstream_dns3", "nowhere"}, {"upstream_dns4", "240.0.0.1"}});
    std::optional<Upstream> first(1);
    PrimedDaemon running;
    EXPECT_TRUE(passes("before.example"));
    first.reset();
    for (uint16_t id = 1; id <= 20; id++) {
        client.send(query("c.example", id));
        ASSERT_TRUE(wait_for_log("Response timed out", id, 2000)) << id;
    }
    EXPECT_TRUE(wait_for_log("Switching to Primary Upstream DNS"));
    EXPECT_EQ(log_count("Switching to"), 4U);
    first.emplace(1);
    EXPECT_TRUE(eventually([] { return passes("back.example"); }));
    EXPECT_EQ(log_count("Sendto Error"), 0U);
}

TEST_F(Relay, LostMeansCostAQueryAndAnEarlierRefusalCostsNone) {
    const Upstream primary(1);
    configure();
    daemon.emplace(std::vector<std::string>{}, STAGED_DAEMON);
    Daemon::prime();
    size_t answered = 1;
    // Asks until the call has failed. Returns how many queries were lost with it.
    const auto lose = [&](const std::string &call, int error) {
        const std::string file = "/tmp/error_of_" + call;
        write_file(file, std::to_string(error));
        size_t lost = 0;
        for (int tries = 0; fs::exists(file) && tries < 300; tries++) {
            client.send(query("a.example"));
            (client.receive(500) ? answered : lost)++;
        }
        EXPECT_FALSE(fs::exists(file)) << call;
        return lost;
    };
    for (const auto &[call, error, line] :
         {std::tuple{"socket", EMFILE, "No socket for upstream queries, socket: "},
          {"epoll_ctl", ENOMEM, "No socket for upstream queries, epoll_ctl: "},
          {"getrandom", EAGAIN, "No random numbers for upstream queries: "}}) {
        EXPECT_EQ(lose(call, error), 1U);
        EXPECT_EQ(log_count(line), 1U) << line;
    }
    for (int filled = 0; filled < 300; filled++, answered++) // all places have a socket then
        EXPECT_TRUE(passes("b.example"));
    EXPECT_EQ(lose("sendmsg", ECONNREFUSED), 0U);
    EXPECT_EQ(counted("Message Count: "), answered);
    EXPECT_EQ(log_count("timed out"), 0U);
}

TEST_F(Relay, AWaitingQueryIsSentAgainAndAFullTableDropsOnlyOthers) {
    fs::create_directory("/etc/vantrelle");
    write_file("/etc/vantrelle/black.lst", "ads.example\n");
    start({{"concurrent_queries", "2"},
           {"dns_timeout", "20000"},
           {"stats_db_path", "/etc/vantrelle"}});
    expect_logged(6, {"Concurrent queries: 2"});
    const size_t timed_out = log_count("timed out");
    client.send(query("one.example", 1));
    const auto [first, first_from] = arrival();
    client.send(query("two.example", 2));
    const auto [second, second_from] = arrival();
    constexpr char warning[] = "Too many queries wait for an answer, dropping queries";
    const size_t requests = counted("Message Count: ");
    for (uint16_t id = 3; id < 6; id++)
        client.send(query("three.example", id));
    EXPECT_TRUE(wait_for_log(warning));
    EXPECT_EQ(rcode_of(client.ask(query("ads.example", 6)).value_or("")), 3);
    client.send(query("one.example", 1));
    const auto [again, again_from] = arrival();
    EXPECT_EQ(again, first);
    EXPECT_EQ(again_from.sin_port, first_from.sin_port);
    EXPECT_EQ(counted("Message Count: "), requests + 2) << "the blocked and the repeated one";
    for (int copy = 0; copy < 2; copy++)
        server->send_to(answer_to(first, id_of(first)), first_from);
    EXPECT_EQ(client.receive(), answer_to(first, 1));
    EXPECT_FALSE(client.receive(100));
    client.send(query("one.example", 1)); // no repeat any more
    EXPECT_NE(arrival().first, first) << "another id, of 65,535";
    EXPECT_EQ(log_count(warning), 1U);
    EXPECT_EQ(log_priority(warning), 4);
    // Those that still wait get nothing, and are not waited for.
    EXPECT_EQ(daemon->stop(), 0);
    EXPECT_EQ(log_count("timed out"), timed_out);
}

TEST_F(Relay, ATimeOutsRowHoldsUpNoAnswer) {
    start({{"dns_timeout", "1000"},
           {"log_stats_interval", "4"},
           {"stats_db_path", "/etc/vantrelle"}});
    client.send(query("quick.example", 2));
    const auto [quick, from] = arrival();
    server->send_to(answer_to(quick, id_of(quick)), from);
    EXPECT_TRUE(client.receive());
    client.send(query("silent.example", 3));
    arrival();
    usleep(500'000);
    client.send(query("slow.example", 4)); // the fourth: from now on each reset writes a row, too
    const auto [slow, slow_from] = arrival();
    ASSERT_TRUE(wait_for_log("[ Req: 4 ]"));
    sqlite3 *db = nullptr;
    ASSERT_EQ(sqlite3_open("/etc/vantrelle/vantrelle.db", &db), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(db, "begin exclusive", nullptr, nullptr, nullptr), SQLITE_OK);
    ASSERT_TRUE(wait_for_log("Response timed out"));
    server->send_to(answer_to(slow, id_of(slow)), slow_from);
    EXPECT_EQ(client.receive(400), answer_to(slow, 4)) << "waited for the row";
    sqlite3_close(db);
    EXPECT_TRUE(wait_for_log("[ Req: 4 ] [ Blocked: 0 ] [ Resets: 1 ]"));
}

} // namespace
