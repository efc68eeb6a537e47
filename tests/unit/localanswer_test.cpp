// The local answer, byte for byte.
#include "harness.h"
#include "hex.h"
#include "localanswer.h"

#include <algorithm>

using namespace harness;

namespace {

constexpr uint32_t TTL = 0x01020304;
constexpr size_t UDP_ROOM = 512 + LOCAL_ANSWER_GROWTH;

Bytes answer_to(const Bytes &query, BlockAnswer mode, size_t room = UDP_ROOM) {
    Bytes answer(room, '\x55');
    answer.resize(make_local_answer({reinterpret_cast<const uint8_t *>(query.data()), query.size()},
                                    mode, TTL, {reinterpret_cast<uint8_t *>(answer.data()), room}));
    return answer;
}

const char *const AUTHORITY = "C00C 0006 0001 01020304 0016 00 00 00000001 00000E10 00000258 "
                              "00015180 01020304";

// By type of the question: the code, and the counts of answers and of authority records, in front
// of the records themselves.
const struct {
    BlockAnswer mode;
    std::vector<uint16_t> types;
    const char *code, *counts, *records;
} MODES[] = {
    {BlockAnswer::NXDOMAIN, {1, 28, 65, 16, 255}, "83", "0000 0001", AUTHORITY},
    {BlockAnswer::NODATA, {1, 28, 65, 16, 255}, "80", "0000 0001", AUTHORITY},
    {BlockAnswer::NULL_ADDRESS, {1}, "80", "0001 0000", "C00C 0001 0001 01020304 0004 00000000"},
    {BlockAnswer::NULL_ADDRESS,
     {28},
     "80",
     "0001 0000",
     "C00C 001C 0001 01020304 0010 0000000000000000 0000000000000000"},
    {BlockAnswer::NULL_ADDRESS, {65, 16, 255}, "80", "0000 0001", AUTHORITY},
    {BlockAnswer::REFUSED, {1, 28, 65, 16, 255}, "85", "0000 0000", ""},
};

// What stands behind the question with the counts of its sections, and what of it is answered.
const struct {
    const char *counts, *behind, *edns;
} BEHIND[] = {
    {"0000 0000 0000", "", ""},
    {"0000 0000 0001", "00 0029 04D0 00000000 0000", "0000"},
    {"0000 0000 0001", "00 0029 04D0 FF00FFFF 0000", "8000"}, // another version, all flags
    {"0000 0000 0001", "00 0029 0000 00007FFF 000C 000A 0008 0102030405060708", "0000"}, // a cookie
    {"0000 0000 0001", "00 0029 04D0 00008000 0000 55", "8000"}, // bytes that nothing counts
    {"0000 0000 0002", "016100 0001 0001 00000000 0001 00 00 0029 04D0 00008000 0000", "8000"},
    {"0000 0000 0002", "00 0029 04D0 00008000 0000 C00C 00FA 00FF 00000000 0000", "8000"},
    {"0001 0001 0001",
     "C00C 0001 0001 00000000 0000 0161C00C 0001 0001 00000000 0000 00 0029 04D0 00000000 0000",
     "0000"},
    {"0000 0000 0000", "00 0029 04D0 00000000 0000", ""},                            // not counted
    {"0000 0000 0002", "00 0029 04D0 00000000 0000 00 0029 04D0 00000000 0000", ""}, // two
    {"0001 0000 0000", "00 0029 04D0 00000000 0000", ""},                            // an answer
    {"0000 0001 0001", "00 0029 04D0 00000000 0000 00 0029 04D0 00000000 0000", ""},
    {"0000 0000 0002", "00 0029 04D0 00000000 0000 C00C 00FA 00FF 00000000 0001", ""}, // cut behind
    {"0000 0000 FFFF", "00 0029 04D0 00000000 0000", ""},
    {"0000 0000 0001", "00 0029 04D0 00000000 00", ""},
    {"0000 0000 0001", "00 0029 04D0 00000000 0001", ""},
    {"0000 0000 0001", "0161 00 0029 04D0 00000000 0000", ""},   // its name is not the root
    {"0000 0000 0001", "C018 0029 04D0 00000000 0000", ""},      // or not as itself
    {"0000 0000 0001", "00 0029 04D0 00000000 0003 000A00", ""}, // half an option
    {"0000 0000 0001", "00 0029 04D0 00000000 0005 000A 0002 01", ""},
    {"0000 0000 0002", "40 0001 0001 00000000 0000 00 0029 04D0 00000000 0000", ""},
    {"0000 0000 0001", "C0", ""},
};

Bytes bytes(std::string hex) {
    std::erase(hex, ' ');
    return from_hex(hex);
}

// Of class IN. With a header its name ends at 0x18.
Bytes question(uint16_t type) {
    return "\3aDs\7example\0"s + static_cast<char>(type >> 8) + static_cast<char>(type) + "\0\1"s;
}

} // namespace

TEST(LocalAnswer, IsBuiltFromTheQuestion) {
    for (const auto &[mode, types, code, counts, records] : MODES)
        for (const uint16_t type : types)
            for (const auto &[counts_of_query, behind, edns] : BEHIND) {
                SCOPED_TRACE(block_answer_name(mode) + " "s + std::to_string(type) + ' ' + behind);
                const Bytes asked = question(type);
                const bool has_edns = *edns;
                EXPECT_EQ(
                    answer_to(bytes("1234 7FFF 0001 "s + counts_of_query) + asked + bytes(behind),
                              mode),
                    bytes("1234 F9 "s + code + "0001" + counts + (has_edns ? "0001" : "0000")) +
                        asked + bytes(records) +
                        (has_edns ? bytes("00 0029 04D0 0000 "s + edns + "0006 000F 0002 000F")
                                  : ""));
            }
}

TEST(LocalAnswer, IsTheQueryWithARecordBehindIt) {
    const Bytes record = bytes("C00C 0001 0001 00000541 0004 FFFFFFFF");
    const Bytes header = bytes("1234 7F7C 0001 0002 0003 0004");
    const Bytes plain = header + question(1);
    const auto appended = [&](const Bytes &query) {
        return bytes("1234 80FF") + query.substr(4, 2) + bytes("0001 0003 0000") +
               query.substr(12) + record;
    };
    EXPECT_EQ(answer_to(plain, BlockAnswer::NONE), appended(plain));
    // Whatever has not one plain question gets it in every mode.
    Bytes two = plain, none = plain;
    two[5] = 2;
    none[5] = 0;
    for (const Bytes &query :
         {two, none, plain.substr(0, plain.size() - 1), header, header + bytes("C00C 0001 0001"),
          header + bytes("4061 00 0001 0001"), header + bytes("3F61")})
        for (const BlockAnswer mode : {BlockAnswer::NONE, BlockAnswer::NULL_ADDRESS})
            EXPECT_EQ(answer_to(query, mode), appended(query)) << query.size();
    // The changed header of a short query lies under the record.
    EXPECT_EQ(answer_to("", BlockAnswer::REFUSED), record);
    EXPECT_EQ(answer_to(bytes("1234 7F7C 00"), BlockAnswer::REFUSED),
              bytes("1234 80FF 00") + record);
}

TEST(LocalAnswer, FitsOrIsNone) {
    for (const size_t most : {512U, 65535U}) { // what a datagram holds, and a stream
        Bytes query = bytes("1234 0100 0001 0000 0000 0000");
        while (query.size() + 64 + 5 <= most)
            query += '\x3f' + Bytes(63, 'a');
        query += bytes("00 001C 0001");
        for (const auto &[mode, growth] :
             {std::pair(BlockAnswer::NONE, 16U), {BlockAnswer::NODATA, 34U}}) {
            const size_t room = query.size() + LOCAL_ANSWER_GROWTH;
            EXPECT_EQ(answer_to(query, mode, room).size(), query.size() + growth);
            EXPECT_EQ(answer_to(query, mode, query.size() + 15), "");
        }
    }
}

TEST(LocalAnswer, HasAnAddressForOneClassOnly) {
    Bytes query = bytes("1234 0000 0001 0000 0000 0000") + question(1);
    query[query.size() - 2] = '\x80';
    EXPECT_EQ(answer_to(query, BlockAnswer::NULL_ADDRESS),
              bytes("1234 8080 0001 0000 0001 0000") + query.substr(12) +
                  bytes("C00C 0006 8001"s + (AUTHORITY + strlen("C00C 0006 0001"))));
}
