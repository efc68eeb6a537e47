// Runs a fuzz function where no fuzzing engine is at hand: over the files given, and all files of
// directories given. Options are the engine's and have no effect.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

static void run(const std::filesystem::path &path) {
    std::ifstream in(path, std::ios::binary);
    const std::string input(std::istreambuf_iterator<char>(in), {});
    std::printf("%s\n", path.c_str()); // the last one is the one that fails
    std::fflush(stdout);
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(input.data()), input.size());
}

int main(int, char **argv) {
    while (const char *argument = *++argv)
        if (std::filesystem::is_directory(argument))
            for (const auto &entry : std::filesystem::directory_iterator(argument))
                run(entry.path());
        else if (*argument != '-')
            run(argument);
}
