// Classification and diversion, end to end: real packets from several clients, and the rows that
// they leave in the database.
#include "harness.h"

#include <cstdio>
#include <sqlite3.h>
#include <sys/stat.h>

using namespace harness;
using namespace std::string_literals;

namespace {

constexpr char BASE[] = "/etc/vantrelle";

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

// The rows of a query on the closed database, one text each: columns joined by a blank.
std::vector<std::string> rows(const std::string &sql) {
    std::vector<std::string> result;
    sqlite3 *db = nullptr;
    sqlite3_open_v2((BASE + "/vantrelle.db"s).c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
    sqlite3_exec(
        db, sql.c_str(),
        [](void *out, int columns, char **values, char **) {
            std::string row;
            for (int i = 0; i < columns; i++)
                row += (i ? " "s : ""s) + (values[i] ? values[i] : "(null)");
            static_cast<std::vector<std::string> *>(out)->push_back(row);
            return 0;
        },
        &result, nullptr);
    EXPECT_STREQ(sqlite3_errmsg(db), "not an error") << sql;
    sqlite3_close(db);
    return result;
}

// Which entry of a list decided which name for which client.
std::vector<std::string> hits(const std::string &list) {
    return rows("select frag, f.fqdn, s.ip from " + list + "_hit h join " + list +
                "_fqdn f on f.id = h.fqdn_id join " + list + "_stats s on s.id = h.stats_id join " +
                list + " l on l.id = s.frag_id order by h.id");
}

class Filter : public SystemTest {
  protected:
    void SetUp() override {
        SystemTest::SetUp();
        mkdir(BASE, 0700);
    }
    static void start_with(Options options = {}) {
        options.emplace_back("stats_db_path", BASE);
        configure(options);
    }
};

const char *const BLOCKED_CLIENT = "192.168.8.21";
const char *const EXCLUDED_CLIENT = "192.168.8.22";

void write_lists() {
    const std::string base = BASE;
    write_file(base + "/black.lst", "ads\nboth.example,4\n");
    write_file(base + "/local_black.lst", "tracker.example,1\n");
    write_file(base + "/white.lst", "good-ads.example,4\n");
    write_file(base + "/local_white.lst", "both.example,4\n");
    write_file(base + "/blocked_device.lst", BLOCKED_CLIENT + ",4\n"s);
    write_file(base + "/local_device.lst", EXCLUDED_CLIENT + ",4\n"s + BLOCKED_CLIENT + ",4\n");
}

struct Case {
    int client;
    const char *name;
    bool blocked;
    const char *line; // that the decision logs, null for none
};

const Case CASES[] = {
    {20, "plain.example", false, nullptr},
    {20, "ads.example", true, "ads.example blacklisted (192.168.8.20)"},
    {20, "x.tracker.example", true, "x.tracker.example locally blacklisted (192.168.8.20)"},
    {20, "ADS.example", false, nullptr},
    {20, "good-ads.example", false, "good-ads.example whitelisted (192.168.8.20)"},
    {20, "both.example", false, "both.example locally whitelisted (192.168.8.20)"},
    {21, "plain.example", true, "192.168.8.21 is blocked client, plain.example"},
    {21, "good-ads.example", true, "192.168.8.21 is blocked client, good-ads.example"},
    {21, "vantrelle", false, "vantrelle is local server (192.168.8.21)"},
    {22, "ads.example", false, "192.168.8.22 is excluded device, forwarding ads.example"},
    {20, "VANTRELLE-22aabbcc", false, "VANTRELLE-22aabbcc is local server (192.168.8.20)"},
    {20, "vantrelle-22AABBCC.loca", false,
     "vantrelle-22AABBCC.loca is local server (192.168.8.20)"},
    {20, "1.0.168.192.in-addr.arpa.ads", false, nullptr}, // a reverse lookup is never filtered
};

} // namespace

TEST_F(Filter, DecidesInOrderAndRecords) {
    start_with();
    write_lists();
    const Upstream upstream(1);
    Daemon daemon;
    Daemon::prime();
    uint16_t id = 100;
    for (const Case &c : CASES) {
        SCOPED_TRACE(c.name);
        const Bytes question = query(c.name, ++id, 1, true);
        EXPECT_EQ(Client(c.client).ask(question),
                  c.blocked ? diverted(question) : Upstream::echo(question));
        if (c.line) {
            EXPECT_EQ(log_priority(c.line), 6);
        }
    }
    EXPECT_EQ(daemon.stop(), 0);
    using Rows = std::vector<std::string>;
    EXPECT_EQ(rows("select fqdn, ip, timestamp from dns_traffic where ip in ('192.168.8.20', "
                   "'192.168.8.21', '192.168.8.22') order by id"),
              (Rows{"plain.example 192.168.8.20 0", "ADS.example 192.168.8.20 0",
                    "good-ads.example 192.168.8.20 0", "both.example 192.168.8.20 0",
                    "ads.example 192.168.8.22 0"}));
    EXPECT_EQ(hits("black"), Rows{"ads ads.example 192.168.8.20"});
    EXPECT_EQ(hits("local_black"), Rows{"tracker.example x.tracker.example 192.168.8.20"});
    EXPECT_EQ(hits("white"), Rows{"good-ads.example good-ads.example 192.168.8.20"});
    EXPECT_EQ(hits("local_white"), Rows{"both.example both.example 192.168.8.20"});
    EXPECT_EQ(hits("local_device"), Rows{"192.168.8.22 ads.example 192.168.8.22"});
    EXPECT_EQ(hits("blocked_device"), (Rows{"192.168.8.21 plain.example 192.168.8.21",
                                            "192.168.8.21 good-ads.example 192.168.8.21"}));
    const Rows last =
        rows("select req - blocked > 8, blocked from summary order by id desc limit 1");
    EXPECT_EQ(last, Rows{"1 4"});
}

TEST_F(Filter, DisabledForwardsAndRecordsNothing) {
    start_with({{"disabled", "1"}});
    write_lists();
    const Upstream upstream(1);
    Daemon daemon;
    Daemon::prime();
    for (const int client : {20, 21})
        EXPECT_EQ(Client(client).ask(query("ads.example")), Upstream::echo(query("ads.example")));
    EXPECT_EQ(daemon.stop(), 0);
    EXPECT_EQ(rows("select count(*) from dns_traffic"), std::vector<std::string>{"0"});
}

TEST_F(Filter, AnswersCompleteMessagesOfEverySize) {
    start_with();
    write_lists();
    Daemon daemon;
    Client(29).send(query("ads.example")); // the first datagram: its sender is not answered
    const Client client;
    for (const size_t size : {29u, 200u, 496u, 497u, 512u}) {
        Bytes question = query("ads.example", static_cast<uint16_t>(size));
        question.resize(size, '\x55');
        EXPECT_EQ(client.ask(question), diverted(question)) << size;
    }
    // Too short for a header: the record still comes behind what there was.
    EXPECT_FALSE(client.ask("\1\2\3").has_value());
    EXPECT_EQ(daemon.stop(), 0);
}

TEST_F(Filter, NamesOfAnyKindAreOnlyNames) {
    start_with();
    write_lists();
    const Upstream upstream(1);
    Daemon daemon;
    Daemon::prime();
    const Client client;
    const char *injection = "x','1');drop table black;--";
    EXPECT_EQ(client.ask(query(injection)), Upstream::echo(query(injection)));
    EXPECT_EQ(client.ask(query("%n%s%s.example")), Upstream::echo(query("%n%s%s.example")));
    // Label lengths that lead the decoder round in a circle.
    const Bytes circle = query("a").substr(0, 12) + Bytes(500, '\xff');
    EXPECT_EQ(client.ask(circle), Upstream::echo(circle));
    EXPECT_EQ(client.ask(query("ads.example")), diverted(query("ads.example")));
    EXPECT_EQ(daemon.stop(), 0);
    EXPECT_EQ(log_count("Couldn't execute sql statement: "), 1u);
    EXPECT_EQ(rows("select frag from black order by id"),
              (std::vector<std::string>{"ads", "both.example"}));
}
