// The local answer: what a blocked query gets instead of being forwarded. request.cpp sends it.
//
// Without the setting `block_answer` it is the query itself with response code 3 (name error) and
// one A record for 255.255.255.255 behind it. Clients that send EDNS find that malformed, since the
// query's EDNS record is still in between. With the setting the answer is built from the question.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

// How the answer is made; the values of the setting in their order.
enum class BlockAnswer : uint8_t {
    NONE,         // the query with a record behind it
    NXDOMAIN,     // there is no such name
    NODATA,       // the name has nothing of the type
    NULL_ADDRESS, // "null": 0.0.0.0 or ::, nothing for other types than A and AAAA
    REFUSED,
};

// Most bytes that an answer is longer than its query: an SOA record of 34 and an EDNS record of 17.
inline constexpr size_t LOCAL_ANSWER_GROWTH = 51;

// The setting's text for a value, in the program's own memory. Pure.
const char *block_answer_name(BlockAnswer value);

// Sets the value that a text of any letter case names; false, and nothing set, when it names none.
// Pure.
bool find_block_answer(const char *name, BlockAnswer &value);

// Writes the local answer to a query of any bytes into `answer`, with `ttl` seconds to live for
// what is built. A query without exactly one plain question (see find_question_end()) is answered
// as by NONE. Returns the answer's length, or 0 when it may not fit: it always fits into
// LOCAL_ANSWER_GROWTH bytes more than the query has. Pure.
size_t make_local_answer(std::span<const uint8_t> query, BlockAnswer mode, uint32_t ttl,
                         std::span<uint8_t> answer);
