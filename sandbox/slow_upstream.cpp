// An upstream server that is some way off, for the tour and the benchmarks:
//   slow_upstream ADDRESS MILLISECONDS
// answers every query with 192.0.2.1 after that time; a negative one stands for a silent server.
#include "sandbox.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <string>
#include <string_view>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

namespace {

using Clock = std::chrono::steady_clock;

constexpr uint16_t DNS_PORT = 53;
constexpr size_t HEADER_SIZE = 12;

struct Waiting {
    Clock::time_point due;
    sockaddr_in client;
    std::string answer;
};

// The query with one A record behind it, named by a pointer to the question.
std::string answer_to(std::string_view query) {
    static constexpr std::string_view RECORD("\xc0\x0c\0\1\0\1\0\0\0\x3c\0\4\xc0\0\2\1", 16);
    std::string answer(query);
    answer[2] = static_cast<char>(answer[2] | 0x80);
    answer[3] = static_cast<char>(0x80);
    answer[7] = 1;
    answer[11] = 0; // what asks here has no records of its own in its queries
    return answer += RECORD;
}

int open_socket(const char *address) {
    sockaddr_in here{};
    here.sin_family = AF_INET;
    here.sin_port = htons(DNS_PORT);
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int buffer_size = 4 << 20;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &buffer_size, sizeof buffer_size);
    sandbox::must(inet_aton(address, &here.sin_addr) == 1 &&
                      bind(fd, reinterpret_cast<const sockaddr *>(&here), sizeof here) == 0,
                  std::string("listen on ") + address);
    return fd;
}

// Milliseconds until the answer is due, rounded up; -1 without one.
int time_until(const std::deque<Waiting> &queue) {
    using namespace std::chrono;
    if (queue.empty())
        return -1;
    return std::max(0,
                    static_cast<int>(ceil<milliseconds>(queue.front().due - Clock::now()).count()));
}

[[noreturn]] void serve(int fd, std::chrono::milliseconds delay) {
    std::deque<Waiting> queue; // in order of time, since all wait equally long
    for (;;) {
        while (!queue.empty() && queue.front().due <= Clock::now()) {
            const Waiting &next = queue.front();
            sendto(fd, next.answer.data(), next.answer.size(), 0,
                   reinterpret_cast<const sockaddr *>(&next.client), sizeof next.client);
            queue.pop_front();
        }
        pollfd input{fd, POLLIN, 0};
        if (poll(&input, 1, time_until(queue)) != 1)
            continue;
        char message[512];
        sockaddr_in client{};
        socklen_t length = sizeof client;
        const ssize_t size = recvfrom(fd, message, sizeof message, 0,
                                      reinterpret_cast<sockaddr *>(&client), &length);
        if (size >= static_cast<ssize_t>(HEADER_SIZE) && delay.count() >= 0)
            queue.push_back(
                {Clock::now() + delay, client, answer_to({message, static_cast<size_t>(size)})});
    }
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 3)
        return 2;
    serve(open_socket(argv[1]), std::chrono::milliseconds(atoi(argv[2])));
}
