// A statistics database open as oDNS.db.
#pragma once

#include "config.h"
#include "database.h"
#include "harness.h"
#include "statsdb.h"

#include <arpa/inet.h>

struct DatabaseTest : harness::SystemTest {
    const std::filesystem::path directory = "/etc/vantrelle";
    const std::string file = directory / "vantrelle.db";

    void SetUp() override {
        SystemTest::SetUp();
        oDNS.record_traffic = 1;
    }
    void TearDown() override { close_database(); }
    void open_with_tables() const {
        ASSERT_EQ(open_database(file.c_str(), &oDNS.db), SQLITE_OK);
        ASSERT_TRUE(create_stats_summary_table() && create_traffic_table() &&
                    create_list_stats_table("black"));
    }
    std::string read(const std::string &query) const { return read_rows(file, query); }
};

inline sockaddr_in client(const char *address) {
    return {.sin_family = AF_INET, .sin_port = 0, .sin_addr = {inet_addr(address)}, .sin_zero = {}};
}
