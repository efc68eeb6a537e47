// Which journal the database uses, on file systems with and without shared writable mappings.
#include "database_fixture.h"
#include "list_helpers.h"
#include "listload.h"

#include <cerrno>
#include <sys/mman.h>

static int syncs;

// What SQLite calls to have a file on the disk, as it was built.
extern "C" int fsync(int) {
    syncs++;
    return 0;
}
extern "C" int fdatasync(int fd) {
    return fsync(fd);
}

namespace {

// Limited is a file system such as JFFS2, without shared memory.
class JournalTest : public DatabaseTest, public testing::WithParamInterface<bool> {
    static void *map_nothing(void *, size_t, int, int, int, off_t) {
        errno = ENODEV;
        return MAP_FAILED;
    }

  protected:
    const bool limited = GetParam();

    static void limit(bool on) {
        sqlite3_vfs *vfs = sqlite3_vfs_find("unix");
        const auto call = reinterpret_cast<sqlite3_syscall_ptr>(map_nothing);
        ASSERT_EQ(vfs->xSetSystemCall(vfs, "mmap", on ? call : nullptr), SQLITE_OK);
    }
    void SetUp() override {
        DatabaseTest::SetUp();
        limit(limited);
    }
    void TearDown() override {
        DatabaseTest::TearDown();
        limit(false);
    }
    // The file format's write version: 1 is a plain database file, 2 one with a write-ahead log.
    int write_version() const { return std::ifstream(file).seekg(18).get(); }
    void expect_plain_file() const {
        EXPECT_EQ(write_version(), 1);
        for (const char *suffix : {"-wal", "-shm", "-journal"})
            EXPECT_FALSE(std::filesystem::exists(file + suffix)) << suffix;
    }
};

TEST_P(JournalTest, FileIsReadableAllTheTimeAndPlainAtTheEnd) {
    for (const char *rows : {"1\n", "2\n"}) {
        open_with_tables();
        EXPECT_EQ(write_version(), limited ? 1 : 2);
        EXPECT_EQ(insert_stats_summary_record(1, 2, 3, 4), 1);
        EXPECT_EQ(read("select count(*) from summary"), rows);
        close_database();
        expect_plain_file();
        EXPECT_EQ(read("select count(*) from summary"), rows);
    }
}

// A process that was killed left the file in write-ahead mode, its rows still in the log.
TEST_P(JournalTest, RecoversAFileInWriteAheadMode) {
    const std::string left = directory / "left.db";
    {
        limit(false);
        const Holder other(left, "pragma journal_mode=wal; create table summary (id integer "
                                 "primary key, req not null, blocked, reset, error);"
                                 "insert into summary values (1, 10, 20, 30, 40)");
        for (const char *suffix : {"", "-wal", "-shm"})
            std::filesystem::copy_file(left + suffix, file + suffix);
        limit(limited);
    }
    EXPECT_EQ(write_version(), 2);
    ASSERT_EQ(open_database(file.c_str(), &oDNS.db), SQLITE_OK);
    EXPECT_EQ(insert_stats_summary_record(11, 0, 0, 0), 1);
    EXPECT_EQ(read("select req from summary"), "10\n11\n");
    EXPECT_EQ(write_version(), limited ? 1 : 2);
    close_database();
    expect_plain_file();
}

// Rows do not wait for the disk where there is a log; what the owner edits always does.
TEST_P(JournalTest, EditsAreSynchronised) {
    open_with_tables();
    const auto syncs_of = [](auto action) {
        syncs = 0;
        EXPECT_EQ(action(), 1);
        return syncs;
    };
    const auto row = [] { return insert_stats_summary_record(1, 1, 1, 1); };
    EXPECT_EQ(syncs_of(row) > 0, limited);
    EXPECT_GT(syncs_of([] {
                  const EntryEdit edit("black", "ads");
                  return create_frag_key("ads", 0, "black");
              }),
              0);
    // A file goes only when what it held is on the disk.
    std::ofstream(directory / "black.lst") << "ads.example\n";
    const TestList list;
    EXPECT_GT(syncs_of([this, owned = list.get()]() mutable {
                  return _load_list(owned, (directory / "black.lst").c_str());
              }),
              0);
    EXPECT_FALSE(std::filesystem::exists(directory / "black.lst"));
    EXPECT_EQ(syncs_of(row) > 0, limited);
}

INSTANTIATE_TEST_SUITE_P(Limited, JournalTest, testing::Bool(), testing::PrintToStringParamName());

} // namespace
