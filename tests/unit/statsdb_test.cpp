#include "database_fixture.h"

namespace {

TEST_F(DatabaseTest, SchemaIsText) {
    open_with_tables();
    EXPECT_EQ(create_list_stats_table("black"), 1); // again: all there
    EXPECT_EQ(
        read("select sql from sqlite_master where sql is not null and name <> 'sqlite_sequence'"),
        harness::read_file(TEST_DATA "/schema.sql"));
}

TEST_F(DatabaseTest, HitsLinkEntryClientAndName) {
    open_with_tables();
    create_frag_key("ads", 2, "black");
    read("insert into black_fqdn (fqdn) values ('one more name than hits')");
    for (const char *ip : {"10.0.0.1", "10.0.0.2"})
        EXPECT_EQ(insert_list_record("a.ads.example", "black", "ads", ip), 1);
    EXPECT_EQ(insert_list_record("b.example", "black", "unknown", "10.0.0.3"), 0);
    oDNS.record_traffic = 0;
    EXPECT_EQ(insert_list_record("b.example", "black", "ads", "10.0.0.3"), 1);
    EXPECT_EQ(read("select frag_id, ip, abs(timestamp - strftime('%s', 'now')) < 60 from "
                   "black_stats"),
              "1|10.0.0.1|1\n1|10.0.0.2|1\n");
    // A name seen again has a fresh row; the older hit keeps the old row's id.
    EXPECT_EQ(read("select id, fqdn from black_fqdn"),
              "1|one more name than hits\n3|a.ads.example\n");
    EXPECT_EQ(read("select fqdn_id, stats_id from black_hit"), "2|1\n3|2\n");
}

TEST_F(DatabaseTest, RejectsWhatWouldLeaveItsQuotesOrItsBuffer) {
    open_with_tables();
    EXPECT_EQ(create_frag_key("ads", 0, "black"), 1);
    for (const char *table : {"black;", "black--", "a b", "black(frag)", "", "bl'ack"}) {
        EXPECT_EQ(create_list_stats_table(table) + create_frag_key("ads", 0, table), 0) << table;
        EXPECT_EQ(remove_frag_key("ads", table) + insert_list_record("a", table, "ads", "b"), 0);
        EXPECT_EQ(get_frag_by_id(1, table), nullptr);
    }
    for (const char *text : {"x','1');drop table black;--", "it's", "'", "''"})
        EXPECT_EQ(create_frag_key(text, 0, "black") + remove_frag_key(text, "black"), 0) << text;
    EXPECT_EQ(read("select frag, disabled from black"), "ads|0\n");
    // Statements of 300 and of 299 bytes.
    const std::string name(
        300 - strlen("insert into dns_traffic ('fqdn', 'ip') values('', '10.0.0.1')"), 'y');
    const sockaddr_in client = harness::socket_address("10.0.0.1", 0);
    EXPECT_EQ(record_request(name.c_str(), client), 0);
    EXPECT_EQ(record_request(name.c_str() + 1, client), 1);
}

} // namespace
