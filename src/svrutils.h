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

// Copies the name at `start` of a message (RFC 1035, 3.1) into `name` with dots between the labels
// and none at the end, bytes as they are, and traces it with the client's address. The message
// area must have 256 readable bytes, zero-filled behind the datagram: its length is not consulted.
// Length bytes of 192 and above are plain lengths; there is no pointer handling. Any thread.
void extract_url(char (&name)[QUERY_NAME_SIZE], const uint8_t *message, uint8_t start,
                 sockaddr_in client);
