#include "tcpstream.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

static constexpr size_t MIN_CONTENT = 256;

TcpMessage *new_tcp_message(size_t length) {
    const size_t room = std::max(length, MIN_CONTENT);
    auto *message = static_cast<TcpMessage *>(malloc(sizeof(TcpMessage) + LENGTH_BYTES + room));
    if (!message)
        return nullptr;
    message->next = nullptr;
    message->sent = 0;
    shorten_message(message, length);
    memset(content_of(message) + length, 0, room - length);
    return message;
}

void shorten_message(TcpMessage *message, size_t length) {
    message->length = static_cast<uint32_t>(length);
    uint8_t *prefix = content_of(message) - LENGTH_BYTES;
    prefix[0] = static_cast<uint8_t>(length >> 8);
    prefix[1] = static_cast<uint8_t>(length);
}

// --- taking bytes apart --------------------------------------------------------------------------

std::span<uint8_t> room_in(TcpFrame &frame) {
    if (frame.received < LENGTH_BYTES)
        return std::span(frame.prefix).subspan(frame.received);
    const size_t received = frame.received - LENGTH_BYTES;
    return {content_of(frame.message) + received, frame.message->length - received};
}

Framing count_received(TcpFrame &frame, size_t count) {
    frame.received += static_cast<uint32_t>(count);
    if (frame.received < LENGTH_BYTES)
        return Framing::PARTIAL;
    if (!frame.message) {
        frame.message =
            new_tcp_message(static_cast<size_t>(frame.prefix[0] << 8 | frame.prefix[1]));
        if (!frame.message)
            return Framing::NO_MEMORY;
    }
    const bool is_whole = frame.received == LENGTH_BYTES + frame.message->length;
    return is_whole ? Framing::WHOLE : Framing::PARTIAL;
}

TcpMessage *take_message(TcpFrame &frame) {
    frame.received = 0;
    return std::exchange(frame.message, nullptr);
}

// --- streams -------------------------------------------------------------------------------------

Transfer read_message(TcpStream &stream, TcpMessage *&message) {
    for (Transfer transfer = Transfer::NOTHING;; transfer = Transfer::PARTIAL) {
        const std::span<uint8_t> room = room_in(stream.frame);
        const ssize_t count = recv(stream.fd, room.data(), room.size(), 0);
        if (count == 0)
            return Transfer::ENDED;
        if (count < 0)
            return errno == EAGAIN || errno == EINTR ? transfer : Transfer::FAILED;
        const Framing framing = count_received(stream.frame, static_cast<size_t>(count));
        if (framing == Framing::NO_MEMORY) {
            errno = ENOMEM;
            return Transfer::FAILED;
        }
        if (framing == Framing::WHOLE) {
            message = take_message(stream.frame);
            return Transfer::MESSAGE;
        }
    }
}

void append_message(TcpStream &stream, TcpMessage *message) {
    message->next = nullptr;
    message->sent = 0;
    (stream.first ? stream.last->next : stream.first) = message;
    stream.last = message;
    stream.unsent += LENGTH_BYTES + message->length;
}

bool send_messages(TcpStream &stream) {
    while (TcpMessage *message = stream.first) {
        const size_t size = LENGTH_BYTES + message->length;
        const ssize_t count = send(stream.fd, content_of(message) - LENGTH_BYTES + message->sent,
                                   size - message->sent, MSG_NOSIGNAL);
        if (count < 0)
            return errno == EAGAIN || errno == EINTR;
        message->sent += static_cast<uint32_t>(count);
        stream.unsent -= static_cast<size_t>(count);
        if (message->sent < size)
            return true;
        stream.first = message->next;
        free(message);
    }
    return true;
}

bool watch_stream(TcpStream &stream, int epoll_fd, uint32_t events, uint64_t event) {
    if (events == stream.watched)
        return true;
    stream.watched = events;
    epoll_event changed = {};
    changed.events = events;
    changed.data.u64 = event;
    return epoll_ctl(epoll_fd, EPOLL_CTL_MOD, stream.fd, &changed) == 0;
}

void close_stream(TcpStream &stream, bool at_once) {
    if (at_once) {
        const linger none = {.l_onoff = 1, .l_linger = 0};
        setsockopt(stream.fd, SOL_SOCKET, SO_LINGER, &none, sizeof none);
    }
    close(stream.fd);
    while (TcpMessage *message = stream.first) {
        stream.first = message->next;
        free(message);
    }
    free(stream.frame.message);
    stream = {};
    stream.fd = -1;
}
