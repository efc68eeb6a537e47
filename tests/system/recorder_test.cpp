// Statistics that wait in memory and are kept near a size: the rows that result, whatever happens
// to the daemon, to the file or to the disk meanwhile. For the whole of it, which takes minutes:
//     RECORDER_NAMES=400000 RECORDER_ROUNDS=20 build/release/bin/system_tests
//     --gtest_filter='*Recorder*'
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

constexpr const char *LISTS[] = {"black",       "local_black",  "white",
                                 "local_white", "local_device", "blocked_device"};

size_t number_from(const char *variable, size_t otherwise) {
    const char *text = getenv(variable);
    return text ? std::stoul(text) : otherwise;
}

struct Recorder : BusTest {
    Client client;
    milliseconds slowest{};
    size_t slow = 0; // queries above 20 ms

    void SetUp() override {
        BusTest::SetUp();
        write_file(place + "/black.lst", "ads.example,1\n");
    }
    void TearDown() override {
        daemon.reset();
        umount2(place.c_str(), MNT_DETACH);
    }
    static std::string read(const std::string &sql) { return read_rows(file, sql); }
    static int number(const std::string &sql) { return std::stoi("0" + read(sql)); }
    static int rows_like(const std::string &prefix) {
        return number("select count(*) from dns_traffic where fqdn like '" + prefix + "%'");
    }
    // Asks for the numbers from `first` on behind `prefix`, one after the other, with
    // RECORDER_PAUSE microseconds in between.
    void ask(const std::string &prefix, size_t first, size_t count,
             const std::string &suffix = ".example") {
        static const size_t pause = number_from("RECORDER_PAUSE", 0);
        for (size_t i = first; i < first + count; i++) {
            const auto begin = steady_clock::now();
            ASSERT_TRUE(client.ask(query(prefix + std::to_string(i) + suffix)));
            const auto took = std::chrono::duration_cast<milliseconds>(steady_clock::now() - begin);
            slowest = std::max(slowest, took);
            slow += took > milliseconds(20);
            if (pause)
                usleep(pause);
        }
    }
};

// All rows but for the times of hits, which are compared with the clock.
std::string all_rows() {
    std::string text =
        read_rows(file, "select * from summary") + read_rows(file, "select * from dns_traffic");
    for (const std::string list : LISTS) {
        text += list + '\n' + read_rows(file, "select * from " + list);
        text +=
            read_rows(file, "select id, frag_id, ip, abs(timestamp - strftime('%s', 'now')) < 60 "
                            "from " +
                                list + "_stats");
        text += read_rows(file, "select * from " + list + "_fqdn");
        text += read_rows(file, "select * from " + list + "_hit");
    }
    return text;
}

// Queries of every kind, names with quotes and too long ones, and edits that give an entry a new
// row between two of its hits.
TEST_F(Recorder, RowsAreThoseThatAreWrittenAtOnce) {
    const std::pair<const char *, const char *> kinds[] = {
        {"www", ".example"},
        {"host", ".ads.example"},
        {"good", ".ads.example"},
        {"it's", ".ads.example"},
        {"who's", ".example"},
        {"edited", ".test"},
        {"again", ""},
        {"a", "23456789.123456789.123456789.123456789.123456789.123456789.123456789.123456789."
              "123456789.123456789.123456789.123456789.123456789.123456789.123456789.123456789."
              "123456789.123456789.123456789.123456789.123456789.123456789.123456789"}};
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
                const std::string name = before + std::to_string(n % 700) + behind;
                clients[n / 7 % 25 % 3].send(query(name));
            }
            for (size_t n = asked; n < asked + 50; n++)
                ASSERT_TRUE(clients[n / 7 % 25 % 3].receive());
            if (asked % 2000 != 1000)
                continue;
            for (const char *method : {"remove", "add"})
                connection.start(method, R"({"list":"bl","pattern":".test","option":"1"})");
            connection.serve(5000);
        }
        usleep(200'000); // the last answer leaves before its row is recorded
        daemon->signal(SIGUSR2);
        EXPECT_TRUE(eventually([] { return number("select count(*) from summary") == 12; }));
        rows[late] = all_rows();
        for (const LogLine &line : log_lines())
            if (line.priority == LOG_ERR && line.text.find("SQL") != std::string::npos)
                errors[late] += line.text + '\n';
        EXPECT_EQ(daemon->stop(), 0);
    }
    EXPECT_GT(rows[0].size(), 1U << 18);
    EXPECT_TRUE(rows[0] == rows[1]);
    EXPECT_NE(errors[0].find("values('who's"), std::string::npos);
    EXPECT_TRUE(errors[0] == errors[1]);
}

TEST_F(Recorder, AKillCostsWhatWaitedAndNothingElse) {
    const auto seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    size_t lost = 0;
    const size_t rounds = number_from("RECORDER_ROUNDS", 4);
    for (size_t round = 0; round < rounds && !HasFailure(); round++) {
        const std::string prefix = "r" + std::to_string(round) + "-";
        start({{"stats_write_delay", "1"}, {"log_stats_interval", "0"}});
        std::vector<steady_clock::time_point> times;
        const auto end = steady_clock::now() + milliseconds(1200 + random() % 1200);
        while (steady_clock::now() < end) {
            ask(prefix, times.size(), 1);
            times.push_back(steady_clock::now());
            usleep(2000);
        }
        daemon->signal(SIGKILL);
        // What is due is about to be written.
        const auto due = steady_clock::now() - milliseconds(1300);
        daemon->wait();
        EXPECT_EQ(read("pragma integrity_check"), "ok\n");
        const auto written = static_cast<size_t>(rows_like(prefix));
        EXPECT_GE(written,
                  std::count_if(times.begin(), times.end(), [&](auto time) { return time < due; }));
        EXPECT_EQ(number("select count(distinct fqdn) from dns_traffic where fqdn like '" + prefix +
                         "%' and cast(substr(fqdn, instr(fqdn, '-') + 1) as int) < " +
                         std::to_string(written)),
                  static_cast<int>(written));
        lost += times.size() - written;
    }
    EXPECT_GT(lost, 0U) << "nothing waited";
}

// A lock that outlasts the start, and then one under load: no query waits, and no row is missing,
// nor are the earlier totals in a row of counters.
TEST_F(Recorder, RowsWaitForAnotherProcess) {
    start();
    EXPECT_EQ(daemon->stop(), 0);
    read("insert into summary (req, blocked, reset, error) values (1000, 1, 2, 3)");
    std::optional<Holder> other(std::in_place, file, "begin exclusive");
    start({{"stats_write_delay", "1"}, {"log_stats_interval", "10"}});
    ask("early", 0, 100);
    sleep(1);
    other.reset();
    EXPECT_TRUE(eventually([&] { return rows_like("early") == 100; }, 3000));
    EXPECT_EQ(number("select count(*) from summary where req < 1000 and id > 2"), 0);
    EXPECT_GE(number("select count(*) from summary where req >= 1010"), 9);
    other.emplace(file, "begin immediate");
    const auto end = steady_clock::now() + std::chrono::seconds(5);
    size_t asked = 0;
    for (; steady_clock::now() < end; asked += 10, usleep(50'000))
        ask("held", asked, 10);
    EXPECT_EQ(rows_like("held"), 0);
    other.reset();
    EXPECT_TRUE(eventually([&] { return rows_like("held") == static_cast<int>(asked); }, 3000));
    EXPECT_LT(slowest, milliseconds(900));
    EXPECT_TRUE(eventually([&] { // a list that was locked at the start
        return rcode_of(client.ask(query("x.ads.example")).value()) == 3;
    }));
    EXPECT_EQ(log_count("rows dropped") + log_count("Couldn't execute"), 0U);
    EXPECT_EQ(daemon->stop(), 0);
}

TEST_F(Recorder, AFullQueueDropsTheOldestRowsAndAStopGivesUp) {
    start({{"stats_write_delay", "1"}, {"log_stats_interval", "0"}});
    std::optional<Holder> other(std::in_place, file, "begin immediate");
    ask("name", 0, 5000);
    ASSERT_TRUE(wait_for_log("Queue of statistics is full, "));
    other.reset();
    EXPECT_TRUE(eventually([&] { return rows_like("name") == 4096; }, 3000));
    EXPECT_EQ(number("select min(cast(substr(fqdn, 5) as int)) from dns_traffic where fqdn like "
                     "'name%'"),
              5000 - 4096);
    EXPECT_EQ(log_count("Queue of statistics is full, "), 1U) << "one line a minute";
    EXPECT_LT(slowest, milliseconds(900));
    other.emplace(file, "begin immediate");
    ask("lost", 0, 7);
    const auto begin = steady_clock::now();
    EXPECT_EQ(daemon->stop(), 0);
    EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(12));
    EXPECT_EQ(log_count("Cannot write statistics, 0"), 0U);
    EXPECT_EQ(rows_like("lost"), 0);
    // What a damaged file does not take is refused once.
    other.reset();
    std::fstream(file).seekp(
        4096L * (number("select rootpage from sqlite_master where name = 'dns_traffic'") - 1))
        << "damaged";
    start({{"stats_write_delay", "1"}});
    ask("refused", 0, 1);
    EXPECT_EQ(daemon->stop(), 0);
    EXPECT_EQ(log_count("malformed, insert into dns_traffic ('fqdn', 'ip') values('refused"), 1U);
    EXPECT_EQ(log_count("Cannot write statistics, "), 1U);
}

TEST_F(Recorder, RowsWaitForADiskThatIsFull) {
    ASSERT_EQ(mount("none", place.c_str(), "tmpfs", 0, "size=1m"), 0);
    start({{"stats_write_delay", "1"}});
    ask("before", 0, 10);
    {
        std::ofstream filler(place + "/filler");
        while (filler << std::string(4096, 'x') << std::flush)
            continue;
    }
    ask("full", 0, 1000);
    sleep(3);
    EXPECT_LT(rows_like("full"), 1000);
    fs::remove(place + "/filler");
    EXPECT_TRUE(eventually([&] { return rows_like("full") == 1000; }, 3000));
    EXPECT_EQ(rows_like("before"), 10);
    EXPECT_EQ(read("pragma integrity_check"), "ok\n");
    EXPECT_EQ(log_count("disk is full"), 0U);
    EXPECT_EQ(daemon->stop(), 0);
}

// The delay is counted by another clock, and a hit has the time of its query.
TEST_F(Recorder, AClockThatIsSetBackChangesNoDelay) {
    configure({{"stats_db_path", place}, {"stats_write_delay", "2"}});
    write_file("/tmp/clock", "0");
    daemon.emplace(std::vector<std::string>{}, STAGED_DAEMON);
    Daemon::prime();
    const char *clocks[] = {"0", "86400", "-86400"};
    for (const char *clock : clocks) {
        write_file("/tmp/clock", clock);
        ask("c", 0, 1, ".ads.example");
    }
    EXPECT_EQ(read("select count(*) from black_stats"), "0\n");
    EXPECT_TRUE(eventually([] { return number("select count(*) from black_stats") == 3; }, 3000));
    EXPECT_EQ(read("select (timestamp - strftime('%s', 'now') + 86400 * 3 + 30) / 86400 from "
                   "black_stats"),
              "3\n4\n2\n");
    EXPECT_EQ(daemon->stop(), 0);
}

TEST_F(Recorder, AShutdownUnderLoadLosesNothing) {
    start({{"stats_write_delay", "3600"}, {"concurrent_queries", "300"}});
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
    const auto begin = steady_clock::now();
    EXPECT_EQ(daemon->stop(), 0);
    EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(5));
    load.request_stop();
    load.join();
    EXPECT_GE(rows_like("load") + number("select count(*) from black_stats"), answered);
    EXPECT_EQ(number("select count(*) from summary where req >= (select count(*) from dns_traffic) "
                     "and id = (select max(id) from summary)"),
              1);
}

struct Size : Recorder, testing::WithParamInterface<const char *> {};
INSTANTIATE_TEST_SUITE_P(Recorder, Size, testing::Values("0", "10"));

// Names that nobody asked for before, blocked and forwarded, on top of a database that is too
// large.
TEST_P(Size, StaysNearItsLimit) {
    const size_t names = number_from("RECORDER_NAMES", 16'000);
    const int limit = names > 100'000 ? 4 : 2;
    start();
    EXPECT_EQ(daemon->stop(), 0);
    read("with recursive n(x) as (select 1 union all select x + 1 from n where x < 100000) "
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
    EXPECT_TRUE(eventually([&] { return number(in_use) <= limit * 1024; }));
    std::mt19937 random(1);
    size_t before = 0;
    int largest = 0;
    for (size_t asked = 0; asked < names && !HasFailure(); asked += 500) {
        if (asked >= names / 4 && before == 0)
            before = daemon->figure("VmRSS");
        const std::string prefix = std::to_string(random()) + std::to_string(random());
        ask(prefix + "-", asked, 500, asked % 4000 ? ".ads.example" : ".example");
        largest = std::max(largest, number(in_use));
    }
    const size_t after = daemon->figure("VmRSS");
    printf("%zu names: %d KiB at most, resident %zu KiB, then %zu, slowest %d ms, %zu above 20\n",
           names, largest, before, after, static_cast<int>(slowest.count()), slow);
    EXPECT_LE(slow, names / 100); // of these most have waited for the processor
    EXPECT_LE(largest, (limit + 1) * 1024);
    EXPECT_GT(largest, limit * 1024 * 9 / 10);
    EXPECT_LE(after, before + MAX_GROWTH);
    EXPECT_EQ(daemon->stop(), 0);
    EXPECT_LE(fs::file_size(file), std::max<uintmax_t>(grown, (limit + 1) << 20));
    EXPECT_EQ(read("pragma integrity_check"), "ok\n");
    EXPECT_EQ(read("select count(*) >= min(max(id), 1000) from summary"), "1\n");
    EXPECT_EQ(read("select frag from black"), "ads.example\n");
    // What is left is whole, and the newest.
    EXPECT_EQ(read("select (select count(*) from black_stats) - (select count(*) from black_hit), "
                   "(select count(*) from black_hit) - (select count(*) from black_fqdn), "
                   "(select count(*) from black_hit where stats_id not in (select id from "
                   "black_stats) or fqdn_id not in (select id from black_fqdn)), "
                   "(select max(id) - min(id) + 1 - count(*) from black_stats)"),
              "0|0|0|0\n");
    EXPECT_GT(number("select min(id) from black_stats"), 1);
    EXPECT_GE(log_count("Deleted "), 2U);
}

} // namespace
