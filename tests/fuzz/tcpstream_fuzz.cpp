// Messages on a TCP connection, both ways: taken apart and put together at any place where the
// kernel stops, or fails. The linker puts the two functions in front of the entry in the place of
// the system's; what must come of it is decided here from all bytes at once.
#include "fuzz.h"
#include "tcpstream.h"

#include <algorithm>
#include <cerrno>
#include <sys/socket.h>

namespace {

// The other side, and what the kernel does at each call.
struct Peer {
    std::string bytes, steps;
    size_t at, step;
    std::string taken; // what was sent to it
} peer;

// How many bytes, or -1 and errno; behind the steps nothing holds back any more.
ssize_t allowed(size_t most) {
    if (peer.step >= peer.steps.size())
        return static_cast<ssize_t>(most);
    const auto step = static_cast<uint8_t>(peer.steps[peer.step++]);
    static constexpr int ERRORS[] = {EAGAIN, EINTR, ECONNRESET};
    errno = ERRORS[step % 3];
    return step < 48 ? -1 : static_cast<ssize_t>(std::min(most, size_t{1} << step % 17));
}

TcpMessage *make_message(std::string_view bytes) {
    TcpMessage *message = new_tcp_message(bytes.size());
    std::copy(bytes.begin(), bytes.end(), content_of(message));
    return message;
}

std::string framed(const std::string &message) {
    return std::string{static_cast<char>(message.size() >> 8), static_cast<char>(message.size())} +
           message;
}

void check_reading(Input &input) {
    while (!input.empty() && peer.bytes.size() < 200'000)
        peer.bytes += framed(input.text());
    peer.bytes.resize(peer.bytes.size() - std::min<size_t>(peer.bytes.size(), peer.steps.size()));
    TcpStream stream = {};
    std::string read; // with the lengths
    for (Transfer transfer = Transfer::NOTHING; transfer < Transfer::ENDED;) {
        TcpMessage *message = nullptr;
        const size_t before = peer.at, half = stream.frame.received;
        transfer = read_message(stream, message);
        const size_t whole = half + peer.at - before;
        check((transfer == Transfer::MESSAGE) == (message != nullptr));
        if (transfer == Transfer::PARTIAL || transfer == Transfer::NOTHING)
            check(stream.frame.received == whole &&
                  (transfer == Transfer::NOTHING) == (peer.at == before));
        if (!message)
            continue;
        // No byte of the next one was taken, and zeros stand behind a short one.
        check(whole == 2 + message->length && stream.frame.received == 0);
        const uint8_t *content = content_of(message);
        read += framed(std::string(content, content + message->length));
        if (message->length < 256)
            check(std::all_of(content + message->length, content + 256,
                              [](uint8_t byte) { return byte == 0; }));
        free(message);
    }
    check(peer.bytes.starts_with(read) && read.size() + stream.frame.received == peer.at);
    stream.fd = -1;
    close_stream(stream);
}

void check_sending(Input &input) {
    TcpStream stream = {};
    std::string sent;
    bool holds = true;
    for (int count = 0; count < 100 && !input.empty() && holds; count++) {
        const std::string message = input.text();
        append_message(stream, make_message(message));
        sent += framed(message);
        holds = send_messages(stream);
        check(sent.starts_with(peer.taken) && stream.unsent == sent.size() - peer.taken.size());
    }
    for (int tries = 0; holds && stream.unsent > 0 && tries < 1000; tries++)
        holds = send_messages(stream);
    check(!holds || peer.taken == sent);
    stream.fd = -1;
    close_stream(stream);
}

} // namespace

extern "C" ssize_t __wrap_recv(int, void *buffer, size_t size, int) {
    check(size > 0);
    const ssize_t count = allowed(std::min(size, peer.bytes.size() - peer.at));
    if (count > 0)
        peer.bytes.copy(static_cast<char *>(buffer), static_cast<size_t>(count), peer.at);
    peer.at += count > 0 ? static_cast<size_t>(count) : 0;
    return count;
}
extern "C" ssize_t __wrap_send(int, const void *buffer, size_t size, int) {
    check(size > 0);
    const ssize_t count = allowed(size);
    if (count > 0)
        peer.taken.append(static_cast<const char *>(buffer), static_cast<size_t>(count));
    return count;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input input(data, size, 1 << 18);
    peer = {};
    const bool is_sending = input.byte() & 1;
    peer.steps = input.piece(input.byte());
    (is_sending ? check_sending : check_reading)(input);
    return 0;
}
