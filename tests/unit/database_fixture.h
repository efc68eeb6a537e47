// A statistics database in a directory of its own, open as oDNS.db.
#pragma once

#include "config.h"
#include "database.h"
#include "statsdb.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

class DatabaseTest : public testing::Test {
  protected:
    std::filesystem::path directory = std::filesystem::temp_directory_path() / "statsdb-XXXXXX";
    std::string file;

    void SetUp() override {
        std::string name = directory;
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        directory = name;
        file = directory / "vantrelle.db";
        oDNS.record_traffic = 1;
    }
    void TearDown() override {
        close_database();
        std::filesystem::remove_all(directory);
    }
    void open() const { ASSERT_EQ(open_database(file.c_str(), &oDNS.db), SQLITE_OK); }
    void open_with_tables() const {
        open();
        ASSERT_TRUE(create_stats_summary_table() && create_traffic_table() &&
                    create_list_stats_table("black"));
    }
    std::string read(const std::string &query) const { return read_rows(file, query); }
};
