// Text and time helpers, and the query-name decoder.
#include "config.h"
#include "netutils.h"
#include "strutils.h"
#include "svrutils.h"
#include "utils.h"

#include <gtest/gtest.h>
#include <string>

namespace {

using namespace std::string_literals;

TEST(Numbers, AreFoundAndRead) {
    EXPECT_TRUE(isNumeric(" 7") && isNumeric("1 2"));
    EXPECT_FALSE(isNumeric(nullptr) || isNumeric("  ") || isNumeric("7\t"));
    EXPECT_EQ(decimal(" 12x"), 12);
    EXPECT_EQ(decimal("4294967297"), 1) << "the low bits";
}

TEST(Numbers, AreWrittenForTheLog) {
    char text[TIME_TEXT_SIZE];
    EXPECT_EQ(time2String(text, 90061), 37);
    EXPECT_STREQ(text, "     1 days,  1 hrs,  1 mins,  1 secs");
    EXPECT_STREQ(commaprint(999), "999");
    EXPECT_STREQ(commaprint(UINT64_MAX), "18,446,744,073,709,551,615");
}

// The decoder's message area: the given bytes from offset 12 on, zero behind them.
std::string decode(const std::string &question) {
    std::string message = std::string(12, '\0') + question;
    message.resize(516);
    char name[QUERY_NAME_SIZE] = "";
    extract_url(name, reinterpret_cast<const uint8_t *>(message.data()), QUESTION_OFFSET, {});
    return name;
}

TEST(QueryName, IsDecodedAsItStandsAndEndsForEveryPacket) {
    EXPECT_EQ(decode("\3WwW\7example\3com\0"s), "WwW.example.com");
    EXPECT_EQ(decode("\0"s), "");
    EXPECT_EQ(decode("\1a"s), "a") << "the zero fill ends the name";
    EXPECT_EQ(decode("\300\14"s).substr(0, 1), "\14") << "a pointer is a plain length of 192";
    // Lengths of 255 lead the 8-bit position round the message for ever.
    EXPECT_LT(decode(std::string(504, '\377')).size(), QUERY_NAME_SIZE);
    // Labels that reach the last position of the name.
    const std::string label = "\73" + std::string(59, 'x');
    EXPECT_EQ(decode(label + label + label + label).size(), 4 * 59 + 3u);
}

TEST(UpstreamTexts, AreReplacedAndConverted) {
    replace_upstreams({"10.0.0.1", "10.0.0.2", "junk", ""});
    EXPECT_EQ(upstream_address(1), htonl(0x0A000002));
    EXPECT_EQ(upstream_address(2), INADDR_NONE);
    EXPECT_EQ(upstream_address(4), INADDR_ANY);
    EXPECT_EQ(upstream_address(-1), INADDR_ANY);
    EXPECT_STREQ(copy_upstream(0).get(), "10.0.0.1");
}

} // namespace
