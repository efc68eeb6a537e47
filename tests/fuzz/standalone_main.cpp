// Drives a fuzz function where no fuzzing engine is at hand: runs it over the files given, or all
// files of directories given, then for -max_total_time=SECONDS (default 0) over random mutations of
// them. The same -seed=N gives the same sequence.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

namespace fs = std::filesystem;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

constexpr size_t max_size = 4096;

std::mt19937 rng;

size_t pick(size_t bound) {
    return bound ? rng() % bound : 0;
}

void run(const std::string &input) {
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(input.data()), input.size());
}

std::string read(const fs::path &path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// Flips bits, and replaces pieces by pieces of other inputs; either piece may be empty.
std::string mutated(const std::vector<std::string> &inputs) {
    std::string text = inputs[pick(inputs.size())];
    for (size_t steps = 1 + pick(6); steps > 0; --steps) {
        const size_t at = pick(text.size() + 1);
        const std::string &other = inputs[pick(inputs.size())];
        if (at < text.size() && pick(2))
            text[at] = static_cast<char>(text[at] ^ (1 << pick(8)));
        else
            text.replace(at, pick(16), other, pick(other.size() + 1), pick(16));
    }
    text.resize(std::min(text.size(), max_size));
    return text;
}

} // namespace

int main(int argc, char **argv) {
    std::vector<std::string> inputs;
    unsigned long seconds = 0, seed = std::random_device()();
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg.starts_with("-max_total_time="))
            seconds = std::stoul(arg.substr(16));
        else if (arg.starts_with("-seed="))
            seed = std::stoul(arg.substr(6));
        else if (!fs::is_directory(arg))
            inputs.push_back(read(arg));
        else
            for (const auto &entry : fs::directory_iterator(arg))
                inputs.push_back(read(entry.path()));
    }
    std::sort(inputs.begin(), inputs.end()); // the order of a directory is not fixed
    for (const std::string &input : inputs)
        run(input);
    if (inputs.empty())
        inputs.emplace_back();

    std::printf("%zu inputs, -seed=%lu\n", inputs.size(), seed);
    std::fflush(stdout);
    rng.seed(static_cast<std::mt19937::result_type>(seed));
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    size_t runs = 0;
    for (; std::chrono::steady_clock::now() < end; ++runs)
        run(mutated(inputs));
    std::printf("%zu mutations\n", runs);
}
