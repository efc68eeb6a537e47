// Pattern lists: lookups by the index and by the walk, edits, loading, memory.
#include "config.h"
#include "guards.h"
#include "list.h"
#include "listindex.h"
#include "listload.h"
#include "log.h"
#include "names.h"
#include "statsdb.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <malloc.h>
#include <memory>
#include <random>
#include <string>
#include <syslog.h>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr size_t KEY_LENGTH = 30;
constexpr int8_t MODES[] = {MATCH_CONTAINS, MATCH_ENDS_WITH, MATCH_BEGINS_WITH, MATCH_EXACT};

enum Mixture { ALL_MODES, ALL_CONTAIN };
enum Method { WALK, INDEX };
enum Answer { MISS, HIT };

struct Patterns {
    List *list = create_list();
    size_t text_bytes = 0;
    double bytes_over_text = 0;
    std::vector<std::string> hits; // keys of 30 bytes, in random order, that some pattern matches
    std::vector<std::string> misses;

    Patterns(size_t count, Mixture mixture, Method method) {
        std::mt19937 random(1);
        const size_t before = allocated();
        size_t added = 0;
        while (added < count) {
            const std::string name = random_name(random);
            const int8_t mode = MODES[mixture == ALL_CONTAIN ? 0 : random() % 4];
            if (add_item_copy(name.c_str(), mode, list) != LIST_OK)
                continue;
            added++;
            text_bytes += name.size() + 1;
        }
        bytes_over_text =
            static_cast<double>(allocated() - before - text_bytes) / static_cast<double>(count);
        for (const Node *node = list->head; node; node = node->next) {
            const size_t missing = KEY_LENGTH - strlen(node->frag);
            if (node->opt > MATCH_ENDS_WITH || random() % std::max<size_t>(count / 500, 1) != 0)
                continue;
            hits.push_back(random_label(random, missing, missing) + node->frag);
            misses.push_back(random_label(random, 17, 17) + '.' + random_label(random, 8, 8) +
                             ".org");
        }
        std::shuffle(hits.begin(), hits.end(), random);
        if (method == WALK) {
            free_index(list->index);
            list->index = nullptr;
            list->index_at = UINT32_MAX;
        }
    }
    ~Patterns() { free_list(list); }
    Patterns(const Patterns &) = delete;
    Patterns &operator=(const Patterns &) = delete;

    static size_t allocated() {
        const struct mallinfo2 info = mallinfo2();
        return info.uordblks + info.hblkhd;
    }
};

void BM_Lookup(benchmark::State &state) {
    const auto count = static_cast<size_t>(state.range(0));
    const Patterns patterns(count, static_cast<Mixture>(state.range(1)),
                            static_cast<Method>(state.range(2)));
    const bool hit = state.range(3) == HIT;
    const auto &keys = hit ? patterns.hits : patterns.misses;
    size_t i = 0;
    size_t found = 0;
    for (auto _ : state) {
        found += static_cast<size_t>(
            find_in_list(keys[i % keys.size()].c_str(), patterns.list, 1, nullptr));
        i++;
    }
    if (found != (hit ? i : 0))
        state.SkipWithError("a lookup gave the wrong answer");
    state.counters["bytes/pattern"] = patterns.bytes_over_text;
}
BENCHMARK(BM_Lookup)
    ->ArgNames({"patterns", "contain", "index", "hit"})
    ->ArgsProduct({{100000}, {ALL_MODES, ALL_CONTAIN}, {WALK, INDEX}, {MISS, HIT}})
    ->ArgsProduct({{1000, 1000000}, {ALL_MODES, ALL_CONTAIN}, {INDEX}, {MISS, HIT}});

// For the plot: misses, which walk the whole list.
BENCHMARK(BM_Lookup)
    ->Name("Growth")
    ->ArgNames({"patterns", "contain", "index", "hit"})
    ->ArgsProduct({{100, 1000, 10000, 100000, 1000000}, {ALL_CONTAIN}, {WALK, INDEX}, {MISS}});

// One pattern comes and goes in a list of the given size.
void BM_Edit(benchmark::State &state) {
    const Patterns patterns(static_cast<size_t>(state.range(0)), ALL_MODES, INDEX);
    for (auto _ : state) {
        add_item_copy("comes.and.goes.example", MATCH_EXACT, patterns.list);
        remove_item("comes.and.goes.example", patterns.list);
    }
}
BENCHMARK(BM_Edit)->ArgName("patterns")->Arg(1000)->Arg(100000);

// A database in a directory of its own, and a list file with names of mode 0.
struct Store {
    fs::path directory;
    fs::path file;

    Store() {
        std::string name = fs::temp_directory_path() / "list-bench-XXXXXX";
        if (mkdtemp(name.data()))
            directory = name;
        file = directory / "black.lst";
        open_database((directory / "vantrelle.db").c_str(), &oDNS.db);
    }
    ~Store() {
        close_database();
        fs::remove_all(directory);
    }
    Store(const Store &) = delete;
    Store &operator=(const Store &) = delete;

    void write(int64_t lines) const {
        std::mt19937 random(2);
        std::ofstream out(file);
        for (int64_t i = 0; i < lines; i++)
            out << random_name(random) << '\n';
    }
    size_t load() const {
        List *list = create_list();
        _load_list(list, file.c_str());
        const size_t nodes = list->nodes;
        free_list(list);
        return nodes;
    }
};

// Import of a list file into an empty database and the load that follows.
void BM_Import(benchmark::State &state) {
    for (auto _ : state) {
        state.PauseTiming();
        auto store = std::make_unique<Store>();
        store->write(state.range(0));
        state.ResumeTiming();
        state.counters["loaded"] = static_cast<double>(store->load());
        state.PauseTiming();
        store.reset();
        state.ResumeTiming();
    }
}
BENCHMARK(BM_Import)->ArgName("lines")->Arg(100000)->Unit(benchmark::kMillisecond)->UseRealTime();

// The load at the next start.
void BM_LoadAgain(benchmark::State &state) {
    const Store store;
    store.write(state.range(0));
    store.load();
    for (auto _ : state)
        state.counters["loaded"] = static_cast<double>(store.load());
}
BENCHMARK(BM_LoadAgain)
    ->ArgName("lines")
    ->Arg(100000)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

[[maybe_unused]] const int quiet = set_logged_priorities(LOG_UPTO(LOG_ERR));

} // namespace
