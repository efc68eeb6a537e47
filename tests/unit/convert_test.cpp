// The converter of published lists: which names each kind of line has, what their patterns match in
// the daemon, and what two runs differ by.
#include "blacklist.h"
#include "database_fixture.h"
#include "filterlist.h"
#include "lines.h"
#include "listlines.h"
#include "log.h"
#include "patterns.h"

#include <random>
#include <set>

namespace {

struct Input : Lists {
    explicit Input(const std::string &text) {
        wants_white = true;
        const OwnedFile file(fmemopen(const_cast<char *>(text.data()), text.size(), "r"));
        EXPECT_TRUE(text.empty() || read_list(file.get(), *this));
        EXPECT_TRUE(arrange(black) && arrange(white));
        drop_covered(black);
        drop_covered(white);
    }
};

std::string written(const Names &names, const Names &others = {}, LineKind kind = LineKind::ADDED) {
    char *text = nullptr;
    size_t size = 0;
    FILE *out = open_memstream(&text, &size);
    write_patterns(out, names, others, kind);
    fclose(out);
    const OwnedText owner(text);
    return {text, size};
}

// "name" for its two patterns, ".name" for what is below it alone.
std::string brief(const Names &names, const char *mark = "") {
    std::string text;
    for (uint32_t i = 0; i < names.count; i++) {
        const std::string key = name_key(names, i);
        text += std::string(text.empty() ? "" : " ") + mark +
                (name_cover(names, i) == BELOW ? "." : "") + std::string(key.rbegin(), key.rend());
    }
    std::replace(text.begin(), text.end(), LABEL_END, '.');
    return text;
}

constexpr int NOTHING = LEFT_OUT_REASONS; // is left out
enum Form { KNOWN, UNKNOWN, NO_LINE };

TEST(Converter, EveryKindOfLine) {
    const std::string l63(63, 'l'), n229 = l63 + '.' + l63 + '.' + l63 + '.' + std::string(37, 'n');
    struct Outcome {
        std::string names;
        int left_out;
        Form form;
    };
    const std::pair<Outcome, std::vector<std::string>> rows[] = {
        {{"a.example", NOTHING, KNOWN},
         {// hosts files and plain names
          "0.0.0.0 A.Example", "192.0.2.1 a.example ; c.example", "::1\ta.example",
          "fe80::1%lo0 a.example", "2001:db8::192.0.2.1 a.example", "a.example", "*.a.example",
          " \ta.example.. \r\r", "a.example # c.example##.banner",
          "\xef\xbb\xbf"
          "a.example",
          // rules of ad blockers
          "||a.example^", "||a.example^$important", "||a.example^$all,document",
          // dnsmasq
          "address=/a.example/", "address=/a.example/#", "address=/a.example/0.0.0.0 # c",
          "address=/a.example/127.0.0.1", "address=/a.example/::", "address=/a.example/::1",
          "server=/a.example/", "local=/a.example/",
          // response policy zones
          "a.example CNAME .", "a.example. cname . ; c.example"}},
        {{"a.example b.example", NOTHING, KNOWN},
         {"127.0.0.1\tA.Example\t b.example. # c.example\r", "address=/b.example/a.example/"}},
        {{".a.example", NOTHING, KNOWN},
         {"*.a.example CNAME .", "x.a.example\n*.a.example CNAME ."}},
        {{"@a.example", NOTHING, KNOWN}, {"@@||a.example^", "@@||a.example^$important"}},
        {{"", NOTHING, KNOWN},
         {"127.0.0.1 localhost LOCAL localhost.localdomain broadcasthost 0.0.0.0", "localhost",
          "ff02::1 ip6-allnodes ip6-mcastprefix"}},
        {{"", NOTHING, NO_LINE},
         {"", " \t\r", "# a.example", " #a.example", "! a.example", ";a.example", "[Adblock Plus]",
          "## a heading", "########", "#" + std::string(LONGEST_LINE, 'x')}},
        {{"", RULE_OPTION, KNOWN},
         {"||a.example^$all ! c.example", "||a.example^$third-party", "||a.example^$",
          "||a.example^$important,popup", "@@||a.example^$elemhide"}},
        {{"", PAGE_RULE, KNOWN},
         {"a.example##.banner", "a.example,b.example#@#.banner #id", "a.example#?#div:has(> a)",
          "a.example#$#body { x: y ; }", "##.banner", "###banner", "#@#.banner"}},
        {{"", OTHER_ANSWER, KNOWN},
         {"address=/a.example/192.0.2.1", "server=/a.example/0.0.0.0", "server=/a.example/#",
          "a.example CNAME rpz-passthru."}},
        {{"a.example", SINGLE_LABEL, KNOWN},
         {"0.0.0.0 a.example router", "server=/a.example/com/"}},
        {{"", SINGLE_LABEL, KNOWN}, {"com", "*.com CNAME ."}},
        {{"", NO_HOST_NAME, KNOWN}, {"0.0.0.0 *.a.example", "||*a.example^", "address=/#/0.0.0.0"}},
        {{"", NO_HOST_NAME, UNKNOWN},
         {"192.0.2.1", "192.0.2.0/24",
          "b\xc3\xbc"
          "cher.example",
          "-a.example", "a-.example", "a..example", ".a.example", "a.*.example", "a.example/path",
          "it's.example", std::string("a.ex\0mple", 9), "<a.example>", "@@|a.example^",
          "a.example#banner", l63 + "l.example", n229 + std::string(25, 'n')}},
        {{"", UNKNOWN_FORM, UNKNOWN},
         {"1.2.3 a.example", "12345::1 a.example", "a.example b.example", "||a.example",
          "||a.example^path", "address=/a.example", "a.example A 0.0.0.0", "$TTL 300"}},
        {{"", NAME_TOO_LONG, KNOWN}, {n229 + 'n', n229 + std::string(24, 'n')}},
        {{"", LINE_TOO_LONG, UNKNOWN}, {"a.example " + std::string(LONGEST_LINE, 'x')}},
        {{"3.a-1.example xn--bcher-kva.example _dmarc.a_b.example", NOTHING, KNOWN},
         {"_dmarc.a_b.example\n3.a-1.example\nxn--bcher-kva.example"}},
        {{l63 + ".example", NOTHING, KNOWN}, {l63 + ".example"}},
        {{n229, NOTHING, KNOWN}, {n229}},
        {{"b.example x.a-b.example xb.example", NOTHING, KNOWN},
         {"xb.example\nx.a-b.example\nx.b.example\nb.example\na.b.example\nB.example\n"
          "*.b.example CNAME .\n0.0.0.0 a.x.b.example"}},
    };
    for (const auto &[row, inputs] : rows)
        for (const std::string &text : inputs) {
            SCOPED_TRACE(text);
            const Input input(text);
            const std::string white = brief(input.white, "@");
            EXPECT_EQ(brief(input.black) + white, row.names);
            for (int reason = 0; reason < LEFT_OUT_REASONS; reason++)
                EXPECT_EQ(input.left_out[reason] > 0, reason == row.left_out) << REASONS[reason];
            EXPECT_EQ(input.lines > 0, row.form != NO_LINE);
            EXPECT_EQ(input.known, row.form == KNOWN ? input.lines : 0);
        }
}

// The lines of a run in any order, and twice, are the same set.
TEST(Converter, ADifferenceLeadsFromOneOutputToTheNext) {
    const Input before("gone.example\nkept.example\nhalf.example\nx.parent.example");
    const Input after("new.example\nkept.example\n*.half.example CNAME .\nparent.example");
    std::string lines = ".kept.example,1\n" + written(before.black) + "gone.example,4\n";
    Names old;
    uint32_t bad_line = 0;
    const OwnedFile file(fmemopen(lines.data(), lines.size(), "r"));
    ASSERT_TRUE(read_patterns(file.get(), old, bad_line) && arrange(old));
    EXPECT_EQ(written(old), written(before.black));
    EXPECT_EQ(written(old, after.black, LineKind::REMOVED),
              "~gone.example\n~.gone.example\n~half.example\n~x.parent.example\n"
              "~.x.parent.example\n");
    EXPECT_EQ(written(after.black, old),
              "parent.example,4\n.parent.example,1\nnew.example,4\n.new.example,1\n");
}

TEST(Converter, WhatItNeverWroteIsNoEarlierOutput) {
    for (std::string line : {"a.example", "a.example,1", ".a.example,4", "~a.example", "", ",4",
                             "A example,4", "a.example,4\r"}) {
        line = "a.example,4\n" + line + "\n";
        Names old;
        uint32_t bad_line = 0;
        const OwnedFile file(fmemopen(line.data(), line.size(), "r"));
        EXPECT_FALSE(read_patterns(file.get(), old, bad_line)) << line;
        EXPECT_EQ(bad_line, 2);
    }
}

struct ConvertedListTest : DatabaseTest {
    void SetUp() override {
        DatabaseTest::SetUp();
        open_with_tables();
        oDNS.path = strdup(directory.c_str());
        oDNS.record_traffic = 0;
    }
    void TearDown() override {
        black_list_cleanup();
        free(std::exchange(oDNS.path, nullptr));
        DatabaseTest::TearDown();
    }
};

// In the daemon the patterns block the names and what is below them, and nothing beside or above.
TEST_F(ConvertedListTest, BlocksTheNamesAndWhatIsBelowThem) {
    constexpr size_t QUERIES = 10000;
    std::mt19937 random(1);
    const auto label = [&random](const char *letters = "abcde-") {
        std::string text(1, "abcde"[random() % 5]);
        while (random() % 3)
            text += letters[random() % strlen(letters)];
        return text + "abcde"[random() % 5];
    };
    std::set<std::string> names;
    while (names.size() < 3000) {
        std::string name = label() + ".example";
        while (random() % 2)
            name.insert(0, label() + '.');
        names.insert(name);
    }
    const std::string longest = std::string(63, 'l') + '.' + std::string(63, 'l') + '.' +
                                std::string(63, 'l') + '.' + std::string(29, 'l') + ".example";
    ASSERT_EQ(longest.size(), LONGEST_STORED_NAME);
    names.insert(longest);
    std::string input;
    for (const std::string &name : names)
        input += name + '\n';
    const std::string lines = written(Input(input).black);
    for (const char *list : {"black.lst", "local_black.lst"})
        harness::write_file(directory / list, lines);
    init_black_list();
    const auto patterns = std::to_string(std::count(lines.begin(), lines.end(), '\n')) + '\n';
    EXPECT_EQ(read("select count(*) from black"), patterns);
    EXPECT_EQ(read("select count(*) from local_black"), patterns);
    const auto is_listed = [&names](std::string name) {
        for (size_t dot = 0; dot != name.npos; dot = name.find('.'), name.erase(0, dot + 1))
            if (names.contains(name))
                return true;
        return false;
    };
    const auto is_blocked = [](const std::string &name) {
        return is_blacklisted({name.c_str(), "10.0.0.1"}) == 1;
    };
    const std::vector<std::string> listed(names.begin(), names.end());
    std::set<std::string> below, near;
    while (below.size() < QUERIES || near.size() < QUERIES) {
        const std::string &name = listed[random() % listed.size()];
        const std::string inner = label() + '.' + name;
        ASSERT_TRUE(is_blocked(name) && is_blocked(inner)) << inner;
        below.insert(inner);
        const std::string parent = name.substr(name.find('.') + 1);
        for (const std::string &other :
             {label() + name, name + label(), label() + '.' + parent, parent, name + ".test"}) {
            if (is_listed(other))
                continue;
            ASSERT_FALSE(is_blocked(other)) << other;
            near.insert(other);
        }
    }
}

} // namespace
