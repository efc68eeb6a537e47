// Classification and diversion, end to end: real packets from several clients, and the rows that
// they leave in the database.
#include "database.h"
#include "transcript.h"

#include <random>

using namespace harness;

namespace {

const std::string BASE = "/etc/vantrelle";

// Name pointer, type A, class IN, 1345 seconds, 255.255.255.255.
const Bytes LOCAL_ANSWER = "\xC0\x0C\x00\x01\x00\x01\x00\x00\x05\x41\x00\x04\xFF\xFF\xFF\xFF"s;

// What a diverted query must get, byte for byte.
Bytes diverted(const Bytes &query) {
    Bytes answer = query;
    answer[2] = '\x80';
    answer[3] = static_cast<char>(answer[3] | '\x83');
    answer[6] = 0;
    answer[7] = 1;
    answer[10] = answer[11] = 0;
    return answer + LOCAL_ANSWER;
}

// Which entry of a list decided which name for which client.
std::string hits(const std::string &list) {
    return read_rows("select frag, f.fqdn, s.ip from " + list + "_hit h join " + list +
                     "_fqdn f on f.id = h.fqdn_id join " + list +
                     "_stats s on s.id = h.stats_id join " + list +
                     " l on l.id = s.frag_id order by h.id");
}

struct Filter : SystemTest {
    const Upstream upstream{1};

    void SetUp() override {
        SystemTest::SetUp();
        write_file(BASE + "/black.lst", "ads\nin-addr\nboth.example,4\n");
        write_file(BASE + "/local_black.lst", "tracker.example,1\n");
        write_file(BASE + "/white.lst", "good-ads.example,4\n");
        write_file(BASE + "/local_white.lst", "both.example,4\n");
        write_file(BASE + "/blocked_device.lst", "192.168.8.21,4\n");
        write_file(BASE + "/local_device.lst", "192.168.8.22,4\n192.168.8.21,4\n");
        configure({{"stats_db_path", BASE}});
    }
};

#define NIBBLES "0.1.2.3.4.5.6.7.8.9.a.b.c.d.e.f."

struct Case {
    int client;
    const char *name;
    bool blocked;
    const char *line; // that the decision logs, if any
};

const Case CASES[] = {
    {20, "plain.example", false, ""},
    {20, "ads.example", true, "ads.example blacklisted (192.168.8.20)"},
    {20, "x.tracker.example", true, "x.tracker.example locally blacklisted (192.168.8.20)"},
    {20, "ADS.example", false, ""},
    {20, "good-ads.example", false, "good-ads.example whitelisted (192.168.8.20)"},
    {20, "both.example", false, "both.example locally whitelisted (192.168.8.20)"},
    {21, "plain.example", true, "192.168.8.21 is blocked client, plain.example"},
    {21, "good-ads.example", true, "192.168.8.21 is blocked client, good-ads.example"},
    {21, "vantrelle", false, "vantrelle is local server (192.168.8.21)"},
    {22, "ads.example", false, "192.168.8.22 is excluded device, forwarding ads.example"},
    {20, "VANTRELLE-22aabbcc", false, "VANTRELLE-22aabbcc is local server (192.168.8.20)"},
    {20, "vantrelle-22AABBCC.loca", false,
     "vantrelle-22AABBCC.loca is local server (192.168.8.20)"},
    {20, "it's.ads", true, "it's.ads blacklisted (192.168.8.20)"}, // not recorded; the rest is
    {20, "a.b.example", false, ""},
    {20, NIBBLES NIBBLES "ip6.arpa", false, ""},
    {20, "in-addr.arpa", true, "in-addr.arpa blacklisted (192.168.8.20)"},
    {20, "1in-addr.arpa", false, ""}, // long enough for a reverse lookup, which is never filtered
};

// One daemon's life in which all of them are asked.
void ask_cases() {
    PrimedDaemon daemon;
    uint16_t id = 100;
    for (const Case &c : CASES) {
        SCOPED_TRACE(c.name);
        Bytes question = query(c.name, ++id, 1, true);
        question[3] = '\x30'; // bits that an answer keeps
        EXPECT_EQ(Client(c.client).ask(question),
                  c.blocked ? diverted(question) : Upstream::echo(question));
        EXPECT_EQ(log_priority(c.line), *c.line ? 6 : -1);
    }
    EXPECT_EQ(daemon.stop(), 0);
}

} // namespace

TEST_F(Filter, DecidesInOrderAndRecords) {
    ask_cases();
    EXPECT_EQ(
        read_rows(
            "select fqdn, ip, timestamp from dns_traffic where ip between '192.168.8.20' and "
            "'192.168.8.22' and (fqdn like '%.example' or fqdn like '%.ip6.arpa') order by id"),
        "plain.example|192.168.8.20|0\nADS.example|192.168.8.20|0\n"
        "good-ads.example|192.168.8.20|0\nboth.example|192.168.8.20|0\n"
        "ads.example|192.168.8.22|0\na.b.example|192.168.8.20|0\n" NIBBLES NIBBLES
        "ip6.arpa|192.168.8.20|0\n");
    std::string deciding;
    for (const char *list : LISTS)
        deciding += hits(list);
    EXPECT_EQ(deciding, "ads|ads.example|192.168.8.20\n"
                        "in-addr|in-addr.arpa|192.168.8.20\n"
                        "tracker.example|x.tracker.example|192.168.8.20\n"
                        "good-ads.example|good-ads.example|192.168.8.20\n"
                        "both.example|both.example|192.168.8.20\n"
                        "192.168.8.22|ads.example|192.168.8.22\n"
                        "192.168.8.21|plain.example|192.168.8.21\n"
                        "192.168.8.21|good-ads.example|192.168.8.21\n");
    EXPECT_EQ(read_rows("select req - blocked > 8, blocked from summary order by id desc limit 1"),
              "1|6\n");
}

TEST_F(Filter, DecidesAlikeWithoutRecording) {
    configure({{"stats_db_path", BASE}, {"record_traffic", "0"}, {"log_stats_interval", "3"}});
    ask_cases(); // some of them at once, in the receiving thread
    EXPECT_EQ(read_rows("select count(*) from dns_traffic") + hits("black"), "0\n");
    EXPECT_EQ(read_rows("select blocked from summary where req in (3, 9) order by id"), "1\n4\n");
    EXPECT_EQ(log_count("[ Req: 9 ] [ Blocked: 4 ] [ Resets: 0 ] [ Errors: 0 ]"), 1u);
}

// What a strict parser makes of the answers: without and with EDNS, and with an option in it.
TEST_F(Filter, AnswersBlockedQueriesAsSet) {
    expect_transcript("block-answer", PROCESS_TOOLS);
}

// As newer resolvers spell names, at random.
TEST_F(Filter, FindsNamesInAnySpelling) {
    configure({{"stats_db_path", BASE}, {"ignore_case", "1"}});
    PrimedDaemon daemon;
    const Client client;
    std::mt19937 random;
    const auto spelled = [&](Bytes name) {
        for (char &letter : name)
            if (letter != '.' && random() % 2)
                letter = static_cast<char>(toupper(letter));
        return name;
    };
    for (int i = 0; i < 100; i++) {
        const Bytes blocked = query(spelled("x.tracker.example")),
                    open = query(spelled("ok.example"));
        EXPECT_EQ(client.ask(blocked), diverted(blocked));
        EXPECT_EQ(client.ask(open), Upstream::echo(open));
        EXPECT_EQ(upstream.received().back(), open);
    }
    EXPECT_TRUE(passes("Good-ADS.example") && passes("IN-Addr.1.IN-ADDR.arpa"));
    EXPECT_EQ(daemon.stop(), 0);
    EXPECT_EQ(hits("white"), "good-ads.example|good-ads.example|192.168.8.20\n");
    EXPECT_EQ(read_rows("select f.fqdn, count(*) from local_black_stats s, local_black_fqdn f"),
              "x.tracker.example|100\n");
    EXPECT_EQ(read_rows("select fqdn, count(*) from dns_traffic where fqdn like '%ok%'"),
              "ok.example|100\n");
    EXPECT_EQ(read_rows("select count(*) from dns_traffic where fqdn like '%arpa'"), "0\n");
}

TEST_F(Filter, OneAloneDisablesAndRecordsQueries) {
    for (const char *value : {"1", "2"}) {
        configure({{"stats_db_path", BASE}, {"disabled", value}, {"record_traffic", value}});
        PrimedDaemon daemon;
        for (const int client : {20, 21})
            EXPECT_EQ(passes("ads.example", client), *value == '1');
        EXPECT_EQ(daemon.stop(), 0);
        EXPECT_EQ(read_rows("select count(*) from dns_traffic"), "0\n");
        EXPECT_EQ(hits("black"), *value == '1' ? "" : "ads|ads.example|192.168.8.20\n");
    }
}

// A blocked query whose report is due, for which the database is not free.
TEST_F(Filter, AReportKeepsNothingFromBeingReceived) {
    configure({{"stats_db_path", BASE}, {"record_traffic", "0"}, {"log_stats_interval", "2"}});
    const PrimedDaemon daemon;
    const Holder other(BASE + "/vantrelle.db", "begin immediate");
    const Client client;
    const auto taken = [] { return not_received() == 0; };
    for (int sent = 0; sent < 5; sent++) {
        client.send(query("ads.example"));
        EXPECT_TRUE(eventually(taken, 800)) << sent;
        usleep(10'000);
    }
    EXPECT_TRUE(wait_for_log("database is locked, insert into summary")) << "no report waited";
}

TEST_F(Filter, TakesMessagesOfAnySizeAndAnyName) {
    PrimedDaemon daemon;
    const Client client;
    for (const size_t size : {0, 1, 2, 11})
        EXPECT_EQ(client.ask(Bytes(size, '\x7f')), Upstream::echo(Bytes(size, '\x7f'))) << size;
    for (const size_t size : {29, 496, 497, 511, 512}) {
        Bytes question = query("ads.example", static_cast<uint16_t>(size));
        question.resize(size, '\x55');
        EXPECT_EQ(client.ask(question), diverted(question)) << size;
    }
    const std::string names[] = {"%n%s%s%",      "a;b",       "\"x\"",
                                 "high\xff\x80", "cut\0off"s, "x','1');drop table black;--"};
    const Bytes header = query("").substr(0, 12);
    std::vector<Bytes> messages{header + Bytes(500, '\xff'), // label lengths that lead the decoder
                                header + "\xc0\x0c"s,        // round in circles
                                Bytes(512, '\xff')};
    for (const std::string &name : names)
        messages.push_back(query(name));
    for (const Bytes &message : messages)
        EXPECT_EQ(client.ask(message), Upstream::echo(message));
    EXPECT_EQ(client.ask(query("ads.example")), diverted(query("ads.example")));
    EXPECT_EQ(daemon.stop(), 0);
    EXPECT_EQ(log_count("SQL logic error, insert into dns_traffic ('fqdn', 'ip') "
                        "values('x','1');drop table black;--', '192.168.8.20')"),
              1u);
    EXPECT_EQ(read_rows("select frag from black order by id"), "ads\nin-addr\nboth.example\n");
    EXPECT_EQ(read_rows("select fqdn from dns_traffic where fqdn glob '*[^.a-z]*' or fqdn = 'cut'"),
              "\f\n%n%s%s%\na;b\n\"x\"\nhigh\xff\x80\ncut\n");
}
