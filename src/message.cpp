#include "message.h"

#include <algorithm>
#include <cstring>

static constexpr size_t TYPE_AND_CLASS = 4;

bool is_response(const uint8_t *message) {
    return message[2] & 0x80;
}

static int question_count(const uint8_t *message) {
    return message[4] << 8 | message[5];
}

size_t find_question_end(const uint8_t *query, size_t length) {
    constexpr uint8_t MAX_LABEL = 63;
    if (length < QUESTION_OFFSET || question_count(query) != 1)
        return 0;
    size_t at = QUESTION_OFFSET;
    while (at < length && query[at] != 0) {
        if (query[at] > MAX_LABEL)
            return 0;
        at += 1U + query[at];
    }
    const size_t end = at + 1 + TYPE_AND_CLASS;
    return end <= length ? end : 0;
}

// Bytes that tell the length of a label are no letters: they are below 64.
static bool is_same_question(const uint8_t *one, const uint8_t *other, size_t end) {
    const size_t name_end = end - TYPE_AND_CLASS;
    return memcmp(one + name_end, other + name_end, TYPE_AND_CLASS) == 0 &&
           std::equal(one + QUESTION_OFFSET, one + name_end, other + QUESTION_OFFSET,
                      [](uint8_t a, uint8_t b) { return lower(a) == lower(b); });
}

bool make_reply(uint8_t *answer, size_t length, const uint8_t *query, size_t question_end) {
    constexpr int NO_ERROR = 0, NAME_ERROR = 3;
    if (length < QUESTION_OFFSET || !is_response(answer))
        return false;
    if (question_count(answer) == 0) { // as servers refuse what they do not read
        const int code = answer[3] & 0x0F;
        if (code == NO_ERROR || code == NAME_ERROR)
            return false;
    } else if (question_count(answer) != 1 || length < question_end ||
               !is_same_question(answer, query, question_end)) {
        return false;
    }
    memcpy(answer, query, sizeof(uint16_t));
    return true;
}

void mark_malformed(uint8_t *query) {
    constexpr uint8_t FORMAT_ERROR = 1;
    query[2] |= 0x80;
    query[3] = static_cast<uint8_t>((query[3] & 0xF0) | FORMAT_ERROR);
}
