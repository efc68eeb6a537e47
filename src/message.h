// DNS messages (RFC 1035) as bytes that anyone may have sent: what they ask, whether one answers
// another, and how one is refused. Nothing here reads behind a message, or anything else.
#pragma once

#include <cstddef>
#include <cstdint>

// Longest datagram taken, without EDNS (RFC 1035, 4.2.1); longer ones are cut.
inline constexpr int MAX_MESSAGE = 512;

// Offset of the question section: the header has 12 bytes (RFC 1035, 4.1.1).
inline constexpr uint8_t QUESTION_OFFSET = 12;

// A byte of a name with the letters A to Z in lower case (RFC 1035, 2.3.3). Pure.
inline uint8_t lower(uint8_t byte) {
    return byte >= 'A' && byte <= 'Z' ? static_cast<uint8_t>(byte + 'a' - 'A') : byte;
}

// Whether a message says that it is a response. It has a whole header. Pure.
bool is_response(const uint8_t *message);

// Where the question of a query ends that has exactly one, with a plain name, and all of it within
// its `length` bytes; else 0. Pure.
size_t find_question_end(const uint8_t *query, size_t length);

// Whether `length` bytes are an answer to the query whose question ends there. If so, the id in
// them becomes the query's. Does not compare ids. Pure.
bool make_reply(uint8_t *answer, size_t length, const uint8_t *query, size_t question_end);

// Makes a query with a whole header the reply that calls it malformed (format error). Pure.
void mark_malformed(uint8_t *query);
