// A statistics database in a directory of its own, open as oDNS.db, and what another connection
// sees of it.
#pragma once

#include "config.h"
#include "statsdb.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <string>

class DatabaseTest : public testing::Test {
  protected:
    std::filesystem::path directory;
    std::string file;

    void SetUp() override {
        std::string name = std::filesystem::temp_directory_path() / "statsdb-XXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        directory = name;
        file = directory / "vantrelle.db";
        oDNS.record_traffic = 1;
    }
    void TearDown() override {
        close_database();
        std::filesystem::remove_all(directory);
    }

    void open() { ASSERT_EQ(open_database(file.c_str(), &oDNS.db), SQLITE_OK); }

    void open_with_tables() {
        open();
        ASSERT_TRUE(create_stats_summary_table() && create_traffic_table() &&
                    create_list_stats_table("black"));
    }

    // The rows of a query as another process would get them: "a|b\n" for each, or the error.
    static std::string read(const std::string &path, const std::string &query) {
        sqlite3 *db = nullptr;
        std::string rows;
        sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, "unix");
        const auto collect = [](void *text, int count, char **values, char **) {
            for (int i = 0; i < count; i++)
                *static_cast<std::string *>(text) +=
                    std::string(i ? "|" : "") + (values[i] ? values[i] : "null");
            *static_cast<std::string *>(text) += '\n';
            return 0;
        };
        if (sqlite3_exec(db, query.c_str(), collect, &rows, nullptr) != SQLITE_OK)
            rows = sqlite3_errmsg(db);
        sqlite3_close(db);
        return rows;
    }
    std::string read(const std::string &query) const { return read(file, query); }

    // The file format's write version: 1 is a plain database file, 2 one with a write-ahead log.
    static int write_version(const std::string &path) {
        return std::ifstream(path).seekg(18).get();
    }
};
