// Text, time and file helpers, and the query-name decoder.
#include "config.h"
#include "ioutils.h"
#include "netutils.h"
#include "strutils.h"
#include "svrutils.h"
#include "utils.h"

#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <string>

TEST(StripExt, CutsTheLastExtensionOnly) {
    const struct {
        const char *path, *stripped;
    } cases[] = {
        {"/etc/x/local_black.lst", "/etc/x/local_black"},
        {"a.tar.gz", "a.tar"},
        {".hidden", ".hidden"},
        {"dir/.hidden", "dir/.hidden"},
        {"dir\\.hidden", "dir\\.hidden"},
        {"dir.d/file", "dir.d/file"},
        {"black", "black"},
        {"a.", "a"},
        {"", ""},
    };
    for (const auto &c : cases) {
        char text[64];
        std::strcpy(text, c.path);
        char *ref = text;
        strip_ext(&ref);
        EXPECT_STREQ(text, c.stripped) << c.path;
    }
}

TEST(TextTests, AnswerAtTheEdges) {
    const struct {
        int result, expected;
        const char *what;
    } cases[] = {
        {isOnlyDigits(""), 1, "digits: empty"},
        {isOnlyDigits("0129"), 1, "digits"},
        {isOnlyDigits("12a"), 0, "digits: letter"},
        {isOnlyDigits("-1"), 0, "digits: sign"},
        {isNumeric(nullptr), 0, "numeric: null"},
        {isNumeric(""), 0, "numeric: empty"},
        {isNumeric("  "), 0, "numeric: blanks"},
        {isNumeric(" 7"), 1, "numeric: blank first"},
        {isNumeric("1 2"), 1, "numeric: blank between"},
        {isNumeric("7x"), 0, "numeric: letter"},
        {isNumeric("-1"), 0, "numeric: sign"},
        {isNumeric("7\t"), 0, "numeric: tab"},
        {startsWith("example", "ex"), 1, "starts"},
        {startsWith("example", ""), 1, "starts: empty"},
        {startsWith("ex", "example"), 0, "starts: longer"},
        {startsWith("xex", "ex"), 0, "starts: later"},
        {endsWith("example.com", "ample.com"), 1, "ends: no label boundary"},
        {endsWith("a", "ab"), 0, "ends: longer"},
        {endsWith("a", ""), 1, "ends: empty"},
        {decimal(" 12x"), 12, "decimal"},
        {decimal("-5"), -5, "decimal: sign"},
        {decimal("x"), 0, "decimal: none"},
        {decimal("4294967297"), 1, "decimal: low bits"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(c.result, c.expected) << c.what;
}

TEST(Numbers, AreWrittenForTheLog) {
    char text[TIME_TEXT_SIZE];
    EXPECT_EQ(time2String(text, 90061), 37);
    EXPECT_STREQ(text, "     1 days,  1 hrs,  1 mins,  1 secs");
    time2String(text, 59);
    EXPECT_STREQ(text, "     0 days,  0 hrs,  0 mins, 59 secs");
    time2String(text, 86400);
    EXPECT_STREQ(text, "     1 days,  0 hrs,  0 mins,  0 secs");
    EXPECT_STREQ(commaprint(0), "0");
    EXPECT_STREQ(commaprint(999), "999");
    EXPECT_STREQ(commaprint(1234567), "1,234,567");
    EXPECT_STREQ(commaprint(UINT64_MAX), "18,446,744,073,709,551,615");
}

TEST(Files, EmptyOrMissing) {
    char path[] = "/tmp/empty_file_test_XXXXXX";
    const UniqueFd fd(mkstemp(path));
    EXPECT_EQ(is_empty_file(path), 1);
    ASSERT_EQ(write(fd.get(), "x", 1), 1);
    EXPECT_EQ(is_empty_file(path), 0);
    unlink(path);
    EXPECT_EQ(is_empty_file(path), 1);
}

// The decoder's message area: the given bytes from offset 12 on, zero behind them.
static std::string decode(const std::string &question, size_t area = 516) {
    std::string message(12, '\0');
    message += question;
    message.resize(area);
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
    // Lengths of 255 lead the 8-bit position round the message for ever; so do 516 ones.
    EXPECT_LT(decode(std::string(504, '\377')).size(), QUERY_NAME_SIZE);
    EXPECT_LT(decode(std::string(504, '\1')).size(), QUERY_NAME_SIZE);
    // 254 bytes of labels reach the last position of the name.
    std::string labels;
    for (int i = 0; i < 4; i++)
        labels += "\73" + std::string(59, 'x');
    EXPECT_EQ(decode(labels).size(), 4 * 59 + 3u);
    unsigned seed = 1;
    for (int round = 0; round < 2000; round++) {
        std::string question(504, '\0');
        for (char &c : question)
            c = static_cast<char>(rand_r(&seed) & (round % 2 ? 0xff : 0x0f));
        EXPECT_LT(decode(question).size(), QUERY_NAME_SIZE);
    }
}

TEST(NetworkTexts, OfAddresses) {
    sockaddr_in client = {};
    client.sin_addr.s_addr = htonl(0xC0A80814);
    EXPECT_STREQ(socket2ip(client), "192.168.8.20");
    testing::internal::CaptureStdout();
    const unsigned char bytes[] = {0x01, 0x7f, 0x80, 0xff};
    print_buffer(bytes, sizeof bytes);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), " 01 7f ff80 ffff\n");
    const OwnedText none(getMacAddress("no-such-if"));
    EXPECT_STREQ(none.get(), "");
}

TEST(UpstreamTexts, AreReplacedAndConverted) {
    replace_upstreams({"10.0.0.1", "10.0.0.2", "junk", ""});
    EXPECT_EQ(upstream_address(1), htonl(0x0A000002));
    EXPECT_EQ(upstream_address(2), INADDR_NONE);
    EXPECT_EQ(upstream_address(4), INADDR_ANY);
    EXPECT_EQ(upstream_address(-1), INADDR_ANY);
    EXPECT_STREQ(copy_upstream(0).get(), "10.0.0.1");
}
