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

std::string framed(const std::string &message) {
    return std::string{static_cast<char>(message.size() >> 8), static_cast<char>(message.size())} +
           message;
}

void check_reading(Input &input) {
    while (!input.empty() && peer.bytes.size() < 200'000)
        peer.bytes += framed(input.text());
    peer.bytes.resize(peer.bytes.size() - std::min<size_t>(peer.bytes.size(), peer.steps.size()));
    TcpStream stream = {};
    std::string read; // messages, with their lengths
    for (Transfer transfer = Transfer::NOTHING; transfer < Transfer::ENDED;) {
        TcpMessage *message = nullptr;
        const size_t before = peer.at;
        transfer = read_message(stream, message);
        check((transfer == Transfer::MESSAGE) == (message != nullptr));
        check(transfer == Transfer::FAILED || transfer == Transfer::ENDED ||
              (transfer == Transfer::NOTHING) == (peer.at == before));
        if (message) { // zeros stand behind a short one
            const std::string content(content_of(message), content_of(message) + message->length);
            for (size_t at = content.size(); at < 256; at++)
                check(content_of(message)[at] == 0);
            read += framed(content);
            free(message);
        }
        check(read.size() + stream.frame.received == peer.at); // nothing is taken ahead
    }
    check(peer.bytes.starts_with(read));
    stream.fd = -1;
    close_stream(stream);
}

void check_sending(Input &input) {
    TcpStream stream = {};
    std::string sent;
    bool holds = true;
    for (int count = 0; count < 100 && !input.empty() && holds; count++) {
        const std::string content = input.text();
        TcpMessage *message = new_tcp_message(content.size());
        content.copy(reinterpret_cast<char *>(content_of(message)), content.size());
        append_message(stream, message);
        sent += framed(content);
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
        peer.at +=
            peer.bytes.copy(static_cast<char *>(buffer), static_cast<size_t>(count), peer.at);
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
