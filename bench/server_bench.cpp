// What every query passes besides lists and database: name decoding and the hand-over to a worker.
#include "message.h"
#include "svrutils.h"
#include "thpool.h"

#include <atomic>
#include <benchmark/benchmark.h>
#include <cstring>
#include <string_view>

namespace {

void BM_DecodeName(benchmark::State &state) {
    static constexpr std::string_view QUERY(
        "\0\1\1\0\0\1\0\0\0\0\0\0\3www\7tracker\7example\0\0\1\0\1", 37);
    uint8_t message[516] = {};
    std::memcpy(message, QUERY.data(), QUERY.size());
    for (auto _ : state) {
        char name[QUERY_NAME_SIZE];
        extract_url(name, message, QUESTION_OFFSET, {});
        benchmark::DoNotOptimize(name);
    }
}
BENCHMARK(BM_DecodeName);

void *count_down(void *jobs) {
    --*static_cast<std::atomic<int> *>(jobs);
    return nullptr;
}

// From the queueing of a burst to the end of its last job, with five workers; per job.
void BM_HandOver(benchmark::State &state) {
    thpool *pool = thpool_init(5);
    if (state.range(1))
        thpool_run_in_turn(pool);
    const int burst = static_cast<int>(state.range(0));
    for (auto _ : state) {
        std::atomic<int> left = burst;
        for (int i = 0; i < burst; i++)
            thpool_add_work(pool, count_down, &left);
        while (left > 0)
            ;
    }
    state.SetItemsProcessed(state.iterations() * burst);
    thpool_destroy(pool);
}
BENCHMARK(BM_HandOver)
    ->ArgNames({"burst", "in_turn"})
    ->ArgsProduct({{1, 64}, {0, 1}})
    ->UseRealTime();

} // namespace
