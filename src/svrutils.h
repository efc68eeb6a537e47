// The name of a query's question.
#pragma once

#include <cstddef>
#include <cstdint>
#include <netinet/in.h>

// Both positions of the decoder are 8-bit counters, so 255 is the last one and the buffer has room
// for a terminator there.
inline constexpr size_t QUERY_NAME_SIZE = 256;

// Copies the name at `start` of a message (RFC 1035, 3.1) into `name` with dots between the labels
// and none at the end, and traces it with the client's address. Bytes are copied as they are, but
// with `ignore_case` 1 in lower case: all that is decided or recorded sees that one name. The
// message area must have 256 readable bytes, zero-filled behind the datagram: its length is not
// consulted. Length bytes of 192 and above are plain lengths; there is no pointer handling. Any
// thread.
void extract_url(char (&name)[QUERY_NAME_SIZE], const uint8_t *message, uint8_t start,
                 sockaddr_in client);
