#include "localanswer.h"

#include "message.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <strings.h>

static constexpr const char *NAMES[] = {"none", "nxdomain", "nodata", "null", "refused"};

const char *block_answer_name(BlockAnswer value) {
    return NAMES[static_cast<size_t>(value)];
}

bool find_block_answer(const char *name, BlockAnswer &value) {
    for (size_t i = 0; i < std::size(NAMES); i++)
        if (strcasecmp(name, NAMES[i]) == 0) {
            value = static_cast<BlockAnswer>(i);
            return true;
        }
    return false;
}

// --- the query with a record behind it -----------------------------------------------------------

static size_t append_to_query(std::span<const uint8_t> query, std::span<uint8_t> answer) {
    // A pointer to the question's name (RFC 1035, 4.1.4), type A, class IN, 1345 seconds to live,
    // 4 bytes of data: 255.255.255.255.
    static constexpr uint8_t RECORD[] = {0xC0, 0x0C, 0x00, 0x01, 0x00, 0x01, 0x00, 0x00,
                                         0x05, 0x41, 0x00, 0x04, 0xFF, 0xFF, 0xFF, 0xFF};
    const size_t length = query.size() + sizeof RECORD;
    if (length > answer.size())
        return 0;
    uint8_t *reply = answer.data();
    memset(reply, 0, QUESTION_OFFSET); // the query may be shorter than the header
    std::copy(query.begin(), query.end(), reply);
    reply[2] = 0x80;  // a response; opcode, authority, truncation and recursion desired are cleared
    reply[3] |= 0x83; // recursion available, name error
    reply[6] = 0;     // one answer
    reply[7] = 1;
    reply[10] = reply[11] = 0; // no additional records, though the query's own may still follow
    memcpy(reply + query.size(), RECORD, sizeof RECORD);
    return length;
}

// --- reading the query ---------------------------------------------------------------------------

static constexpr unsigned TYPE_A = 1, TYPE_SOA = 6, TYPE_AAAA = 28, TYPE_OPT = 41;
static constexpr unsigned CLASS_IN = 1;

static unsigned get16(const uint8_t *at) {
    return static_cast<unsigned>(at[0] << 8 | at[1]);
}

// Where the name of a record ends that begins at `at`; 0 when it does not end within the message.
static size_t find_name_end(std::span<const uint8_t> message, size_t at) {
    constexpr uint8_t MAX_LABEL = 63, POINTER = 0xC0;
    while (at < message.size() && message[at] != 0) {
        if (message[at] >= POINTER)
            return at + 2 <= message.size() ? at + 2 : 0;
        if (message[at] > MAX_LABEL)
            return 0;
        at += 1U + message[at];
    }
    return at < message.size() ? at + 1 : 0;
}

// Whether the data of an EDNS record is a sequence of whole options.
static bool are_options(std::span<const uint8_t> data) {
    constexpr size_t CODE_AND_LENGTH = 4;
    while (data.size() >= CODE_AND_LENGTH) {
        const size_t option = CODE_AND_LENGTH + get16(&data[2]);
        if (option > data.size())
            return false;
        data = data.subspan(option);
    }
    return data.empty();
}

// The query's EDNS record (RFC 6891), from its type on. Null unless the query has exactly one that
// is well-formed and stands among the additional records, and is whole itself.
static const uint8_t *find_edns(std::span<const uint8_t> query, size_t question_end) {
    constexpr size_t FIXED = 10; // type, class, time to live, length of the data
    const unsigned others = get16(&query[6]) + get16(&query[8]);
    const unsigned records = others + get16(&query[10]);
    const uint8_t *found = nullptr;
    size_t at = question_end;
    for (unsigned i = 0; i < records; i++) {
        const size_t fixed = find_name_end(query, at);
        if (fixed == 0 || query.size() - fixed < FIXED)
            return nullptr;
        const size_t data = fixed + FIXED, length = get16(&query[fixed + 8]);
        if (query.size() - data < length)
            return nullptr;
        if (get16(&query[fixed]) == TYPE_OPT) {
            const bool is_well_formed =
                i >= others && query[at] == 0 && are_options(query.subspan(data, length));
            if (found || !is_well_formed)
                return nullptr;
            found = &query[fixed];
        }
        at = data + length;
    }
    return found;
}

// --- building the answer -------------------------------------------------------------------------

static uint8_t *put16(uint8_t *at, unsigned number) {
    *at++ = static_cast<uint8_t>(number >> 8);
    *at++ = static_cast<uint8_t>(number);
    return at;
}

static uint8_t *put32(uint8_t *at, uint32_t number) {
    return put16(put16(at, number >> 16), number & 0xFFFF);
}

// The beginning of a record with the question's name.
static uint8_t *put_record(uint8_t *at, unsigned type, unsigned dns_class, uint32_t ttl,
                           unsigned data_length) {
    at = put16(at, 0xC000 | QUESTION_OFFSET);
    at = put16(at, type);
    at = put16(at, dns_class);
    at = put32(at, ttl);
    return put16(at, data_length);
}

static uint8_t *put_null_address(uint8_t *at, unsigned type, uint32_t ttl) {
    const unsigned size = type == TYPE_A ? 4 : 16;
    at = put_record(at, type, CLASS_IN, ttl, size);
    return std::fill_n(at, size, static_cast<uint8_t>(0));
}

// With it a client may cache that there is nothing (RFC 2308).
static uint8_t *put_authority(uint8_t *at, unsigned dns_class, uint32_t ttl) {
    constexpr uint32_t SERIAL = 1, REFRESH = 3600, RETRY = 600, EXPIRE = 86400;
    at = put_record(at, TYPE_SOA, dns_class, ttl, 22);
    *at++ = 0; // the server's name and the mailbox: the root
    *at++ = 0;
    for (const uint32_t number : {SERIAL, REFRESH, RETRY, EXPIRE, ttl})
        at = put32(at, number);
    return at;
}

// An EDNS record of version 0 with the bit "DNSSEC OK" of the query's and the extended error
// "Blocked" (RFC 8914).
static uint8_t *put_edns(uint8_t *at, const uint8_t *edns_of_query) {
    constexpr unsigned MAX_DATAGRAM = 1232, EXTENDED_ERROR = 15, BLOCKED = 15;
    constexpr size_t FLAGS = 6;
    *at++ = 0;
    at = put16(at, TYPE_OPT);
    at = put16(at, MAX_DATAGRAM);
    at = put16(at, 0); // no more bits of the response code, version 0
    at = put16(at, (edns_of_query[FLAGS] & 0x80U) << 8);
    at = put16(at, 6);
    at = put16(at, EXTENDED_ERROR);
    at = put16(at, 2);
    return put16(at, BLOCKED);
}

static void change_header(uint8_t *header, uint8_t code, const uint8_t (&counts)[3]) {
    constexpr uint8_t RESPONSE = 0x80, OPCODE_AND_DESIRED = 0x79, AVAILABLE = 0x80;
    header[2] = static_cast<uint8_t>(RESPONSE | (header[2] & OPCODE_AND_DESIRED));
    header[3] = AVAILABLE | code;
    uint8_t *at = header + 6;
    for (const uint8_t count : counts) // answers, authority, additional records
        at = put16(at, count);
}

static size_t build_from_question(std::span<const uint8_t> query, size_t question_end,
                                  BlockAnswer mode, uint32_t ttl, uint8_t *answer) {
    constexpr uint8_t NO_ERROR = 0, NAME_ERROR = 3, REFUSED = 5;
    const unsigned type = get16(&query[question_end - 4]);
    const unsigned dns_class = get16(&query[question_end - 2]);
    const bool has_address = mode == BlockAnswer::NULL_ADDRESS && dns_class == CLASS_IN &&
                             (type == TYPE_A || type == TYPE_AAAA);
    const bool has_authority = !has_address && mode != BlockAnswer::REFUSED;
    const uint8_t *edns = find_edns(query, question_end);

    uint8_t *end = std::copy_n(query.begin(), question_end, answer);
    if (has_address)
        end = put_null_address(end, type, ttl);
    if (has_authority)
        end = put_authority(end, dns_class, ttl);
    if (edns)
        end = put_edns(end, edns);
    const uint8_t code = mode == BlockAnswer::NXDOMAIN  ? NAME_ERROR
                         : mode == BlockAnswer::REFUSED ? REFUSED
                                                        : NO_ERROR;
    change_header(answer, code, {has_address, has_authority, edns != nullptr});
    return static_cast<size_t>(end - answer);
}

size_t make_local_answer(std::span<const uint8_t> query, BlockAnswer mode, uint32_t ttl,
                         std::span<uint8_t> answer) {
    const size_t question_end =
        mode == BlockAnswer::NONE ? 0 : find_question_end(query.data(), query.size());
    if (question_end == 0)
        return append_to_query(query, answer);
    if (question_end + LOCAL_ANSWER_GROWTH > answer.size())
        return 0;
    return build_from_question(query, question_end, mode, ttl, answer.data());
}
