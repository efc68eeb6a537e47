// Runs a fuzz function where no fuzzing engine is at hand: over the files given, and all files of
// directories given. Options are the engine's and have no effect.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

static void run(const fs::path &path) {
    std::ifstream in(path, std::ios::binary);
    const std::string input(std::istreambuf_iterator<char>(in), {});
    std::printf("%s\n", path.c_str()); // the last one is the one that fails
    std::fflush(stdout);
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(input.data()), input.size());
}

int main(int argc, char **argv) {
    for (const fs::path path : std::vector<std::string>(argv + 1, argv + argc)) {
        if (fs::is_directory(path))
            for (const auto &entry : fs::directory_iterator(path))
                run(entry.path());
        else if (!path.string().starts_with("-"))
            run(path);
    }
}
