// Which journal the database uses, on file systems with and without shared writable mappings.
#include "database_fixture.h"
#include "list_helpers.h"
#include "listload.h"

namespace {

// Stands in for a file system such as JFFS2: the default file system layer, without shared memory
// if it is limited. Counts what is synchronised.
class LimitedVfs {
    static inline sqlite3_vfs *real_;
    static inline sqlite3_vfs limited_;
    static inline const sqlite3_io_methods *real_methods_[2]; // of the file and of its log
    static inline sqlite3_io_methods methods_[2];
    static inline bool is_limited_;

    template <bool IsLog>
    static void put_ours_before(sqlite3_file *file) {
        real_methods_[IsLog] = file->pMethods;
        sqlite3_io_methods &ours = methods_[IsLog] = *file->pMethods;
        ours.xSync = [](sqlite3_file *synced, int how) {
            syncs++;
            return real_methods_[IsLog]->xSync(synced, how);
        };
        if (is_limited_)
            ours.xShmMap = [](sqlite3_file *mapped, auto... rest) {
                real_methods_[IsLog]->xShmMap(mapped, rest...); // the file itself can be made
                return SQLITE_IOERR_SHMMAP;
            };
        file->pMethods = &ours;
    }
    static int open(sqlite3_vfs *, const char *name, sqlite3_file *file, int flags, int *out) {
        const int result = real_->xOpen(real_, name, file, flags, out);
        if (result == SQLITE_OK && flags & SQLITE_OPEN_MAIN_DB)
            put_ours_before<false>(file);
        if (result == SQLITE_OK && flags & SQLITE_OPEN_WAL)
            put_ours_before<true>(file);
        return result;
    }

  public:
    static inline int syncs;
    explicit LimitedVfs(bool limited) {
        is_limited_ = limited;
        real_ = sqlite3_vfs_find("unix");
        limited_ = *real_;
        limited_.zName = "limited";
        limited_.xOpen = open;
        sqlite3_vfs_register(&limited_, 1);
    }
    ~LimitedVfs() {
        sqlite3_vfs_unregister(&limited_);
        sqlite3_vfs_register(real_, 1);
    }
};

class JournalTest : public DatabaseTest, public testing::WithParamInterface<bool> {
  protected:
    bool limited = GetParam();
    LimitedVfs vfs{limited};

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
        const Holder other(left, "pragma journal_mode=wal; create table summary (id integer "
                                 "primary key, req not null, blocked, reset, error);"
                                 "insert into summary values (1, 10, 20, 30, 40)");
        for (const char *suffix : {"", "-wal", "-shm"})
            std::filesystem::copy_file(left + suffix, file + suffix);
    }
    EXPECT_EQ(write_version(), 2);
    ASSERT_EQ(open_database(file.c_str(), &oDNS.db), SQLITE_OK);
    EXPECT_EQ(insert_stats_summary_record(11, 0, 0, 0), 1);
    EXPECT_EQ(read("select req from summary"), "10\n11\n");
    EXPECT_EQ(write_version(), limited ? 1 : 2);
    close_database();
    expect_plain_file();
}

TEST_P(JournalTest, RowsWaitForAnotherWriter) {
    open_with_tables();
    std::optional<Holder> other(std::in_place, file, "begin immediate");
    const std::jthread end([&] { usleep(100'000), other.reset(); });
    EXPECT_EQ(insert_stats_summary_record(1, 1, 1, 1), 1);
}

// Rows do not wait for the disk where there is a log; what the owner edits always does.
TEST_P(JournalTest, EditsAreSynchronised) {
    open_with_tables();
    const auto syncs_of = [](auto action) {
        LimitedVfs::syncs = 0;
        EXPECT_EQ(action(), 1);
        return LimitedVfs::syncs;
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
