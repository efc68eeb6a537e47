// The converter of published lists as a program: time and memory for lines of all forms, alone and
// with the output of an earlier run of which every tenth name is another.
#include "names.h"

#include <benchmark/benchmark.h>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

constexpr const char *FORMS[][2] = {
    {"0.0.0.0 ", ""}, {"||", "^"}, {"", " # a comment"}, {"address=/", "/"}, {"*.", "\r"}};

// Two lists of many lines, and the output for the first.
struct Files {
    fs::path directory;
    double text_bytes = 0; // of the names of the second

    explicit Files(int64_t lines) {
        std::string name = fs::temp_directory_path() / "convert-bench-XXXXXX";
        directory = mkdtemp(name.data());
        std::mt19937 random(1);
        std::ofstream first(directory / "first");
        std::ofstream second(directory / "second");
        for (int64_t i = 0; i < lines; i++) {
            const auto &form = FORMS[random() % std::size(FORMS)];
            const std::string shared = random_name(random);
            const std::string other = i % 10 == 0 ? random_name(random) : shared;
            first << form[0] << shared << form[1] << '\n';
            second << form[0] << other << form[1] << '\n';
            text_bytes += static_cast<double>(other.size());
        }
    }
    ~Files() { fs::remove_all(directory); }
    Files(const Files &) = delete;
    Files &operator=(const Files &) = delete;
};

struct Cost {
    double memory = 0;  // peak of resident memory, bytes; 0 when the program failed
    double seconds = 0; // of the processor
};

double seconds(const timeval &time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
}

// Runs the program in the directory.
Cost run(const fs::path &directory, const char *old, const char *input) {
    const pid_t child = fork();
    if (child == 0) {
        const int nowhere = open("/dev/null", O_WRONLY);
        if (chdir(directory.c_str()) == 0 && dup2(nowhere, 1) == 1 && dup2(nowhere, 2) == 2)
            execl(CONVERTER, CONVERTER, "-o", old, "-n", "whole", input, nullptr);
        _exit(127);
    }
    int status = -1;
    rusage usage{};
    wait4(child, &status, 0, &usage);
    return {status == 0 ? static_cast<double>(usage.ru_maxrss) * 1024 : 0,
            seconds(usage.ru_utime) + seconds(usage.ru_stime)};
}

void BM_Convert(benchmark::State &state) {
    const Files files(state.range(0));
    const Cost floor = run(files.directory, "none", "/dev/null");
    const Cost first = run(files.directory, "none", "first");
    fs::rename(files.directory / "whole", files.directory / "old");
    const bool has_old = state.range(1);
    Cost cost;
    for (auto _ : state)
        cost = run(files.directory, has_old ? "old" : "none", "second");
    if (floor.memory == 0 || first.memory == 0 || cost.memory == 0)
        state.SkipWithError("the program failed");
    state.counters["bytes/name over text"] =
        (cost.memory - floor.memory - files.text_bytes) / static_cast<double>(state.range(0));
    state.counters["processor s"] = cost.seconds;
}
BENCHMARK(BM_Convert)
    ->ArgNames({"lines", "old"})
    ->ArgsProduct({{100000, 1000000}, {0, 1}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

} // namespace
