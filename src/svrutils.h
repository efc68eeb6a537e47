// DNS messages as far as the daemon reads them: their size, and the name of the question.
#pragma once

#include <cstddef>
#include <cstdint>
#include <netinet/in.h>

// Longest datagram taken, without EDNS (RFC 1035, 4.2.1); longer ones are cut.
inline constexpr int MAX_MESSAGE = 512;

// Both positions of the decoder are 8-bit counters, so 255 is the last one and the buffer has room
// for a terminator there.
inline constexpr size_t QUERY_NAME_SIZE = 256;

// Offset of the question section: the header has 12 bytes (RFC 1035, 4.1.1).
inline constexpr uint8_t QUESTION_OFFSET = 12;

// A byte of a name with the letters A to Z in lower case (RFC 1035, 2.3.3). Pure.
inline uint8_t lower(uint8_t byte) {
    return byte >= 'A' && byte <= 'Z' ? static_cast<uint8_t>(byte + 'a' - 'A') : byte;
}

// Copies the name at `start` of a message (RFC 1035, 3.1) into `name` with dots between the labels
// and none at the end, and traces it with the client's address. Bytes are copied as they are, but
// with `ignore_case` 1 in lower case: all that is decided or recorded sees that one name. The
// message area must have 256 readable bytes, zero-filled behind the datagram: its length is not
// consulted. Length bytes of 192 and above are plain lengths; there is no pointer handling. Any
// thread.
void extract_url(char (&name)[QUERY_NAME_SIZE], const uint8_t *message, uint8_t start,
                 sockaddr_in client);
