// The converter of published lists: which names each kind of line has, what their patterns match in
// the daemon, and what is no output of it.
#include "converted.h"
#include "database_fixture.h"
#include "lines.h"

#include <nlohmann/json.hpp>
#include <regex>

namespace {

using nlohmann::json;

struct Input : Lists {
    explicit Input(const std::string &text) {
        EXPECT_TRUE(read_text(text, *this) && arrange(black) && arrange(white));
        drop_covered(black);
        drop_covered(white);
    }
};

// "name " for its two patterns, ".name " for what is below it alone.
std::string brief(const Names &names) {
    static const std::regex pair("(.*),4\n\\.\\1,1\n"), below(",1\n");
    return std::regex_replace(std::regex_replace(written(names), pair, "$1 "), below, " ");
}

void expect_converted(const std::string &text, const json &expected) {
    SCOPED_TRACE(text.substr(0, 300));
    const Input input(text);
    EXPECT_EQ(brief(input.black), expected.value("names", ""));
    EXPECT_EQ(brief(input.white), expected.value("white", ""));
    std::string left_out;
    for (int reason = 0; reason < LEFT_OUT_REASONS; reason++)
        left_out += input.left_out[reason] > 0 ? REASONS[reason] : "";
    EXPECT_EQ(left_out, expected.value("left out", ""));
    EXPECT_EQ(input.lines > 0, expected["form"] != "none");
    EXPECT_EQ(input.known, expected["form"] == "known" ? input.lines : 0);
}

TEST(Converter, EveryKindOfLine) {
    for (const json &c : json::parse(std::ifstream(TEST_DATA "/convert.json")))
        for (const std::string text : c["lines"])
            expect_converted(text, c);
    const std::string longest(LONGEST_LINE, 'x');
    expect_converted("a.example " + longest,
                     {{"left out", REASONS[LINE_TOO_LONG]}, {"form", "unknown"}});
    expect_converted("#" + longest, {{"form", "none"}});
}

TEST(Converter, WhatItNeverWroteIsNoEarlierOutput) {
    for (const std::string line : {"a.example", "a.example,1", ".a.example,4", "~a.example", "",
                                   ",4", "A example,4", "a.example,4\r"}) {
        Names old;
        uint32_t bad_line = 0;
        EXPECT_FALSE(read_output("a.example,4\n" + line + '\n', old, bad_line)) << line;
        EXPECT_EQ(bad_line, 2);
    }
}

// In the daemon the patterns block the names and what is below them, and nothing beside or above.
TEST_F(ListsTest, ConvertedNamesBlockWhatIsBelowThemAndNothingElse) {
    // The longest that a list can store.
    std::string longest(LONGEST_STORED_NAME, 'l');
    longest[63] = longest[127] = longest[191] = '.';
    std::vector<std::string> names{longest};
    for (int i = 0; i < 10000; i++)
        names.push_back(std::to_string(i) + ".site-" + std::to_string(i % 50) + ".example");
    std::string input;
    for (const std::string &name : names)
        input += name + '\n';
    harness::write_file(directory / "black.lst", written(Input(input).black));
    init_black_list();
    EXPECT_EQ(read("select count(*) from black"), "20002\n"); // two patterns for each name
    const auto is_blocked = [](const std::string &name) {
        return is_blacklisted({name.c_str(), "10.0.0.1"}) == 1;
    };
    for (const std::string &name : names) {
        const std::string parent = name.substr(name.find('.') + 1);
        EXPECT_TRUE(is_blocked(name) && is_blocked("below." + name)) << name;
        for (const std::string &other :
             {'x' + name, name + 'x', "beside." + parent, parent, name + ".test"})
            EXPECT_FALSE(is_blocked(other)) << other;
    }
}

} // namespace
