// What another program sees of an SQLite file that the daemon has open, and how it gets in the way.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <string>

inline constexpr const char *LISTS[] = {"black",       "local_black",  "white",
                                        "local_white", "local_device", "blocked_device"};

// The rows of a query, "a|b\n" each, or the database's error text.
inline std::string read_rows(const std::string &file, const std::string &query) {
    sqlite3 *db = nullptr;
    std::string rows;
    const auto collect = [](void *text, int count, char **values, char **) {
        for (int i = 0; i < count; i++)
            *static_cast<std::string *>(text) +=
                (values[i] ? values[i] : "null") + std::string(i + 1 < count ? "|" : "\n");
        return 0;
    };
    sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE, "unix");
    if (sqlite3_exec(db, query.c_str(), collect, &rows, nullptr) != SQLITE_OK)
        rows = sqlite3_errmsg(db);
    sqlite3_close(db);
    return rows;
}

// The same for the database of a daemon that keeps it in its base directory.
inline std::string read_rows(const std::string &query) {
    return read_rows("/etc/vantrelle/vantrelle.db", query);
}

// Another process that has the file; gives it back when it goes.
struct Holder {
    sqlite3 *db = nullptr;

    Holder(const std::string &file, const char *sql) {
        sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, "unix");
        sqlite3_busy_timeout(db, 5000); // whoever wrote a row may not be done with the file
        EXPECT_EQ(sqlite3_exec(db, sql, nullptr, nullptr, nullptr), SQLITE_OK)
            << sqlite3_errmsg(db);
    }
    ~Holder() { sqlite3_close(db); }
};
