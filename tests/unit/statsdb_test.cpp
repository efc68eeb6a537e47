#include "database_fixture.h"
#include "guards.h"

#include <arpa/inet.h>
#include <thread>
#include <vector>

namespace {

constexpr int64_t HUGE_COUNT = 3000000000;

sockaddr_in client(const char *address) {
    return {.sin_family = AF_INET, .sin_port = 0, .sin_addr = {inet_addr(address)}, .sin_zero = {}};
}

std::string frag_by_id(long id, const char *table) {
    const OwnedText text(get_frag_by_id(id, table));
    return text ? text.get() : "null";
}

TEST_F(DatabaseTest, SchemaIsText) {
    open_with_tables();
    EXPECT_EQ(
        read("select sql from sqlite_master where sql is not null and name <> 'sqlite_sequence'"),
        "CREATE TABLE summary (id integer not null primary key autoincrement, req integer not "
        "null, blocked integer not null, reset integer not null, error integer not null)\n"
        "CREATE TABLE dns_traffic (id integer not null primary key autoincrement, fqdn "
        "varchar(256) not null, timestamp integer(4) default (cast(strftime('%%s','now') as int)), "
        "ip varchar(15) )\n"
        "CREATE TABLE black (id integer not null primary key autoincrement, frag varchar(256) not "
        "null, opt INT default 0, disabled BOOLEAN not null default false )\n"
        "CREATE UNIQUE INDEX black_frag_idx on black(frag)\n"
        "CREATE TABLE black_stats (id integer not null primary key autoincrement, frag_id integer "
        "not null, timestamp integer(4) default (cast(strftime('%s','now') as int)), ip "
        "varchar(15), foreign key (frag_id) references black (id) )\n"
        "CREATE TABLE black_fqdn (id integer not null primary key autoincrement, fqdn "
        "varchar(256) not null unique)\n"
        "CREATE TABLE black_hit (id integer not null primary key autoincrement, fqdn_id, "
        "stats_id, foreign key (fqdn_id) references black_fqdn (id), foreign key (stats_id) "
        "references black_stats (id) )\n");
    EXPECT_EQ(create_list_stats_table("black"), 1); // again: all there
    EXPECT_EQ(create_list_stats_table(""), 0);
    EXPECT_EQ(create_list_stats_table(nullptr), 0);
}

TEST_F(DatabaseTest, EntriesAreAddedDisabledAndEnabledAgain) {
    open_with_tables();
    const struct {
        const char *key;
        int opt;
        int result;
        const char *rows;
    } steps[] = {
        {"ads", 2, 1, "1|ads|2|0\n"},
        {"# note", 0, 0, "1|ads|2|0\n"},
        {"", 0, 0, "1|ads|2|0\n"},
        {"\nads", 0, 0, "1|ads|2|0\n"},
        {nullptr, 0, 0, "1|ads|2|0\n"},
        {"~ads", 0, 1, "1|ads|2|1\n"},
        {"~unknown", 0, 1, "1|ads|2|1\n"},
        {"ads\nrest", 4, 1, "2|ads|4|0\n"}, // the same entry under a new id
        {"x\"; --%s", -1, 1, "2|ads|4|0\n3|x\"; --%s|-1|0\n"},
    };
    for (const auto &step : steps) {
        SCOPED_TRACE(step.key ? step.key : "null");
        EXPECT_EQ(create_frag_key(step.key, step.opt, "black"), step.result);
        EXPECT_EQ(read("select id, frag, opt, disabled from black"), step.rows);
    }
    EXPECT_EQ(remove_frag_key("ads", "black"), 1);
    EXPECT_EQ(remove_frag_key("unknown", "black"), 1);
    EXPECT_EQ(remove_frag_key("", "black"), 0);
    EXPECT_EQ(read("select id from black where disabled"), "2\n");
    EXPECT_EQ(frag_by_id(2, "black"), "ads"); // disabled, and still found
    EXPECT_EQ(frag_by_id(1, "black"), "null");
    EXPECT_EQ(frag_by_id(2, "white"), "null");
}

TEST_F(DatabaseTest, HitsLinkEntryClientAndName) {
    open_with_tables();
    create_frag_key("ads", 0, "black");
    EXPECT_EQ(insert_list_record("a.ads.example", "black", "ads", "10.0.0.1"), 1);
    EXPECT_EQ(insert_list_record("a.ads.example", "black", "ads", "10.0.0.2"), 1);
    EXPECT_EQ(insert_list_record("localhost", "black", "ads", "10.0.0.3"), 1);
    EXPECT_EQ(insert_list_record("b.example", "black", "unknown", "10.0.0.3"), 0);
    EXPECT_EQ(insert_list_record("b.example", "black", "", "10.0.0.3"), 0);
    EXPECT_EQ(insert_list_record("b.example", "black", nullptr, "10.0.0.3"), 0);
    oDNS.record_traffic = 0;
    EXPECT_EQ(insert_list_record("b.example", "black", "ads", "10.0.0.3"), 1);
    EXPECT_EQ(read("select frag_id, ip, abs(timestamp - strftime('%s','now')) < 60 "
                   "from black_stats"),
              "1|10.0.0.1|1\n1|10.0.0.2|1\n");
    // A name seen again has a fresh row; the older hit keeps the old row's id.
    EXPECT_EQ(read("select id, fqdn from black_fqdn"), "2|a.ads.example\n");
    EXPECT_EQ(read("select fqdn_id, stats_id from black_hit"), "1|1\n2|2\n");
}

TEST_F(DatabaseTest, RequestsAreRecordedWithoutTime) {
    open_with_tables();
    EXPECT_EQ(get_unique_client_count(), 0);
    for (const char *address : {"10.0.0.1", "10.0.0.2", "10.0.0.1"})
        EXPECT_EQ(record_request("www.example", client(address)), 1);
    EXPECT_EQ(read("select fqdn, ip, timestamp from dns_traffic limit 2"),
              "www.example|10.0.0.1|0\nwww.example|10.0.0.2|0\n");
    EXPECT_EQ(get_unique_client_count(), 2);
}

TEST_F(DatabaseTest, NewestSnapshotIsReadIn32Bits) {
    open_with_tables();
    uint64_t requests = 7, blocked = 7, resets = 7, errors = 7;
    EXPECT_EQ(get_stats_summary(&requests, &blocked, &resets, &errors), 1);
    EXPECT_EQ(requests + blocked + resets + errors, 28U); // an empty table changes nothing
    EXPECT_EQ(insert_stats_summary_record(1, 1, 1, 1), 1);
    EXPECT_EQ(insert_stats_summary_record(HUGE_COUNT, 20, UINT64_MAX, 2147483647), 1);
    EXPECT_EQ(read("select * from summary"), "1|1|1|1|1\n2|3000000000|20|-1|2147483647\n");
    EXPECT_EQ(get_stats_summary(&requests, &blocked, &resets, &errors), 1);
    EXPECT_EQ(static_cast<int64_t>(requests), HUGE_COUNT - (int64_t{1} << 32));
    EXPECT_EQ(blocked, 20U);
    EXPECT_EQ(resets, UINT64_MAX);
    EXPECT_EQ(errors, 2147483647U);
}

// Values that would leave their quotes, and texts that their buffer cuts.
TEST_F(DatabaseTest, RefusesWhatIsNoValue) {
    open_with_tables();
    create_frag_key("ads", 0, "black");
    const std::string before = read("select * from black");
    const std::vector<std::string> values = {
        "x','1');drop table black;--", "it's", "'", "''", std::string(300, 'x'),
        // Makes the insert into dns_traffic one byte too long.
        std::string(300 - strlen("insert into dns_traffic ('fqdn', 'ip') values('', '10.0.0.1')"),
                    'y')};
    for (const std::string &text : values) {
        SCOPED_TRACE(text);
        const char *value = text.c_str();
        EXPECT_EQ(record_request(value, client("10.0.0.1")), 0);
        if (text[0] != 'y') {
            EXPECT_EQ(create_frag_key(value, 0, "black"), 0);
            EXPECT_EQ(create_frag_key(("~" + text).c_str(), 0, "black"), 0);
            EXPECT_EQ(remove_frag_key(value, "black"), 0);
            EXPECT_EQ(insert_list_record("a.example", "black", value, "10.0.0.1"), 0);
            EXPECT_EQ(insert_list_record(value, "black", "ads", "10.0.0.1"), 0);
            EXPECT_EQ(insert_list_record("a.example", "black", "ads", value), 0);
        }
        for (const char *table : {value, "black;", "black--", "sum mary", ""}) {
            EXPECT_EQ(create_list_stats_table(table), 0);
            EXPECT_EQ(create_frag_key("x", 0, table), 0);
            EXPECT_EQ(insert_list_record("a.example", table, "ads", "10.0.0.1"), 0);
            EXPECT_EQ(frag_by_id(1, table), "null");
        }
    }
    EXPECT_EQ(insert_list_record(nullptr, "black", "ads", "10.0.0.1"), 0);
    EXPECT_EQ(read("select * from black"), before);
    EXPECT_EQ(read("select count(*) from dns_traffic"), "0\n");
    // One byte less fits.
    EXPECT_EQ(record_request(values.back().c_str() + 1, client("10.0.0.1")), 1);
}

TEST_F(DatabaseTest, FailsWithoutADatabase) {
    const auto expect_failures = [] {
        uint64_t counter = 5;
        EXPECT_EQ(create_stats_summary_table(), 0);
        EXPECT_EQ(create_traffic_table(), 0);
        EXPECT_EQ(create_list_stats_table("black"), 0);
        EXPECT_EQ(create_frag_key("ads", 0, "black"), 0);
        EXPECT_EQ(remove_frag_key("ads", "black"), 0);
        EXPECT_EQ(frag_by_id(1, "black"), "null");
        EXPECT_EQ(insert_list_record("a.example", "black", "ads", "10.0.0.1"), 0);
        EXPECT_EQ(record_request("a.example", client("10.0.0.1")), 0);
        EXPECT_EQ(insert_stats_summary_record(1, 1, 1, 1), 0);
        EXPECT_EQ(get_stats_summary(&counter, &counter, &counter, &counter), 0);
        EXPECT_EQ(counter, 5U);
        EXPECT_EQ(get_unique_client_count(), -1);
    };
    expect_failures(); // no handle at all
    const std::string missing = directory / "missing/vantrelle.db";
    EXPECT_NE(open_database(missing.c_str(), &oDNS.db), SQLITE_OK);
    EXPECT_FALSE(std::filesystem::exists(directory / "missing"));
    expect_failures(); // the handle of a failed open
    close_database();
    EXPECT_EQ(oDNS.db, nullptr);
    std::ofstream(file) << std::string(4096, '!');
    open();
    expect_failures(); // a file that is no database
}

// Each hit takes the ids of two rows just inserted; other threads insert meanwhile.
TEST_F(DatabaseTest, HitsOfSeveralThreadsDoNotMix) {
    open_with_tables();
    create_frag_key("ads", 0, "black");
    constexpr int THREADS = 3, HITS = 200;
    std::vector<std::thread> threads;
    threads.reserve(THREADS);
    for (int i = 0; i < THREADS; i++)
        threads.emplace_back([i] {
            const std::string name = std::to_string(i);
            for (int n = 0; n < HITS; n++) {
                const std::string fqdn = name + "." + std::to_string(n);
                EXPECT_EQ(insert_list_record(fqdn.c_str(), "black", "ads", name.c_str()), 1);
                create_frag_key(fqdn.c_str(), 0, "black");
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(read("select count(*) from black_hit join black_fqdn on black_fqdn.id = fqdn_id "
                   "join black_stats on black_stats.id = stats_id where fqdn like ip || '.%'"),
              std::to_string(THREADS * HITS) + "\n");
}

} // namespace
