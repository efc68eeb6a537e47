// The statistics database as the daemon keeps it: over restarts, kills and file systems that fail.
#include "config.h"
#include "database.h"
#include "harness.h"
#include "log.h"
#include "statsdb.h"

#include <cstdlib>
#include <random>

#include <sys/mount.h>

using namespace harness;

namespace {

const std::string place = "/tmp/statistics";
const std::string file = place + "/vantrelle.db";

struct DatabaseSystemTest : SystemTest {
    Upstream upstream{1};
    Client client;

    void SetUp() override {
        SystemTest::SetUp();
        fs::create_directory(place);
        configure({{"stats_db_path", place}});
    }
    void TearDown() override {
        umount2(place.c_str(), MNT_DETACH);
        fs::remove_all(place);
    }
    // Asks for names that begin with `prefix`, one after the other, all of which are answered.
    void ask(const std::string &prefix, int count) const {
        for (int i = 0; i < count; i++)
            ASSERT_TRUE(client.ask(query(prefix + std::to_string(i) + ".example")));
    }
    static std::string read(const std::string &sql) { return read_rows(file, sql); }
    static int number(const std::string &sql) { return std::stoi("0" + read(sql)); }
};

// The odd rounds end within the time of a start with an import, the others after some answers.
TEST_F(DatabaseSystemTest, AKillLosesNothingThatWasFinished) {
    using std::chrono::steady_clock;
    constexpr int ROUNDS = 20, LINES = 3000;
    const std::string list = "/etc/vantrelle/black.lst";
    const auto seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    int lines = 0, answered = 0;
    steady_clock::duration start_time = std::chrono::hours(1); // the shortest one so far
    for (int round = 0; round < ROUNDS && !HasFailure(); round++) {
        {
            std::ofstream out(list);
            for (int line = 0; line < LINES; line++)
                out << round << '-' << line << ".example,4\n";
        }
        const auto part = static_cast<int>(random() % 1000);
        const auto begin = steady_clock::now(),
                   end = begin + (round % 2 ? start_time * part / 1000 : std::chrono::hours(1));
        Process daemon(daemon_program, {});
        for (int left = 1 + part / 5; left > 0 && steady_clock::now() < end;) {
            client.send(query("a.example"));
            if (client.receive(5)) {
                answered++, left--;
                start_time = std::min(start_time, steady_clock::now() - begin);
            }
        }
        daemon.signal(SIGKILL);
        daemon.wait();
        while (client.receive(0))
            answered++;
        EXPECT_EQ(read("pragma integrity_check"), "ok\n");
        // The last answer leaves before its row is written; those before it have theirs.
        EXPECT_GE(number("select count(*) from dns_traffic"), answered - round - 1);
        const int rows = number("select count(*) from black");
        EXPECT_TRUE(rows == lines + LINES || (rows == lines && fs::exists(list))) << rows;
        lines = rows;
    }
    EXPECT_GE(lines, LINES * ROUNDS / 2);
    EXPECT_LT(lines, LINES * ROUNDS) << "no kill came before the end of an import";
}

// Whatever holds the file during a start, for less than ten seconds, costs nothing but the time.
TEST_F(DatabaseSystemTest, AStartWaitsForAnotherProcess) {
    write_file("/etc/vantrelle/black.lst", "ads.example\n");
    EXPECT_EQ(Daemon().stop(), 0);
    read("insert into summary (req, blocked, reset, error) values (1000, 1, 2, 3)");
    for (const char *sql : {"begin exclusive", "begin; select * from summary", "begin immediate"}) {
        SCOPED_TRACE(sql);
        std::optional<Holder> other(std::in_place, file, sql);
        const std::jthread end([&] { usleep(1'500'000), other.reset(); });
        PrimedDaemon daemon;
        EXPECT_EQ(read_file(file)[18], 2); // with a write-ahead log
        EXPECT_EQ(rcode_of(client.ask(query("ads.example")).value()), 3);
        EXPECT_EQ(daemon.stop(), 0);
        EXPECT_GT(number("select max(req) from summary"), 1000);
    }
}

// A lock that outlasts the start costs no totals, and the lists only for as long.
TEST_F(DatabaseSystemTest, WhatALockKeptFromTheStartComesLater) {
    write_file("/etc/vantrelle/black.lst", "ads.example\n");
    EXPECT_EQ(Daemon().stop(), 0);
    read("insert into summary (req, blocked, reset, error) values (1000, 1, 2, 3)");
    configure({{"stats_db_path", place}, {"log_stats_interval", "1"}});
    std::optional<Holder> other(std::in_place, file, "begin exclusive");
    PrimedDaemon daemon;
    const std::string rows = "select count(*) from summary";
    ASSERT_TRUE(client.ask(query("ads.example")));
    EXPECT_EQ(log_count("Stats database without write-ahead log, database is locked"), 1U);
    other.reset();
    const int before = number(rows);
    EXPECT_TRUE(
        eventually([&] { return rcode_of(client.ask(query("ads.example")).value()) == 3; }, 12000));
    EXPECT_TRUE(eventually([&] { return number(rows) > before; }));
    EXPECT_EQ(number("select count(*) from summary where req < 1000 and id > 2"), 0);
    EXPECT_EQ(daemon.stop(), 0);
    EXPECT_FALSE(fs::exists(file + "-shm"));
}

TEST_F(DatabaseSystemTest, AnswersWhileAnotherProcessHoldsTheDatabase) {
    write_file("/etc/vantrelle/black.lst", "ads\n");
    PrimedDaemon daemon;
    std::optional<Holder> other(std::in_place, file, "begin immediate");
    const time_t begin = time(nullptr);
    for (const char *name : {"a", "ads", "b", "c", "ads", "d"})
        ask(name, 1);
    EXPECT_LE(time(nullptr) - begin, 4) << "the wait is for once, and not for every row";
    const std::string failed = "Couldn't execute sql statement: database is locked, insert into ";
    EXPECT_GE(log_count(failed + "dns_traffic"), 2U);
    EXPECT_EQ(log_count(failed + "black_stats ('frag_id', 'ip') values(1 , '192.168.8.20')"), 2U);
    other.reset();
    ask("after", 2);
    EXPECT_EQ(read("select count(*) from dns_traffic where fqdn like 'after0%'"), "1\n");
    EXPECT_EQ(daemon.stop(), 0);
}

TEST_F(DatabaseSystemTest, RestartContinuesTheCounters) {
    {
        PrimedDaemon daemon;
        ask("a", 4);
        daemon.signal(SIGUSR2);
        EXPECT_TRUE(eventually([] { return number("select count(*) from summary") == 2; }));
        EXPECT_EQ(daemon.stop(), 0);
    }
    EXPECT_FALSE(fs::exists(file + "-wal"));
    EXPECT_EQ(read_file(file)[18], 1); // a plain database file, without write-ahead log
    const int requests = number("select req from summary where id = 3");
    EXPECT_GE(requests, 5);
    EXPECT_EQ(Daemon().stop(), 0); // a datagram that is still queued then counts nothing
    EXPECT_GE(number("select req from summary where id = 4"), requests);
    read("insert into summary (req, blocked, reset, error) values (3000000000, 1, 2, 3)");
    EXPECT_EQ(Daemon().stop(), 0);
    // Restored as a signed 32-bit number.
    EXPECT_EQ(read("select req < 3000000100 - 4294967296 and req >= 3000000000 - 4294967296, "
                   "blocked, error from summary where id = 6"),
              "1|1|3\n");
}

TEST_F(DatabaseSystemTest, ServesWithoutAWorkingDatabase) {
    const std::string opening = "Error opening stats database ",
                      unable = "/vantrelle.db, unable to open database file";
    const std::pair<std::string, std::string> cases[] = {
        {"", opening + "(null)" + unable},
        {place + "/missing", opening + place + "/missing" + unable},
        {"/proc", opening + "/proc" + unable},
        {place, "SQL error creating traffic table: SQL: file is not a database"},
    };
    write_file(file, std::string(4096, '!'));
    const std::string row = "insert into dns_traffic ('fqdn', 'ip') values('a";
    size_t rows = 0; // which cannot be written; without a database that is said at once
    for (const char *delay : {"0", "10"})
        for (const auto &[location, error] : cases) {
            SCOPED_TRACE(delay + error);
            configure({{"stats_db_path", location}, {"stats_write_delay", delay}});
            PrimedDaemon daemon;
            ask("a", 2);
            rows += 2;
            EXPECT_TRUE(location == place || wait_for_log(row, rows, 3000));
            EXPECT_EQ(log_priority(error), LOG_ERR);
            EXPECT_EQ(daemon.stop(), 0);
            EXPECT_EQ(log_count(row), rows);
            EXPECT_FALSE(fs::exists(file + "-shm"));
        }
    EXPECT_EQ(log_priority("Stats Database Location Not set"), LOG_ERR);
    EXPECT_FALSE(fs::exists(place + "/missing") || fs::exists("(null)"));
}

TEST_F(DatabaseSystemTest, ServesOnAFileSystemThatStopsTakingRows) {
    ASSERT_EQ(mount("none", place.c_str(), "tmpfs", 0, "size=1m"), 0);
    PrimedDaemon daemon;
    ask("before", 2);
    const auto errors = [](const char *reason) {
        return log_count("Couldn't execute sql statement: " + std::string(reason));
    };
    {
        std::ofstream filler(place + "/filler");
        while (filler << std::string(4096, 'x') << std::flush)
            continue;
    }
    ask("full", 40);
    EXPECT_GE(errors("database or disk is full"), 10U);
    fs::remove(place + "/filler");
    ask("after", 2);
    EXPECT_EQ(read("pragma integrity_check"), "ok\n");
    EXPECT_EQ(read("select count(*) from dns_traffic where fqdn like 'after0%'"), "1\n");
    EXPECT_EQ(daemon.stop(), 0);
    ASSERT_EQ(mount("none", place.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    PrimedDaemon again;
    ask("read-only", 2);
    EXPECT_GE(errors("attempt to write a readonly database"), 1U);
    EXPECT_EQ(again.stop(), 0);
}

// What cannot be written or read is said with the reason.
TEST_F(DatabaseSystemTest, ErrorsAreLogged) {
    openlog("database", LOG_PID, LOG_LOCAL0);
    oDNS.record_traffic = 1;
    ASSERT_EQ(open_database(file.c_str(), &oDNS.db), SQLITE_OK);
    create_list_stats_table("black");
    create_frag_key("~ads", 1, "white");
    remove_frag_key("it's", "black");
    insert_list_record("a.example", "black", "x", "10.0.0.1");
    insert_list_record("a.example", "white", "x", "10.0.0.1");
    EXPECT_EQ(get_frag_by_id(-1, "white"), nullptr);
    close_database();
    expect_logged(
        LOG_ERR,
        {"SQL error inserting list key ~ads into white: no such table: white",
         "SQL error deactivating list key it's into black: SQL logic error",
         "Stats record insert cannot locate black record for frag: x. This should never happen",
         "Couldn't prepare sql statement: no such table: white",
         "SQL error in get_frag_by_id no such table: white, id: -1: no such table: white, "
         "SQL: select frag, opt from white where id = -1"});
}

} // namespace
