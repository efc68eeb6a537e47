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

namespace fs = harness::fs;

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
};

// At first a process that was killed has left the file in write-ahead mode, its row still in the
// log; then it is as this one left it.
TEST_P(JournalTest, FileIsReadableAllTheTimeAndPlainAtTheEnd) {
    limit(false);
    open_with_tables();
    EXPECT_EQ(insert_stats_summary_record(1, 2, 3, 4), 1);
    fs::copy(directory, "/tmp/left");
    close_database();
    fs::copy("/tmp/left", directory,
             fs::copy_options::recursive | fs::copy_options::overwrite_existing);
    fs::remove_all("/tmp/left");
    limit(limited);
    EXPECT_EQ(write_version(), 2);
    for (const char *rows : {"2\n", "3\n"}) {
        open_with_tables();
        EXPECT_EQ(write_version(), limited ? 1 : 2);
        EXPECT_EQ(insert_stats_summary_record(1, 2, 3, 4), 1);
        EXPECT_EQ(read("select count(*) from summary"), rows);
        close_database();
        EXPECT_EQ(write_version(), 1);
        for (const char *suffix : {"-wal", "-shm", "-journal"})
            EXPECT_FALSE(fs::exists(file + suffix)) << suffix;
        EXPECT_EQ(read("select count(*) from summary"), rows);
    }
}

// Rows do not wait for the disk where there is a log; what the owner edits always does, and a file
// goes only when what it held is on the disk.
TEST_P(JournalTest, EditsAreSynchronised) {
    open_with_tables();
    const auto expect_sync = [](bool expected, auto action) {
        syncs = 0;
        EXPECT_EQ(action(), 1);
        EXPECT_EQ(syncs > 0, expected);
    };
    const auto row = [] { return insert_stats_summary_record(1, 1, 1, 1); };
    expect_sync(limited, row);
    expect_sync(true, [] {
        const EntryEdit edit("black", "ads");
        return create_frag_key("ads", 0, "black");
    });
    harness::write_file(directory / "black.lst", "ads.example\n");
    List *list = create_list();
    const TestList owner(list);
    expect_sync(true, [&] { return _load_list(list, (directory / "black.lst").c_str()); });
    EXPECT_FALSE(fs::exists(directory / "black.lst"));
    expect_sync(limited, row);
}

INSTANTIATE_TEST_SUITE_P(Limited, JournalTest, testing::Bool(), testing::PrintToStringParamName());

} // namespace
