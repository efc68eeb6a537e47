// What bench/run needs besides the two servers, dnsperf and slow_upstream:
//   bench_tool names DIRECTORY  writes black.lst and the query files blocked and clean
//   bench_tool wait ADDRESS     asks for a listed name until an answer comes
#include "names.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <string_view>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

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
    list << "wait.example\n"; // what wait_for_answer() asks for
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
    else if (command == "wait" && argc == 3)
        wait_for_answer(argv[2]);
    else
        return 2;
    return 0;
}
