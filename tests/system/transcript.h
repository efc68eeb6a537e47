// Commands and what they print, as files in tests/data/transcripts show them.
#pragma once

#include "harness.h"

#include <cstring>
#include <sstream>

#include <fnmatch.h>

namespace harness {

// What commands of the shell print, with the last one's exit status behind it unless that is 0.
inline std::string shell(const std::string &commands) {
    Process process("/bin/sh", {"-c", commands});
    const int status = process.wait(250'000);
    return process.output() + (status ? "exit " + std::to_string(status) + "\n" : "");
}

// Whether the text is the expected one, in which "..." stands for anything.
inline void expect_like(const std::string &text, const std::string &expected) {
    std::string pattern;
    for (size_t i = 0; i < expected.size(); i++)
        if (expected.compare(i, 3, "...") == 0)
            pattern += "*", i += 2;
        else
            pattern.append(strchr("[?*\\", expected[i]) ? "\\" : "").append(1, expected[i]);
    EXPECT_EQ(fnmatch(pattern.c_str(), text.c_str(), 0), 0) << text << "instead of\n" << expected;
}

// For transcripts of the daemon as a process.
constexpr char PROCESS_TOOLS[] = "PATH=" BUILT_PROGRAMS ":$PATH; . " ROUTER_FILES "/process.sh\n";

// Runs each command of a file, which is the lines "$ ..." and then "> ...", behind others that are
// not shown. What follows must be its output. Empty lines and those with a "#" are comments.
inline void expect_transcript(const std::string &name, const std::string &before = "") {
    std::istringstream file(read_file(TEST_DATA "/transcripts/" + name) + "$ true\n");
    std::string command = "true", expected;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("> ")) {
            command += '\n' + line.substr(2);
        } else if (line.starts_with("$ ")) {
            SCOPED_TRACE(name + ": " + command);
            expect_like(shell(before + command), expected);
            command = line.substr(2);
            expected.clear();
        } else if (!line.empty() && !line.starts_with("#")) {
            expected += line + '\n';
        }
    }
    EXPECT_TRUE(fs::exists(TEST_DATA "/transcripts/" + name)) << name;
}

} // namespace harness
