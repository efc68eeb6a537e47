#include "database_fixture.h"
#include "filterlist.h"
#include "list_helpers.h"
#include "listload.h"

#include <sys/stat.h>

namespace {

namespace fs = harness::fs;
using harness::write_file;

struct ListLoadTest : ListsTest {
    const fs::path list_file = directory / "black.lst";

    void write_lines(int count) const {
        std::ofstream out(list_file);
        for (int i = 0; i < count; i++)
            out << "host-" << i << ".example,4\n";
    }
    // The chain after a load.
    std::string load() const {
        List *list = create_list();
        const TestList owner(list);
        EXPECT_EQ(_load_list(list, list_file.c_str()), oDNS.db != nullptr);
        return chain(list);
    }
    static void run(const char *sql) { sqlite3_exec(oDNS.db, sql, nullptr, nullptr, nullptr); }
};

TEST_F(ListLoadTest, EveryKindOfLine) {
    // The long line falls into 262 bytes, too many for a statement, and the rest.
    const std::string rest(38, 'r');
    write_file(list_file,
               "a.example\n#comment\n\nb.example,2\n~a.example\nc.example,-1\nd.example\r\n"
               "x.example, 4\ny.example,four\nz.example,1,2\nit's\n\xff\xfe,4\n v "
               ",260\n8.example,8\n200.example,200\n" +
                   std::string("nul\0tail\n", 9) + std::string(262, 'q') + rest + ",4\nlast");
    load();
    EXPECT_FALSE(fs::exists(list_file));
    EXPECT_EQ(read("select frag, opt, disabled from black order by id"),
              "a.example|0|1\nb.example|2|0\nc.example|0|0\nd.example\r|0|0\n"
              "x.example|4|0\ny.example|0|0\nz.example|0|0\n\xff\xfe|4|0\n v |4|0\n8.example|8|0\n"
              "200.example|-56|0\n"
              "nul|0|0\n" +
                  rest + "|4|0\nlast|0|0\n");
}

TEST_F(ListLoadTest, RowsComeInTheirOrderAndFilesAgain) {
    for (const char *lines : {"ads.example.com\nads\n", "ads.example.com\nads\n", ""}) {
        write_file(list_file, lines); // the last time it is from the table alone
        EXPECT_EQ(load(), "ads:0 ads.example.com:0 ");
    }
    EXPECT_EQ(read("select id, frag from black"), "3|ads.example.com\n4|ads\n");
    write_file(list_file, "~ads\n");
    EXPECT_EQ(load(), "ads.example.com:0 ");
}

TEST_F(ListLoadTest, WhatIsNoFileIsLeft) {
    List *list = create_list();
    const TestList owner(list);
    ASSERT_EQ(_load_list_db(list, list_file.c_str()), 1);
    fs::create_directory(list_file);
    EXPECT_EQ(_load_list_file(list, list_file.c_str()), 0);
    fs::remove(list_file);
    ASSERT_EQ(mkfifo(list_file.c_str(), 0600), 0);
    EXPECT_EQ(_load_list_file(list, list_file.c_str()), 1);
    EXPECT_TRUE(fs::exists(list_file));
}

// However an import fails, the file stays, no row of it does, but all others that were written
// meanwhile, and the next load takes all.
TEST_F(ListLoadTest, AFailedImportKeepsTheFileAndOtherRows) {
    const auto fail = [this](const char *spoil, const char *mend) {
        SCOPED_TRACE(spoil);
        run(spoil);
        load();
        run(mend);
        EXPECT_TRUE(fs::exists(list_file));
        EXPECT_EQ(read("select count(*) from black"), "0\n");
    };
    write_lines(3000);
    int written = 0;
    {
        const std::jthread other([&written](const std::stop_token &stop) {
            while (!stop.stop_requested())
                written += insert_stats_summary_record(1, 2, 3, 4);
        });
        for (int i = 0; i < 5; i++)
            fail("pragma max_page_count=40", "pragma max_page_count=1000000"); // disk full
        fail("pragma query_only=1", "pragma query_only=0");
    }
    fail("begin", "rollback");
    load();
    EXPECT_FALSE(fs::exists(list_file));
    EXPECT_EQ(read("select count(*) from black"), "3000\n");
    EXPECT_GT(written, 0);
    EXPECT_EQ(read("select count(*) from summary"), std::to_string(written) + "\n");
    write_lines(1);
    close_database();
    EXPECT_EQ(load(), "");
    EXPECT_TRUE(fs::exists(list_file));
}

// What somebody does with the file while its second record is read.
TEST_F(ListLoadTest, AFileThatChangesIsLeftAndOneThatVanishesIsImported) {
    static int seen;
    static std::function<void()> meddle;
    const auto hook = [](void *, int, const char *, const char *, sqlite3_int64) {
        if (++seen == 2)
            meddle();
    };
    sqlite3_update_hook(oDNS.db, hook, nullptr);
    const std::string changed =
        "Failed to import list file " + list_file.string() + ", leaving it: it changed meanwhile";
    const std::pair<std::function<void()>, std::string> cases[] = {
        {[&] { std::ofstream(list_file, std::ios::app) << "s.example\n"; }, changed},
        {[&] { fs::rename(list_file, directory / "old"), write_lines(1); }, changed},
        {[&] { fs::remove(list_file); }, "Error 2 deleting file " + list_file.string()},
    };
    openlog("load", LOG_PID, LOG_LOCAL0);
    set_logged_priorities(LOG_UPTO(LOG_ERR));
    for (const auto &[action, logged] : cases) {
        seen = 0;
        meddle = action;
        write_file(list_file, "www.example\nad");
        load();
        EXPECT_GT(harness::log_count(logged), 0U);
        EXPECT_EQ(read("select count(*) from black"), logged == changed ? "0\n" : "2\n");
        EXPECT_EQ(fs::exists(list_file), logged == changed);
    }
}

TEST_F(ListLoadTest, MissingCompanionTablesKeepNoFileOut) {
    run("drop table black_stats; create index black_stats on summary(req)");
    write_lines(2);
    EXPECT_EQ(load(), "host-0.example:4 host-1.example:4 ");
    EXPECT_FALSE(fs::exists(list_file));
}

// Another process holds the file, and an edit waits for it. Meanwhile the connection is free, the
// entry is in memory, and its hits are no errors.
TEST_F(ListLoadTest, AnEditWaitsAndHoldsNothingUp) {
    using std::chrono::steady_clock, std::chrono::seconds;
    init_black_list();
    std::optional<Holder> other(std::in_place, file, "begin immediate");
    const Query query{"late.example", "10.0.0.1"};
    {
        const std::jthread edit(
            [] { EXPECT_EQ(add_local_black_list("late.example", 4), LIST_OK); });
        while (!is_blacklisted(query))
            usleep(1000);
        const auto begin = steady_clock::now();
        EXPECT_EQ(is_blacklisted(query), 1);
        EXPECT_EQ(get_unique_client_count(), 0);
        publish_list(local_black_list, nullptr); // as a reload would
        EXPECT_EQ(is_blacklisted(query), 0);
        EXPECT_LT(steady_clock::now() - begin, seconds(2)) << "less than the edit waits";
        other.reset();
    }
    EXPECT_EQ(is_blacklisted(query), 1) << "the reloaded list has it too";
    EXPECT_EQ(read("select frag, opt, (select count(*) from local_black_hit) from local_black"),
              "late.example|4|1\n");
    // In vain: five seconds for the first, one for those that follow, until one was stored.
    other.emplace(file, "begin immediate");
    for (const auto &[item, wait] : {std::pair("first", 5), {"second", 1}}) {
        const auto begin = steady_clock::now();
        EXPECT_EQ(add_local_black_list(item, 4), LIST_OK);
        const std::chrono::duration<double> waited = steady_clock::now() - begin;
        EXPECT_NEAR(waited.count(), wait + 1.4, 1.5); // whole milliseconds are counted
    }
}

TEST_F(ListLoadTest, WhatWasUnloadedIsLoadedAgain) {
    // Loading the local white list replaces the devices' list, holds and all.
    EXPECT_EQ(add_local_device_list("10.0.0.1", 4), LIST_OK);
    const ListHold old(device_list);
    EXPECT_EQ(del_local_white_list("nothing"), LIST_NOT_FOUND);
    EXPECT_NE(old.get(), device_list.load());
    EXPECT_EQ(chain(old.get()), chain(device_list));
    // With a file that came meanwhile.
    black_list_cleanup();
    write_file(list_file, "new.example\n");
    EXPECT_EQ(is_blacklisted({"www.new.example", "10.0.0.1"}), 1);
}

} // namespace
