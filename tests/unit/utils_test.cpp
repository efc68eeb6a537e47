// Text and time helpers, and the query-name decoder.
#include "config.h"
#include "netutils.h"
#include "strutils.h"
#include "svrutils.h"
#include "utils.h"

#include <gtest/gtest.h>
#include <string>

TEST(StripExt, CutsTheLastExtensionOnly) {
    const char *const cases[][2] = {{"/etc/x/local_black.lst", "/etc/x/local_black"},
                                    {"a.tar.gz", "a.tar"},
                                    {"dir/.hidden", "dir/.hidden"},
                                    {"dir.d/file", "dir.d/file"},
                                    {"", ""}};
    for (const auto &[path, stripped] : cases) {
        std::string text = path;
        char *ref = text.data();
        strip_ext(&ref);
        EXPECT_STREQ(ref, stripped) << path;
    }
}

TEST(TextTests, AnswerAtTheEdges) {
    const struct {
        int result, expected;
        const char *what;
    } cases[] = {
        {isOnlyDigits(""), 1, "digits: empty"},
        {isOnlyDigits("12a"), 0, "digits: letter"},
        {isNumeric(nullptr), 0, "numeric: null"},
        {isNumeric("  "), 0, "numeric: blanks"},
        {isNumeric(" 7"), 1, "numeric: blank first"},
        {isNumeric("1 2"), 1, "numeric: blank between"},
        {isNumeric("7\t"), 0, "numeric: tab"},
        {startsWith("example", ""), 1, "starts: empty"},
        {startsWith("ex", "example"), 0, "starts: longer"},
        {endsWith("example.com", "ample.com"), 1, "ends: no label boundary"},
        {endsWith("a", "ab"), 0, "ends: longer"},
        {decimal(" 12x"), 12, "decimal"},
        {decimal("4294967297"), 1, "decimal: low bits"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(c.result, c.expected) << c.what;
}

TEST(Numbers, AreWrittenForTheLog) {
    char text[TIME_TEXT_SIZE];
    EXPECT_EQ(time2String(text, 90061), 37);
    EXPECT_STREQ(text, "     1 days,  1 hrs,  1 mins,  1 secs");
    EXPECT_STREQ(commaprint(999), "999");
    EXPECT_STREQ(commaprint(UINT64_MAX), "18,446,744,073,709,551,615");
}

// The decoder's message area: the given bytes from offset 12 on, zero behind them.
static std::string decode(const std::string &question) {
    std::string message(12, '\0');
    message += question;
    message.resize(516);
    char name[QUERY_NAME_SIZE] = "";
    extract_url(name, reinterpret_cast<const uint8_t *>(message.data()), QUESTION_OFFSET, {});
    return name;
}

TEST(QueryName, IsDecodedAsItStands) {
    using namespace std::string_literals;
    EXPECT_EQ(decode("\3WwW\7example\3com\0"s), "WwW.example.com");
    EXPECT_EQ(decode("\0"s), "");
    EXPECT_EQ(decode("\1a"s), "a") << "the zero fill ends the name";
    EXPECT_EQ(decode("\300\14"s).substr(0, 1), "\14") << "a pointer is a plain length of 192";
}

TEST(QueryName, EndsForEveryPacket) {
    // Lengths of 255 lead the 8-bit position round the message for ever.
    EXPECT_LT(decode(std::string(504, '\377')).size(), QUERY_NAME_SIZE);
    // 254 bytes of labels reach the last position of the name.
    std::string labels;
    for (int i = 0; i < 4; i++)
        labels += "\73" + std::string(59, 'x');
    EXPECT_EQ(decode(labels).size(), 4 * 59 + 3u);
}

TEST(UpstreamTexts, AreReplacedAndConverted) {
    replace_upstreams({"10.0.0.1", "10.0.0.2", "junk", ""});
    EXPECT_EQ(upstream_address(1), htonl(0x0A000002));
    EXPECT_EQ(upstream_address(2), INADDR_NONE);
    EXPECT_EQ(upstream_address(4), INADDR_ANY);
    EXPECT_EQ(upstream_address(-1), INADDR_ANY);
    EXPECT_STREQ(copy_upstream(0).get(), "10.0.0.1");
}
