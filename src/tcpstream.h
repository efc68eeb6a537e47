// DNS messages on a TCP connection (RFC 1035, 4.2.2): each follows two bytes that say its length.
//
// tcp.cpp has such a stream with each client, tcpforward.cpp with upstream servers; both read and
// write them on one thread, which never waits for one. A stream is read up to the end of a message
// and no further, so that whoever does not want the next one leaves it to the kernel.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

inline constexpr size_t LENGTH_BYTES = 2;
inline constexpr size_t MAX_TCP_MESSAGE = 65535;

// A message on the heap, for free(). Its bytes follow this head, those of its length first; there
// are 256 of the message itself at least, as extract_url() needs them, zero behind its end.
struct TcpMessage {
    TcpMessage *next; // of those to be sent
    uint32_t length;  // of the message, up to MAX_TCP_MESSAGE
    uint32_t sent;    // bytes, those of the length included
};

// A message of `length` bytes, all of them unset; null without memory.
TcpMessage *new_tcp_message(size_t length);

// Makes a message end earlier.
void shorten_message(TcpMessage *message, size_t length);

// The message itself.
inline uint8_t *content_of(TcpMessage *message) {
    return reinterpret_cast<uint8_t *>(message + 1) + LENGTH_BYTES;
}

// --- taking bytes apart --------------------------------------------------------------------------

// A message that is being received. All zero before its first byte.
struct TcpFrame {
    uint8_t prefix[LENGTH_BYTES];
    uint32_t received;   // bytes, those of the length included
    TcpMessage *message; // once its length is known
};

enum class Framing : uint8_t {
    PARTIAL,   // there are bytes to come
    WHOLE,     // the message is there
    NO_MEMORY, // for it
};

// Where the next bytes of a partial message go, and how many there are to be. Not empty. Pure.
std::span<uint8_t> room_in(TcpFrame &frame);

// Takes notice of `count` bytes that were put there.
Framing count_received(TcpFrame &frame, size_t count);

// Takes a whole message out, which is the caller's; the frame is then ready for the next.
TcpMessage *take_message(TcpFrame &frame);

// --- streams -------------------------------------------------------------------------------------

struct TcpStream {
    int fd;           // -1 when closed
    uint32_t watched; // what epoll is to tell of
    TcpFrame frame;
    TcpMessage *first, *last; // to be sent
    size_t unsent;            // bytes of them
};

enum class Transfer : uint8_t {
    MESSAGE, // one was read
    PARTIAL, // something was, but no whole message
    NOTHING, // could be read now
    ENDED,   // the other side sends no more
    FAILED,  // errno says why
};

// Reads up to the end of a message, which then is the caller's.
Transfer read_message(TcpStream &stream, TcpMessage *&message);

// Puts a message behind those that are to be sent. The stream owns it from then on.
void append_message(TcpStream &stream, TcpMessage *message);

// Sends what the kernel takes. False when the connection failed; errno says why.
bool send_messages(TcpStream &stream);

// Lets epoll tell of other events, if they are others. False when that failed.
bool watch_stream(TcpStream &stream, int epoll_fd, uint32_t events, uint64_t event);

// Closes it and frees what it has. With `at_once` the kernel keeps nothing of what was sent.
void close_stream(TcpStream &stream, bool at_once = false);
