// The database as the daemon keeps it, with rows that are written at once and with rows that wait
// in memory: what is in it after restarts, kills, locks and full disks, and how large it becomes.
// For the whole of it, which takes minutes:
//     RECORDER_NAMES=400000 RECORDER_ROUNDS=20 build/release/bin/system_tests
//     --gtest_filter='*Statistics*'
#include "bus.h"
#include "database.h"

#include <random>

#include <sys/mount.h>

using namespace harness;

namespace {

using std::chrono::steady_clock, std::chrono::milliseconds;

const std::string place = "/etc/vantrelle";
const std::string file = place + "/vantrelle.db";
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t MAX_GROWTH = 1 << 20; // KiB; a sanitizer keeps what was freed
#else
constexpr size_t MAX_GROWTH = 512;
#endif

size_t number_from(const char *variable, size_t otherwise) {
    const char *text = getenv(variable);
    return text ? std::stoul(text) : otherwise;
}

int number(const std::string &sql) {
    return std::stoi("0" + read_rows(sql));
}
int rows_like(const std::string &prefix) {
    return number("select count(*) from dns_traffic where fqdn like '" + prefix + "%'");
}

struct Statistics : BusTest {
    const Client client;
    milliseconds slowest{};
    size_t slow = 0; // queries above 20 ms

    void SetUp() override {
        BusTest::SetUp();
        write_file(place + "/black.lst", "ads.example,1\n");
    }
    void stop() { EXPECT_EQ(daemon->stop(), 0); }
    // Leaves what an earlier run would: the lists, and the totals in the second row of counters.
    void run_before() {
        start();
        stop();
        read_rows("insert into summary (req, blocked, reset, error) values (1000, 1, 2, 3)");
    }
    // Asks for the numbers from 0 on behind `prefix`, one after the other, with RECORDER_PAUSE
    // microseconds in between. Afterwards all have their rows, or are queued.
    void ask(const std::string &prefix, size_t count, const std::string &suffix = ".example") {
        static const size_t pause = number_from("RECORDER_PAUSE", 0);
        for (size_t i = 0; i < count; i++) {
            const auto begin = steady_clock::now();
            ASSERT_TRUE(client.ask(query(prefix + std::to_string(i) + suffix)));
            const auto took = std::chrono::duration_cast<milliseconds>(steady_clock::now() - begin);
            slowest = std::max(slowest, took);
            slow += took > milliseconds(20);
            if (pause)
                usleep(pause);
        }
        EXPECT_TRUE(passes("vantrelle")) << "not recorded, but behind all that is";
    }
    bool is_blocked(const std::string &name) const {
        return rcode_of(client.ask(query(name)).value_or("")) == 3;
    }
};

// Rows are written at once, or up to a second later.
struct Delay : Statistics, testing::WithParamInterface<const char *> {
    const bool late = *GetParam() != '0';
};
INSTANTIATE_TEST_SUITE_P(Statistics, Delay, testing::Values("0", "1"));

// All rows but for the times of hits, which are compared with the clock.
std::string all_rows() {
    std::string text = read_rows("select * from summary") + read_rows("select * from dns_traffic");
    for (const std::string list : LISTS) {
        for (const char *kind : {"", "_fqdn", "_hit"})
            text += list + kind + '\n' + read_rows("select * from " + list + kind);
        text += read_rows("select id, frag_id, ip, abs(timestamp - strftime('%s', 'now')) < 600 "
                          "from " +
                          list + "_stats");
    }
    return text;
}

// Queries of every kind, names with quotes and too long ones, and edits that give an entry a new
// row between two of its hits.
TEST_F(Statistics, RowsThatWaitAreThoseThatAreWrittenAtOnce) {
    std::string long_end;
    while (long_end.size() < 220)
        long_end += "23456789.1";
    const std::pair<const char *, std::string> kinds[] = {{"www", ".example"},
                                                          {"host", ".ads.example"},
                                                          {"good", ".ads.example"},
                                                          {"it's", ".ads.example"},
                                                          {"who's", ".example"},
                                                          {"edited", ".test"},
                                                          {"again", ""},
                                                          {"a", long_end}};
    std::string rows[2], errors[2];
    for (const int late : {0, 1}) {
        SetUp();
        fs::remove(file);
        write_file(place + "/local_white.lst", "good,2\n");
        write_file(place + "/blocked_device.lst", "192.168.8.21,4\n");
        write_file(place + "/local_device.lst", "192.168.8.22,4\n");
        start({{"stats_write_delay", late ? "2" : "0"}, {"log_stats_interval", "997"}});
        const Client clients[]{Client(20), Client(21), Client(22)};
        Connection connection;
        for (size_t asked = 0; asked < 10'000; asked += 50) {
            for (size_t n = asked; n < asked + 50; n++) {
                const auto &[before, behind] = kinds[n % std::size(kinds)];
                clients[n / 7 % 25 % 3].send(query(before + std::to_string(n % 700) + behind));
            }
            for (size_t n = asked; n < asked + 50; n++)
                ASSERT_TRUE(clients[n / 7 % 25 % 3].receive());
            if (asked % 2000 != 1000)
                continue;
            for (const char *method : {"remove", "add"})
                connection.start(method, R"({"list":"bl","pattern":".test","option":"1"})");
            connection.serve(20000);
        }
        ask("", 0);
        daemon->signal(SIGUSR2);
        EXPECT_TRUE(eventually([] { return number("select count(*) from summary") == 12; }));
        rows[late] = all_rows();
        for (const LogLine &line : log_lines())
            if (line.priority == LOG_ERR && line.text.find("SQL") != std::string::npos)
                errors[late] += line.text + '\n';
        stop();
    }
    EXPECT_GT(rows[0].size(), 1U << 18);
    EXPECT_TRUE(rows[0] == rows[1]);
    EXPECT_NE(errors[0].find("values('who's"), std::string::npos);
    EXPECT_TRUE(errors[0] == errors[1]);
}

// The odd rounds end within the time of a start with an import, the others some answers later.
TEST_P(Delay, AKillCostsWhatWaitedAndNothingElse) {
    constexpr int LINES = 3000;
    const std::string list = place + "/black.lst";
    const int rounds = static_cast<int>(number_from("RECORDER_ROUNDS", late ? 8 : 16));
    const auto seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    configure({{"stats_db_path", place}, {"stats_write_delay", GetParam()}});
    int lines = 0, lost = 0;
    steady_clock::duration start_time = std::chrono::seconds(20); // the shortest one so far
    for (int round = 0; round < rounds && !HasFailure(); round++) {
        const std::string prefix = "r" + std::to_string(round) + "-";
        {
            std::ofstream out(list);
            for (int line = 0; line < LINES; line++)
                out << prefix << line << ".test,4\n";
        }
        const auto part = static_cast<int>(random() % 1000);
        const auto begin = steady_clock::now();
        auto end = begin + (round % 2 ? start_time * part / 1000 : start_time * 10);
        std::vector<steady_clock::time_point> answers;
        const Client device; // which gets no answer of the round before
        Process killed(daemon_program, {});
        for (int i = 0; steady_clock::now() < end; i++, usleep(late ? 2000 : 0)) {
            device.send(query(prefix + std::to_string(i) + ".example"));
            if (!device.receive(5))
                continue;
            answers.push_back(steady_clock::now());
            if (answers.size() > 1)
                continue;
            start_time = std::min(start_time, answers[0] - begin);
            if (round % 2 == 0)
                end = answers[0] + milliseconds(late ? 2000 + part : part / 5);
        }
        killed.signal(SIGKILL);
        // The last answer leaves before its row is recorded. What is due is about to be written.
        const auto due = steady_clock::now() - milliseconds(late ? 2000 : 0);
        killed.wait();
        EXPECT_EQ(read_rows("pragma integrity_check"), "ok\n");
        const int written = rows_like(prefix);
        EXPECT_GE(written + 1, std::count_if(answers.begin(), answers.end(),
                                             [&](auto time) { return time < due; }));
        // Workers that are at it may be overtaken.
        EXPECT_LE(number("select max(n) - min(n) + 1 - count(*) from (select cast(substr(fqdn, "
                         "instr(fqdn, '-') + 1) as int) n from dns_traffic where fqdn like '" +
                         prefix + "%')"),
                  5);
        lost += std::max(0, static_cast<int>(answers.size()) - written);
        const int rows = number("select count(*) from black");
        EXPECT_TRUE(rows == lines + LINES || (rows == lines && fs::exists(list))) << rows;
        lines = rows;
    }
    EXPECT_EQ(lost > rounds, late) << "nothing waited";
    EXPECT_GE(lines, LINES * rounds / 2);
    EXPECT_LT(lines, LINES * rounds) << "no kill came before the end of an import";
}

// Whatever holds the file during a start, for less than ten seconds, costs nothing but the time.
TEST_F(Statistics, AStartWaitsForAnotherProcess) {
    run_before();
    for (const char *sql : {"begin exclusive", "begin; select * from summary", "begin immediate"}) {
        SCOPED_TRACE(sql);
        std::optional<Holder> other(std::in_place, file, sql);
        const std::jthread end([&] { usleep(1'500'000), other.reset(); });
        start();
        EXPECT_EQ(read_file(file)[18], 2); // with a write-ahead log
        EXPECT_TRUE(is_blocked("ads.example"));
        stop();
        EXPECT_GT(number("select max(req) from summary"), 1000);
    }
}

// A lock that outlasts the start costs no totals, the lists only for as long, and no row that
// waits.
TEST_P(Delay, WhatALockKeptFromTheStartComesLater) {
    run_before();
    std::optional<Holder> other(std::in_place, file, "begin exclusive");
    start({{"stats_write_delay", GetParam()}, {"log_stats_interval", "10"}});
    ask("early", 100);
    EXPECT_EQ(log_count("Stats database without write-ahead log, database is locked"), 1U);
    sleep(late); // until writing was tried
    other.reset();
    EXPECT_EQ(eventually([] { return rows_like("early") == 100; }, late ? 10000 : 0), late);
    EXPECT_TRUE(eventually([&] { return is_blocked("x.ads.example"); }, 30000));
    EXPECT_TRUE(
        eventually([] { return number("select count(*) from summary where req > 1000") > 9; }));
    EXPECT_EQ(number("select count(*) from summary where req < 1000 and id > 2"), 0);
    stop();
    EXPECT_FALSE(fs::exists(file + "-shm"));
}

// Rows that are written at once are lost then, which is said, and only the first one is waited for.
TEST_P(Delay, AnswersWhileAnotherProcessHoldsTheDatabase) {
    start({{"stats_write_delay", GetParam()}});
    std::optional<Holder> other(std::in_place, file, "begin immediate");
    const int rounds = late ? 100 : 2;
    const auto begin = steady_clock::now();
    for (int round = 0; round < rounds; round++, usleep(50'000)) {
        ask("held", 10);
        ask("", 1, ".ads.example");
    }
    EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(15));
    EXPECT_EQ(rows_like("held"), 0);
    other.reset();
    ask("after", 2);
    EXPECT_TRUE(eventually([] { return rows_like("after0") == 1; }));
    EXPECT_EQ(rows_like("held"), late ? 10 * rounds : 0);
    EXPECT_EQ(number("select count(*) from black_stats"), late ? rounds : 0);
    const std::string failed = "Couldn't execute sql statement: database is locked, insert into ";
    EXPECT_EQ(log_count(failed + "dns_traffic") >= 20, !late);
    EXPECT_EQ(log_count(failed + "black_stats ('frag_id', 'ip') values(1 , '192.168.8.20')"),
              late ? 0U : 2U);
    EXPECT_EQ(log_count("rows dropped"), 0U);
    stop();
}

TEST_F(Statistics, AFullQueueDropsTheOldestRowsAndAStopGivesUp) {
    start({{"stats_write_delay", "1"}, {"log_stats_interval", "0"}});
    std::optional<Holder> other(std::in_place, file, "begin immediate");
    ask("name", 5000);
    EXPECT_LT(slowest, milliseconds(1000)) << "one waited for room";
    ASSERT_TRUE(wait_for_log("Queue of statistics is full, "));
    other.reset();
    EXPECT_TRUE(eventually([] { return rows_like("name") == 4096; }, 30000));
    EXPECT_EQ(rows_like("name4999"), 1);
    EXPECT_EQ(log_count("Queue of statistics is full, "), 1U) << "one line a minute";
    other.emplace(file, "begin immediate");
    ask("lost", 7);
    stop();
    EXPECT_EQ(log_count("Cannot write statistics, 0"), 0U);
    EXPECT_EQ(rows_like("lost"), 0);
    // What a damaged file does not take is refused once.
    other.reset();
    std::fstream(file).seekp(
        4096L * (number("select rootpage from sqlite_master where name = 'dns_traffic'") - 1))
        << "damaged";
    start({{"stats_write_delay", "1"}});
    ask("refused", 1);
    stop();
    EXPECT_EQ(log_count("malformed, insert into dns_traffic ('fqdn', 'ip') values('refused"), 1U);
    EXPECT_EQ(log_count("Cannot write statistics, "), 1U);
}

TEST_P(Delay, ServesOnAFileSystemThatStopsTakingRows) {
    ASSERT_EQ(mount("none", place.c_str(), "tmpfs", 0, "size=1m"), 0);
    start({{"stats_write_delay", GetParam()}});
    ask("before", 10);
    {
        std::ofstream filler(place + "/filler");
        while (filler << std::string(4096, 'x') << std::flush)
            continue;
    }
    ask("full", 1000);
    sleep(late ? 3 : 0); // until writing was tried
    EXPECT_LT(rows_like("full"), 1000);
    fs::remove(place + "/filler");
    ask("after", 2);
    EXPECT_TRUE(eventually([] { return rows_like("after0") == 1; }));
    EXPECT_EQ(rows_like("full") == 1000, late);
    EXPECT_EQ(rows_like("before"), 10);
    EXPECT_EQ(log_count("Couldn't execute sql statement: database or disk is full") >= 10, !late);
    EXPECT_EQ(read_rows("pragma integrity_check"), "ok\n");
    stop();
    ASSERT_EQ(mount("none", place.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    start_daemon();
    ask("read-only", 2);
    EXPECT_TRUE(wait_for_log("Couldn't execute sql statement: attempt to write a readonly"));
    stop();
    umount2(place.c_str(), MNT_DETACH);
}

// Without a database nothing waits for it: what cannot be written is said at once.
TEST_P(Delay, ServesWithoutAWorkingDatabase) {
    write_file(file, std::string(4096, '!'));
    const std::string row = "insert into dns_traffic ('fqdn', 'ip') values('a";
    size_t rows = 0;
    for (const std::string location : {"", "/missing", "/proc", "/etc/vantrelle"}) {
        SCOPED_TRACE(location);
        configure({{"stats_db_path", location}, {"stats_write_delay", GetParam()}});
        start_daemon();
        ask("a", 2);
        rows += 2;
        EXPECT_TRUE(location == place || wait_for_log(row, rows));
        const std::string error =
            location == place
                ? "SQL error creating traffic table: SQL: file is not a database"
                : "Error opening stats database " + (location.empty() ? "(null)" : location) +
                      "/vantrelle.db, unable to open database file";
        EXPECT_EQ(log_priority(error), LOG_ERR);
        stop();
        EXPECT_EQ(log_count(row), rows);
        EXPECT_FALSE(fs::exists(file + "-shm"));
    }
    EXPECT_EQ(log_priority("Stats Database Location Not set"), LOG_ERR);
    EXPECT_FALSE(fs::exists("/missing") || fs::exists("(null)"));
}

TEST_F(Statistics, RestartContinuesTheCounters) {
    start();
    ask("a", 4);
    daemon->signal(SIGUSR2);
    EXPECT_TRUE(eventually([] { return number("select count(*) from summary") == 2; }));
    stop();
    EXPECT_FALSE(fs::exists(file + "-wal"));
    EXPECT_EQ(read_file(file)[18], 1); // a plain database file, without write-ahead log
    const int requests = number("select req from summary where id = 3");
    EXPECT_GE(requests, 5);
    EXPECT_EQ(Daemon().stop(), 0); // a datagram that is still queued then counts nothing
    EXPECT_GE(number("select req from summary where id = 4"), requests);
    read_rows("insert into summary (req, blocked, reset, error) values (3000000000, 1, 2, 3)");
    EXPECT_EQ(Daemon().stop(), 0);
    // Restored as a signed 32-bit number.
    EXPECT_EQ(read_rows("select req < 3000000100 - 4294967296 and req >= 3000000000 - 4294967296, "
                        "blocked, error from summary where id = 6"),
              "1|1|3\n");
}

// The delay is counted by another clock, and a hit has the time of its query.
TEST_F(Statistics, AClockThatIsSetBackChangesNoDelay) {
    configure({{"stats_db_path", place}, {"stats_write_delay", "5"}});
    write_file("/tmp/clock", "0");
    daemon.emplace(std::vector<std::string>{}, STAGED_DAEMON);
    Daemon::prime();
    for (const char *clock : {"0", "86400", "-86400"}) {
        write_file("/tmp/clock", clock);
        ask("c", 1, ".ads.example");
    }
    EXPECT_EQ(read_rows("select count(*) from black_stats"), "0\n");
    EXPECT_TRUE(eventually([] { return number("select count(*) from black_stats") == 3; }, 20000));
    EXPECT_EQ(
        read_rows("select (timestamp - strftime('%s', 'now') + 86400 * 3 + 3600) / 86400 from "
                  "black_stats"),
        "3\n4\n2\n");
    stop();
}

TEST_F(Statistics, AShutdownUnderLoadLosesNothing) {
    start({{"stats_write_delay", "3600"},
           {"log_stats_interval", "0"}, // whose rows would have the others written
           {"concurrent_queries", "300"}});
    std::atomic<int> answered;
    std::jthread load([&](const std::stop_token &stop) {
        const Client many(23);
        for (uint16_t id = 0; !stop.stop_requested(); id++) {
            many.send(query((id % 2 ? "load.ads" : "load") + ".example"s, id));
            while (many.receive(id % 64 ? 0 : 20))
                answered++;
        }
    });
    EXPECT_TRUE(eventually([&] { return answered > 1000; }));
    std::optional<Holder> other(std::in_place, file, "begin immediate"); // which a stop waits for
    const std::jthread end([&] { usleep(1'500'000), other.reset(); });
    stop();
    load.request_stop();
    load.join();
    EXPECT_GE(rows_like("load") + number("select count(*) from black_stats"), answered);
    EXPECT_EQ(number("select count(*) from summary where req >= (select count(*) from dns_traffic) "
                     "and id = (select max(id) from summary)"),
              1);
}

// Names that nobody asked for before, blocked and forwarded, on top of a database that is too
// large.
TEST_P(Delay, StaysNearItsLimit) {
    const size_t names = number_from("RECORDER_NAMES", 16'000);
    const int limit = names > 100'000 ? 4 : 2;
    run_before();
    read_rows(
        "with recursive n(x) as (select 1 union all select x + 1 from n where x < 100000) "
        "insert into dns_traffic (fqdn, ip) select 'grown before the option was set ' || x, '' "
        "from n");
    const auto grown = fs::file_size(file);
    ASSERT_GT(grown, static_cast<uintmax_t>(limit) << 20);
    start({{"stats_write_delay", GetParam()},
           {"stats_max_size", std::to_string(limit)},
           {"log_stats_interval", "20"}});
    const std::string in_use =
        "select (page_count - freelist_count) * page_size / 1024 from pragma_page_count, "
        "pragma_freelist_count, pragma_page_size";
    EXPECT_TRUE(eventually([&] { return number(in_use) <= limit * 1024; }, 30000));
    std::mt19937 random(1);
    size_t before = 0;
    int largest = 0;
    for (size_t asked = 0; asked < names && !HasFailure(); asked += 500) {
        if (asked >= names / 4 && before == 0)
            before = daemon->figure("VmRSS");
        ask(std::to_string(random()) + std::to_string(random()) + "-", 500,
            asked % 4000 ? ".ads.example" : ".example");
        largest = std::max(largest, number(in_use));
    }
    const size_t after = daemon->figure("VmRSS");
    printf("%zu names: %d KiB at most, resident %zu KiB, then %zu, slowest %d ms, %zu above 20\n",
           names, largest, before, after, static_cast<int>(slowest.count()), slow);
    EXPECT_LE(slow, names / 100); // of these most have waited for the processor
    EXPECT_LE(largest, (limit + 1) * 1024);
    EXPECT_GT(largest, limit * 1024 * 9 / 10);
    EXPECT_LE(after, before + MAX_GROWTH);
    stop();
    EXPECT_LE(fs::file_size(file), std::max<uintmax_t>(grown, (limit + 1) << 20));
    EXPECT_EQ(read_rows("pragma integrity_check"), "ok\n");
    EXPECT_EQ(read_rows("select count(*) >= min(max(id), 1000) from summary"), "1\n");
    EXPECT_EQ(read_rows("select frag from black"), "ads.example\n");
    // What is left is whole, and the newest.
    EXPECT_EQ(
        read_rows("select (select count(*) from black_stats) - (select count(*) from black_hit), "
                  "(select count(*) from black_hit) - (select count(*) from black_fqdn), "
                  "(select count(*) from black_hit where stats_id not in (select id from "
                  "black_stats) or fqdn_id not in (select id from black_fqdn)), "
                  "(select max(id) - min(id) + 1 - count(*) from black_stats)"),
        "0|0|0|0\n");
    EXPECT_GT(number("select min(id) from black_stats"), 1);
    EXPECT_GE(log_count("Deleted "), 2U);
}

} // namespace
