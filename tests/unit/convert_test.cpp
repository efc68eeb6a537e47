// The converter of published lists: which names each kind of line has, what their patterns match in
// the daemon, and what two runs differ by.
#include "converted.h"
#include "database_fixture.h"
#include "lines.h"

#include <nlohmann/json.hpp>
#include <random>
#include <regex>
#include <set>

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

// The lines of a run in any order, and twice, are the same set.
TEST(Converter, ADifferenceLeadsFromOneOutputToTheNext) {
    const Input before("gone.example\nkept.example\nhalf.example\nx.parent.example");
    const Input after("new.example\nkept.example\n*.half.example CNAME .\nparent.example");
    Names old;
    uint32_t bad_line = 0;
    ASSERT_TRUE(read_output(".kept.example,1\n" + written(before.black) + "gone.example,4\n", old,
                            bad_line) &&
                arrange(old));
    EXPECT_EQ(written(old), written(before.black));
    EXPECT_EQ(written(old, after.black, LineKind::REMOVED),
              "~gone.example\n~.gone.example\n~half.example\n~x.parent.example\n"
              "~.x.parent.example\n");
    EXPECT_EQ(written(after.black, old),
              "parent.example,4\n.parent.example,1\nnew.example,4\n.new.example,1\n");
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
    std::mt19937 random(1);
    const auto label = [&random] {
        std::string text(1, "abcde"[random() % 5]);
        while (random() % 3)
            text += "abcde-"[random() % 6];
        return text + "abcde"[random() % 5];
    };
    // The longest that a list can store.
    std::string longest(LONGEST_STORED_NAME, 'l');
    longest[63] = longest[127] = longest[191] = '.';
    std::set<std::string> names{longest};
    while (names.size() < 3000) {
        std::string name = label() + ".example";
        while (random() % 2)
            name.insert(0, label() + '.');
        names.insert(name);
    }
    const std::vector<std::string> listed(names.begin(), names.end());
    std::string input;
    for (const std::string &name : listed)
        input += name + '\n';
    const std::string lines = written(Input(input).black);
    harness::write_file(directory / "black.lst", lines);
    init_black_list();
    EXPECT_EQ(read("select count(*) from black"),
              std::to_string(std::ranges::count(lines, '\n')) + '\n');
    const auto is_listed = [&names](std::string name) {
        for (size_t dot = 0; dot != name.npos; dot = name.find('.'), name.erase(0, dot + 1))
            if (names.contains(name))
                return true;
        return false;
    };
    const auto is_blocked = [](const std::string &name) {
        return is_blacklisted({name.c_str(), "10.0.0.1"}) == 1;
    };
    for (int count = 0; count < 10000; count++) {
        const std::string &name = listed[random() % listed.size()];
        const std::string inner = label() + '.' + name, parent = name.substr(name.find('.') + 1);
        ASSERT_TRUE(is_blocked(name) && is_blocked(inner)) << inner;
        for (const std::string &other :
             {label() + name, name + label(), label() + '.' + parent, parent, name + ".test"})
            ASSERT_TRUE(is_listed(other) || !is_blocked(other)) << other;
    }
}

} // namespace
