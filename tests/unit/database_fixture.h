// A statistics database open as oDNS.db.
#pragma once

#include "blacklist.h"
#include "blockedlist.h"
#include "config.h"
#include "database.h"
#include "harness.h"
#include "log.h"
#include "statsdb.h"
#include "whitelist.h"

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

// With all tables, and lists that are loaded from files beside it.
struct ListsTest : DatabaseTest {
    const int mask = set_logged_priorities(LOG_MASK(LOG_CRIT));

    void SetUp() override {
        DatabaseTest::SetUp();
        open_with_tables();
        oDNS.path = strdup(directory.c_str());
    }
    void TearDown() override {
        black_list_cleanup();
        white_list_cleanup();
        blocked_device_list_cleanup();
        free(std::exchange(oDNS.path, nullptr));
        set_logged_priorities(mask);
        DatabaseTest::TearDown();
    }
};
