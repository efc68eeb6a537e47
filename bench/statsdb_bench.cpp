// Rows a second that one connection takes, with SQLite's own settings and with the daemon's, and
// what it costs to leave them to the recorder. The database lies in the current directory: what
// counts is the disk under it.
#include "config.h"
#include "recorder.h"
#include "statsdb.h"

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <sqlite3.h>

namespace {

constexpr char FILE_NAME[] = "statsdb_bench.db";

enum Settings : int64_t { sqlite_defaults, daemon_settings };

class Database : public benchmark::Fixture {
  public:
    void SetUp(benchmark::State &state) override {
        remove(FILE_NAME);
        const int result = state.range(0) == daemon_settings ? open_database(FILE_NAME, &oDNS.db)
                                                             : sqlite3_open(FILE_NAME, &oDNS.db);
        oDNS.record_traffic = 1;
        if (result != SQLITE_OK || !create_traffic_table() || !create_list_stats_table("black") ||
            !create_frag_key("ads", 0, "black"))
            state.SkipWithError("no database");
    }
    void TearDown(benchmark::State &) override {
        close_database();
        remove(FILE_NAME);
    }
};

// A name of its own for each query.
struct Names {
    char text[32];
    int count = 0;
    const char *next() {
        snprintf(text, sizeof text, "host%d.ads.example", count++);
        return text;
    }
};

BENCHMARK_DEFINE_F(Database, RecordRequest)(benchmark::State &state) {
    const sockaddr_in client = {.sin_family = AF_INET,
                                .sin_port = 0,
                                .sin_addr = {inet_addr("192.168.8.20")},
                                .sin_zero = {}};
    Names names;
    for (auto _ : state)
        if (!record_request(names.next(), client))
            state.SkipWithError("a row was not written");
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK_DEFINE_F(Database, InsertListRecord)(benchmark::State &state) {
    Names names;
    for (auto _ : state)
        if (!insert_list_record(names.next(), "black", "ads", "192.168.8.20"))
            state.SkipWithError("a row was not written");
    state.SetItemsProcessed(state.iterations());
}

// What a hit costs its query when it only waits; the writing is not measured.
BENCHMARK_DEFINE_F(Database, RecordHitLate)(benchmark::State &state) {
    constexpr int ROWS = 1000;
    Names names;
    oDNS.stats_write_delay = 3600;
    while (state.KeepRunningBatch(ROWS)) {
        state.PauseTiming();
        start_recorder();
        state.ResumeTiming();
        for (int row = 0; row < ROWS; row++)
            record_hit(names.next(), "black", "ads", "192.168.8.20");
        state.PauseTiming();
        end_recorder();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK_REGISTER_F(Database, RecordHitLate)
    ->ArgName("daemon_settings")
    ->Arg(daemon_settings)
    ->UseRealTime();
BENCHMARK_REGISTER_F(Database, RecordRequest)
    ->ArgName("daemon_settings")
    ->DenseRange(sqlite_defaults, daemon_settings)
    ->UseRealTime();
BENCHMARK_REGISTER_F(Database, InsertListRecord)
    ->ArgName("daemon_settings")
    ->DenseRange(sqlite_defaults, daemon_settings)
    ->UseRealTime();

} // namespace
