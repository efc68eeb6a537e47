#include "blacklist.h"
#include "blockedlist.h"
#include "database_fixture.h"
#include "filterlist.h"
#include "list_helpers.h"
#include "listload.h"
#include "whitelist.h"

#include <arpa/inet.h>
#include <atomic>
#include <csignal>
#include <fstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr char ROWS[] = "select frag, opt, disabled from black order by id";
constexpr char COUNT[] = "select count(*) from black";

sockaddr_in client(const char *address) {
    return {.sin_family = AF_INET, .sin_port = 0, .sin_addr = {inet_addr(address)}, .sin_zero = {}};
}

class ListLoadTest : public DatabaseTest {
    const int mask_ = setlogmask(LOG_MASK(LOG_CRIT));

  protected:
    fs::path list_file;

    void SetUp() override {
        DatabaseTest::SetUp();
        list_file = directory / "black.lst";
        open_with_tables();
        oDNS.path = strdup(directory.c_str());
    }
    void TearDown() override {
        black_list_cleanup();
        white_list_cleanup();
        blocked_device_list_cleanup();
        free(std::exchange(oDNS.path, nullptr));
        setlogmask(mask_);
        DatabaseTest::TearDown();
    }
    static void write(const fs::path &path, const std::string &text) {
        std::ofstream(path, std::ios::binary) << text;
    }
    void write_lines(int count) const {
        std::ofstream out(list_file);
        for (int i = 0; i < count; i++)
            out << "host-" << i << ".example,4\n";
    }
    // The chain after a load, and what the load returned.
    std::string load(int expected = 1) const {
        TestList list;
        EXPECT_EQ(_load_list(list.list, list_file.c_str()), expected);
        return chain(list);
    }
};

TEST_F(ListLoadTest, EveryKindOfLine) {
    // The long line falls into 262 bytes, too many for a statement, and the rest.
    const std::string rest(38, 'r');
    write(list_file, "a.example\n#comment\n\nb.example,2\n~a.example\nc.example,-1\nd.example\r\n"
                     "x.example, 4\ny.example,four\nz.example,1,2\nit's\n\xff\xfe,4\n v ,260\n" +
                         std::string("nul\0tail\n", 9) + std::string(262, 'q') + rest + ",4\nlast");
    EXPECT_EQ(load(), "\xff\xfe:4  v :4 nul:0 last:0 b.example:2 c.example:0 x.example:4 "
                      "y.example:0 z.example:0 d.example\r:0 " +
                          rest + ":4 ");
    EXPECT_FALSE(fs::exists(list_file));
    EXPECT_EQ(read(ROWS), "a.example|0|1\nb.example|2|0\nc.example|0|0\nd.example\r|0|0\n"
                          "x.example|4|0\ny.example|0|0\nz.example|0|0\n\xff\xfe|4|0\n v |4|0\n"
                          "nul|0|0\n" +
                              rest + "|4|0\nlast|0|0\n");
}

TEST_F(ListLoadTest, RowsComeInTheirOrderAndFilesAgain) {
    write(list_file, "ads.example.com\nads\n");
    EXPECT_EQ(load(), "ads:0 ads.example.com:0 ");
    EXPECT_EQ(load(), "ads:0 ads.example.com:0 "); // from the table alone
    write(list_file, "ads.example.com\nads\n");
    EXPECT_EQ(load(), "ads:0 ads.example.com:0 ");
    EXPECT_EQ(read("select id, frag from black"), "3|ads.example.com\n4|ads\n");
    write(list_file, "~ads\n");
    EXPECT_EQ(load(), "ads.example.com:0 ");
    write(list_file, "ads\nads.example.com,4\n");
    EXPECT_EQ(load(), "ads:0 ");
}

TEST_F(ListLoadTest, WhatIsNoFileIsLeft) {
    fs::create_directory(list_file);
    TestList list;
    ASSERT_EQ(_load_list_db(list.list, list_file.c_str()), 1);
    EXPECT_EQ(_load_list_file(list.list, list_file.c_str()), 0);
    EXPECT_TRUE(fs::exists(list_file));
    fs::remove(list_file);
    ASSERT_EQ(mkfifo(list_file.c_str(), 0600), 0);
    EXPECT_EQ(_load_list_file(list.list, list_file.c_str()), 1);
    EXPECT_TRUE(fs::exists(list_file));
    fs::remove(list_file);
    fs::create_symlink("/dev/zero", list_file);
    EXPECT_EQ(_load_list_file(list.list, list_file.c_str()), 1);
}

// However an import fails, the file stays, no row of it does, and the next load takes all.
TEST_F(ListLoadTest, AFailedImportKeepsTheFile) {
    constexpr int LINES = 3000;
    const struct {
        const char *name;
        void (*spoil)(sqlite3 *db);
        void (*mend)(sqlite3 *db);
    } cases[] = {
        {"disk full",
         [](sqlite3 *db) {
             sqlite3_exec(db, "pragma max_page_count=40", nullptr, nullptr, nullptr);
         },
         [](sqlite3 *db) {
             sqlite3_exec(db, "pragma max_page_count=1000000", nullptr, nullptr, nullptr);
         }},
        {"commit refused",
         [](sqlite3 *db) {
             sqlite3_commit_hook(
                 db, [](void *) { return 1; }, nullptr);
         },
         [](sqlite3 *db) { sqlite3_commit_hook(db, nullptr, nullptr); }},
        {"within a transaction",
         [](sqlite3 *db) { sqlite3_exec(db, "begin", nullptr, nullptr, nullptr); },
         [](sqlite3 *db) { sqlite3_exec(db, "rollback", nullptr, nullptr, nullptr); }},
        {"read-only",
         [](sqlite3 *db) { sqlite3_exec(db, "pragma query_only=1", nullptr, nullptr, nullptr); },
         [](sqlite3 *db) { sqlite3_exec(db, "pragma query_only=0", nullptr, nullptr, nullptr); }},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        write_lines(LINES);
        c.spoil(oDNS.db);
        load();
        c.mend(oDNS.db);
        EXPECT_TRUE(fs::exists(list_file));
        EXPECT_EQ(read(COUNT), "0\n");
        load();
        EXPECT_FALSE(fs::exists(list_file));
        EXPECT_EQ(read(COUNT), std::to_string(LINES) + "\n");
        sqlite3_exec(oDNS.db, "delete from black", nullptr, nullptr, nullptr);
    }
    write_lines(LINES);
    close_database();
    EXPECT_EQ(load(0), "");
    EXPECT_TRUE(fs::exists(list_file));
}

TEST_F(ListLoadTest, AFailedImportTakesNoOtherRowBack) {
    pthread_t importer = pthread_self();
    sqlite3_commit_hook(
        oDNS.db,
        [](void *thread) {
            return pthread_equal(*static_cast<pthread_t *>(thread), pthread_self());
        },
        &importer);
    std::atomic<bool> stop = false;
    int written = 0;
    std::thread other([&] {
        while (!stop)
            written += insert_stats_summary_record(1, 2, 3, 4);
    });
    for (int i = 0; i < 5; i++) {
        write_lines(2000);
        load();
    }
    stop = true;
    other.join();
    EXPECT_TRUE(fs::exists(list_file));
    EXPECT_GT(written, 0);
    EXPECT_EQ(read("select count(*) from summary"), std::to_string(written) + "\n");
}

TEST_F(ListLoadTest, AKillLeavesTheFileOrAllOfItsRows) {
    constexpr int LINES = 4000;
    const std::string all = std::to_string(LINES) + "\n";
    close_database();
    int kept = 0;
    for (int round = 0; round < 12; round++) {
        write_lines(LINES);
        const pid_t child = fork();
        if (child == 0) {
            open_database(file.c_str(), &oDNS.db);
            List *list = create_list();
            _load_list(list, list_file.c_str());
            _exit(0);
        }
        usleep(static_cast<useconds_t>(3000 * round));
        kill(child, SIGKILL);
        ASSERT_EQ(waitpid(child, nullptr, 0), child);
        const std::string rows = read(COUNT);
        EXPECT_TRUE(rows == all || (rows == "0\n" && fs::exists(list_file))) << rows;
        kept += fs::exists(list_file);
        read("delete from black");
    }
    EXPECT_GT(kept, 0); // some kills did come in the middle
}

TEST_F(ListLoadTest, ListsDecideInTheirOrder) {
    write(directory / "black.lst", "bad.example\nboth.example\n");
    write(directory / "local_black.lst", "local-bad.example,1\nmine.example,4\n");
    write(directory / "white.lst", "good.bad.example,4\n");
    write(directory / "local_white.lst", "both.example,4\nmine.example,4\n");
    write(directory / "local_device.lst", "10.0.0.7,4\n10.0.0.8,4\n");
    write(directory / "blocked_device.lst", "10.0.0.8,4\n10.0.0.9\n");
    const struct {
        const char *name, *client;
        int blocked, white, black;
    } cases[] = {
        {"free.example", "10.0.0.1", 0, 0, 0},     {"www.bad.example", "10.0.0.1", 0, 0, 1},
        {"good.bad.example", "10.0.0.1", 0, 1, 1}, {"x.local-bad.example", "10.0.0.1", 0, 0, 1},
        {"mine.example", "10.0.0.1", 0, 1, 1},     {"www.bad.example", "10.0.0.7", 0, 1, 1},
        {"free.example", "10.0.0.8", 1, 1, 0},     {"free.example", "10.0.0.99", 1, 0, 0},
        {"localhost", "10.0.0.9", 1, 0, 0},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(is_blocked_device(c.name, client(c.client)), c.blocked) << c.name << c.client;
        EXPECT_EQ(is_whitelisted(c.name, client(c.client)), c.white) << c.name << c.client;
        EXPECT_EQ(is_blacklisted(c.name, client(c.client)), c.black) << c.name << c.client;
    }
    EXPECT_EQ(is_blacklisted(nullptr, client("10.0.0.1")), 0);
    const auto hits = [this](const std::string &table) {
        std::string sql =
            "select f.fqdn, l.frag, s.ip from T_hit h join T_fqdn f on f.id=h.fqdn_id "
            "join T_stats s on s.id=h.stats_id join T l on l.id=s.frag_id";
        for (size_t at = 0; (at = sql.find("T", at)) != std::string::npos; at += table.size())
            sql.replace(at, 1, table);
        return read(sql);
    };
    EXPECT_EQ(hits("white"), "good.bad.example|good.bad.example|10.0.0.1\n");
    EXPECT_EQ(hits("local_white"), "mine.example|mine.example|10.0.0.1\n");
    EXPECT_EQ(hits("local_black"), "x.local-bad.example|local-bad.example|10.0.0.1\n"
                                   "mine.example|mine.example|10.0.0.1\n");
    // A name seen again has a new row, which older hits do not follow.
    EXPECT_EQ(hits("blocked_device"), "free.example|10.0.0.9|10.0.0.99\n");
    EXPECT_EQ(hits("local_device"), "www.bad.example|10.0.0.7|10.0.0.7\n"
                                    "free.example|10.0.0.8|10.0.0.8\n");
}

TEST_F(ListLoadTest, EditsReachListAndTable) {
    EXPECT_EQ(get_local_black_list_size(), 0);
    EXPECT_EQ(add_local_black_list("x.example", 4), LIST_OK); // loads it first
    EXPECT_TRUE(blocked_device_list);
    EXPECT_EQ(add_local_black_list("x.example", 4), LIST_EXISTS);
    EXPECT_EQ(add_local_black_list("~x.example", 256 + 4), LIST_OK);
    EXPECT_EQ(add_local_black_list("42", 0), LIST_OK);
    EXPECT_EQ(add_local_black_list("#x", 0), LIST_EMPTY_ITEM);
    EXPECT_EQ(chain(get_local_black_list().get()), "42:0 x.example:4 ~x.example:4 ");
    EXPECT_EQ(get_local_black_list_size(), 3);
    constexpr char TABLE[] = "select id, frag, opt, disabled from local_black";
    EXPECT_EQ(read(TABLE), "1|x.example|4|1\n2|42|0|0\n");
    EXPECT_EQ(del_local_black_list("42"), LIST_NOT_FOUND); // a row's number, not the pattern
    EXPECT_EQ(del_local_black_list("2"), LIST_OK);
    EXPECT_EQ(del_local_black_list("2"), LIST_NOT_FOUND);
    for (const char *item : {"", "X.example", "99999999999999999999"})
        EXPECT_EQ(del_local_black_list(item), LIST_NOT_FOUND) << item;
    EXPECT_EQ(del_local_black_list(nullptr), LIST_NOT_FOUND);
    EXPECT_EQ(read(TABLE), "1|x.example|4|1\n2|42|0|1\n");
    // Loading the local white list replaces the devices' list, holds and all.
    EXPECT_EQ(add_local_device_list("10.0.0.1", 4), LIST_OK);
    const ListHold old(device_list);
    EXPECT_EQ(del_local_white_list("nothing"), LIST_NOT_FOUND);
    EXPECT_NE(old.get(), device_list);
    EXPECT_EQ(chain(old.get()), chain(device_list));
    EXPECT_EQ(del_local_device_list("10.0.0.1"), LIST_OK);
    // What was cleaned up is loaded again, with a file that came meanwhile.
    black_list_cleanup();
    EXPECT_EQ(get_local_black_list_size(), 0);
    write(directory / "local_black.lst", "new.example\n");
    EXPECT_EQ(is_blacklisted("www.new.example", client("10.0.0.1")), 1);
}

// Lookups, edits and reloads at once: every lookup sees whole lists.
TEST_F(ListLoadTest, ThreadsShareTheLists) {
    oDNS.record_traffic = 0;
    write_lines(200);
    std::atomic<bool> stop = false;
    std::atomic<int> wrong = 0;
    std::vector<std::thread> threads;
    init_black_list();
    for (int i = 0; i < 2; i++)
        threads.emplace_back([&] {
            while (!stop) {
                // Between a clean-up and the load that follows a list may be missing for a moment.
                const ListHold list(black_list);
                wrong += list && find_in_list("host-199.example", list.get(), 1, nullptr) != 1;
                is_blacklisted("edited-7.example", client("10.0.0.1"));
                is_whitelisted("free.example", client("10.0.0.1"));
            }
        });
    threads.emplace_back([&] {
        while (!stop) {
            black_list_cleanup();
            _load_local_white_list();
            usleep(2000);
        }
    });
    for (int i = 0; i < 150; i++) {
        const std::string item = "edited-" + std::to_string(i % 60) + ".example";
        wrong += i >= 60 ? del_local_black_list(item.c_str()) == LIST_IS_NULL
                         : add_local_black_list(item.c_str(), 4) != LIST_OK;
        const ListHold list = get_local_black_list();
        List *page = get_sub_list(list.get(), 1, 10);
        free_list(page);
    }
    stop = true;
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
}

} // namespace
