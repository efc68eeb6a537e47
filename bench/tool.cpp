// What bench/run needs besides the two servers and dnsperf:
//   bench_tool names DIRECTORY   writes black.lst and the query files blocked and clean
//   bench_tool serve ADDRESS MS  an upstream server that answers everything after MS milliseconds
//   bench_tool wait ADDRESS      asks until an answer comes
#include "names.h"

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <random>
#include <string>
#include <string_view>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int LISTED_NAMES = 100000;
constexpr int QUERIES = 50000;
constexpr uint16_t DNS_PORT = 53;

[[noreturn]] void fail(const char *what) {
    perror(what);
    exit(1);
}

sockaddr_in dns_at(const char *address) {
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_port = htons(DNS_PORT);
    if (inet_aton(address, &at.sin_addr) != 1)
        fail(address);
    return at;
}

// Half of the blocked queries are for a listed name, half for a name below one.
void write_names(const std::string &directory) {
    std::mt19937 random(1);
    std::ofstream list(directory + "/black.lst");
    std::ofstream blocked(directory + "/blocked");
    std::ofstream clean(directory + "/clean");
    for (int i = 0; i < LISTED_NAMES; i++) {
        const std::string name = random_name(random);
        list << name << '\n';
        if (i < QUERIES)
            blocked << (i % 2 ? "www." : "") << name << " A\n";
    }
    for (int i = 0; i < QUERIES; i++)
        clean << (i % 2 ? "www." : "") << random_label(random, 5, 12) << ".example.net A\n";
}

struct Waiting {
    Clock::time_point due;
    sockaddr_in client;
    std::string answer;
};

// The query with one A record behind it: 192.0.2.1, named by a pointer to the question.
std::string answer_to(std::string_view query) {
    static constexpr std::string_view RECORD("\xc0\x0c\0\1\0\1\0\0\0\x3c\0\4\xc0\0\2\1", 16);
    std::string answer(query);
    answer[2] = static_cast<char>(answer[2] | 0x80);
    answer[3] = static_cast<char>(0x80);
    answer[7] = 1;
    answer[11] = 0; // the queries of the measured servers have no records of their own
    return answer += RECORD;
}

[[noreturn]] void serve(const char *address, std::chrono::milliseconds delay) {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    const sockaddr_in here = dns_at(address);
    const int buffer_size = 4 << 20;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &buffer_size, sizeof buffer_size);
    if (bind(fd, reinterpret_cast<const sockaddr *>(&here), sizeof here) != 0)
        fail(address);
    std::deque<Waiting> queue; // in order of time, since all wait equally long
    for (;;) {
        while (!queue.empty() && queue.front().due <= Clock::now()) {
            const Waiting &next = queue.front();
            sendto(fd, next.answer.data(), next.answer.size(), 0,
                   reinterpret_cast<const sockaddr *>(&next.client), sizeof next.client);
            queue.pop_front();
        }
        pollfd input{fd, POLLIN, 0};
        if (poll(&input, 1, queue.empty() ? -1 : 1) != 1)
            continue;
        char message[512];
        sockaddr_in client{};
        socklen_t length = sizeof client;
        const ssize_t size = recvfrom(fd, message, sizeof message, 0,
                                      reinterpret_cast<sockaddr *>(&client), &length);
        if (size >= 12)
            queue.push_back(
                {Clock::now() + delay, client, answer_to({message, static_cast<size_t>(size)})});
    }
}

void wait_for_answer(const char *address) {
    static constexpr std::string_view QUERY("\0\1\1\0\0\1\0\0\0\0\0\0\4wait\7example\0\0\1\0\1",
                                            30);
    constexpr int ATTEMPTS = 60000; // a millisecond each
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    const sockaddr_in there = dns_at(address);
    for (int i = 0; i < ATTEMPTS; i++) {
        sendto(fd, QUERY.data(), QUERY.size(), 0, reinterpret_cast<const sockaddr *>(&there),
               sizeof there);
        pollfd input{fd, POLLIN, 0};
        if (poll(&input, 1, 1) == 1)
            return;
    }
    fprintf(stderr, "%s does not answer\n", address);
    exit(1);
}

} // namespace

int main(int argc, char **argv) {
    const std::string_view command = argc > 2 ? argv[1] : "";
    if (command == "names" && argc == 3)
        write_names(argv[2]);
    else if (command == "serve" && argc == 4)
        serve(argv[2], std::chrono::milliseconds(atoi(argv[3])));
    else if (command == "wait" && argc == 3)
        wait_for_answer(argv[2]);
    else
        return 2;
    return 0;
}
