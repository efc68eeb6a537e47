#include "database_fixture.h"
#include "guards.h"

#include <sstream>

namespace {

std::string frag_by_id(long id, const char *table = "black") {
    const OwnedText text(get_frag_by_id(id, table));
    return text ? text.get() : "null";
}

TEST_F(DatabaseTest, SchemaIsText) {
    open_with_tables();
    EXPECT_EQ(create_list_stats_table("black"), 1); // again: all there
    std::ostringstream schema;
    schema << std::ifstream(TEST_DATA "/schema.sql").rdbuf();
    EXPECT_EQ(
        read("select sql from sqlite_master where sql is not null and name <> 'sqlite_sequence'"),
        schema.str());
}

TEST_F(DatabaseTest, EntriesAreAddedDisabledAndEnabledAgain) {
    open_with_tables();
    const struct {
        const char *key;
        int result;
        const char *rows;
    } steps[] = {
        {"ads", 1, "1|ads|4|0\n"},
        {nullptr, 0, "1|ads|4|0\n"},
        {"~ads", 1, "1|ads|4|1\n"},
        {"ads\nrest", 1, "2|ads|4|0\n"}, // the same entry under a new id
        {"x\"; --%s", 1, "2|ads|4|0\n3|x\"; --%s|4|0\n"},
    };
    for (const auto &[key, result, rows] : steps) {
        EXPECT_EQ(create_frag_key(key, 4, "black"), result);
        EXPECT_EQ(read("select id, frag, opt, disabled from black"), rows);
    }
    EXPECT_EQ(remove_frag_key("ads", "black"), 1);
    EXPECT_EQ(read("select id from black where disabled"), "2\n");
    EXPECT_EQ(frag_by_id(2), "ads"); // disabled, and still found
    EXPECT_EQ(frag_by_id(1), "null");
}

TEST_F(DatabaseTest, HitsLinkEntryClientAndName) {
    open_with_tables();
    create_frag_key("ads", 2, "black");
    for (const char *ip : {"10.0.0.1", "10.0.0.2"})
        EXPECT_EQ(insert_list_record("a.ads.example", "black", "ads", ip), 1);
    EXPECT_EQ(insert_list_record("b.example", "black", "unknown", "10.0.0.3"), 0);
    oDNS.record_traffic = 0;
    EXPECT_EQ(insert_list_record("b.example", "black", "ads", "10.0.0.3"), 1);
    EXPECT_EQ(read("select frag_id, ip, abs(timestamp - strftime('%s', 'now')) < 60 from "
                   "black_stats"),
              "1|10.0.0.1|1\n1|10.0.0.2|1\n");
    // A name seen again has a fresh row; the older hit keeps the old row's id.
    EXPECT_EQ(read("select id, fqdn from black_fqdn"), "2|a.ads.example\n");
    EXPECT_EQ(read("select fqdn_id, stats_id from black_hit"), "1|1\n2|2\n");
}

// The results of everything that pastes `value` or `table` into a statement.
std::string results(const std::string &value, const char *table = "black") {
    const char *text = value.c_str();
    const int all[] = {create_list_stats_table(table),
                       create_frag_key(text, 0, table),
                       create_frag_key(("~" + value).c_str(), 0, table),
                       remove_frag_key(text, table),
                       insert_list_record(text, table, "ads", "10.0.0.1"),
                       insert_list_record("a.example", table, text, "10.0.0.1"),
                       insert_list_record("a.example", table, "ads", text),
                       record_request(text, client("10.0.0.1")),
                       frag_by_id(1, table) != "null"};
    std::string digits;
    for (int each : all)
        digits += std::to_string(each);
    return digits;
}

TEST_F(DatabaseTest, RefusesWhatWouldLeaveItsQuotesOrItsBuffer) {
    open_with_tables();
    create_frag_key("ads", 2, "black");
    for (const char *text : {"x','1');drop table black;--", "it's", "'", "''"})
        EXPECT_EQ(results(text), "100000001") << text;
    EXPECT_EQ(results(std::string(300, 'x')), "100000001");
    for (const char *table : {"black;", "black--", "a b", "black(frag)", "", "bl'ack"})
        EXPECT_EQ(results("it's", table), "000000000") << table;
    EXPECT_EQ(read("select frag from black union all select fqdn from black_fqdn union all "
                   "select fqdn from dns_traffic"),
              "ads\n");
    // Statements of 300 and of 299 bytes.
    const std::string name(
        300 - strlen("insert into dns_traffic ('fqdn', 'ip') values('', '10.0.0.1')"), 'y');
    EXPECT_EQ(record_request(name.c_str(), client("10.0.0.1")), 0);
    EXPECT_EQ(record_request(name.c_str() + 1, client("10.0.0.1")), 1);
}

// Each hit takes the ids of two rows just inserted; other threads insert meanwhile.
TEST_F(DatabaseTest, HitsOfSeveralThreadsDoNotMix) {
    open_with_tables();
    create_frag_key("ads", 2, "black");
    const auto insert = [](const std::string &ip) {
        for (int n = 0; n < 200; n++) {
            const std::string fqdn = ip + "." + std::to_string(n);
            EXPECT_EQ(insert_list_record(fqdn.c_str(), "black", "ads", ip.c_str()), 1);
        }
    };
    { const std::jthread first(insert, "1"), second(insert, "2"), third(insert, "3"); }
    EXPECT_EQ(read("select count(*) from black_hit join black_fqdn on black_fqdn.id = fqdn_id "
                   "join black_stats on black_stats.id = stats_id where fqdn like ip || '.%'"),
              "600\n");
}

} // namespace
