// The local answer, byte for byte. The cases are in tests/data/localanswer.json.
#include "harness.h"
#include "hex.h"
#include "localanswer.h"

#include <nlohmann/json.hpp>

using namespace harness;
using nlohmann::json;

namespace {

struct LocalAnswer : testing::Test {
    const json data = json::parse(std::ifstream(TEST_DATA "/localanswer.json"));

    static Bytes answer_to(const Bytes &query, const std::string &mode, size_t room) {
        BlockAnswer value{};
        EXPECT_TRUE(find_block_answer(mode.c_str(), value));
        Bytes answer(room, '\x55');
        answer.resize(make_local_answer(
            {reinterpret_cast<const uint8_t *>(query.data()), query.size()}, value, 0x01020304,
            {reinterpret_cast<uint8_t *>(answer.data()), room}));
        return answer;
    }
    static void expect_answer(const Bytes &query, const std::string &mode, const Bytes &answer) {
        EXPECT_EQ(answer_to(query, mode, 512 + LOCAL_ANSWER_GROWTH), answer) << mode;
    }
};

TEST_F(LocalAnswer, IsBuiltFromTheQuestion) {
    for (const json &answer : data["what is answered, by type"])
        for (const uint8_t type : answer["types"])
            for (const json &rest : data["what stands behind the question"]) {
                SCOPED_TRACE(std::to_string(type) + " with " + rest["what"].get<std::string>());
                const Bytes question = "\3aDs\7example\0\0"s + static_cast<char>(type) + "\0\1"s;
                const Bytes edns = from_hex(rest.value("edns", ""));
                const Bytes edns_records{'\0', edns.empty() ? '\0' : '\1'};
                expect_answer("\x12\x34\x7F\xFF\0\1"s + from_hex(rest["counts"]) + question +
                                  from_hex(rest["bytes"]),
                              answer["mode"],
                              "\x12\x34\xF9"s + from_hex(answer["code"]) + "\0\1"s +
                                  from_hex(answer["counts"]) + edns_records + question +
                                  from_hex(answer["records"]) + edns);
            }
}

TEST_F(LocalAnswer, IsTheQueryWithARecordBehindItOrHasNoAddress) {
    for (const json &c : data["whole"])
        for (const std::string mode : c["modes"]) {
            SCOPED_TRACE(c["what"]);
            expect_answer(from_hex(c["query"]), mode, from_hex(c["answer"]));
        }
}

TEST_F(LocalAnswer, FitsOrIsNone) {
    for (const size_t most : {512U, 65535U}) { // what a datagram holds, and a stream
        Bytes query = from_hex("1234 0100 0001 0000 0000 0000");
        while (query.size() + 64 + 5 <= most)
            query += '\x3f' + Bytes(63, 'a');
        query += from_hex("00 001C 0001");
        const size_t room = query.size() + LOCAL_ANSWER_GROWTH;
        EXPECT_EQ(answer_to(query, "none", room).size(), query.size() + 16);
        EXPECT_EQ(answer_to(query, "nodata", room).size(), query.size() + 34);
        for (const char *mode : {"none", "nodata"})
            EXPECT_EQ(answer_to(query, mode, query.size() + 15), "");
    }
}

} // namespace
