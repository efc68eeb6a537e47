// An upstream server that is some way off, for the tour and the benchmarks:
//   slow_upstream ADDRESS MILLISECONDS [truncate]
// answers every query with 192.0.2.1 after that time, over UDP and TCP; a negative one stands for a
// silent server. With the word an answer over UDP says that it is cut.
#include "sandbox.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

constexpr uint16_t DNS_PORT = 53;
constexpr size_t HEADER_SIZE = 12;

struct Waiting {
    Clock::time_point due;
    sockaddr_in client; // over UDP
    int connection;     // or over TCP; -1
    std::string answer;
};

struct Connection {
    int fd;
    std::string received;
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

int open_socket(const char *address, int type) {
    sockaddr_in here{};
    here.sin_family = AF_INET;
    here.sin_port = htons(DNS_PORT);
    const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    const int buffer_size = 4 << 20, on = 1;
    if (type == SOCK_DGRAM)
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &buffer_size, sizeof buffer_size);
    else
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sandbox::must(inet_aton(address, &here.sin_addr) == 1 &&
                      bind(fd, reinterpret_cast<const sockaddr *>(&here), sizeof here) == 0 &&
                      (type == SOCK_DGRAM || listen(fd, SOMAXCONN) == 0),
                  std::string("listen on ") + address);
    return fd;
}

struct Server {
    int udp, listener;
    std::chrono::milliseconds delay;
    bool is_truncating;
    std::deque<Waiting> queue; // in order of time, since all wait equally long
    std::vector<Connection> connections;

    Server(const char *address, int milliseconds, bool truncates)
        : udp(open_socket(address, SOCK_DGRAM)), listener(open_socket(address, SOCK_STREAM)),
          delay(milliseconds), is_truncating(truncates) {}

    [[noreturn]] void serve() {
        for (;;) {
            send_due();
            std::vector<pollfd> sources{{udp, POLLIN, 0}, {listener, POLLIN, 0}};
            for (const Connection &connection : connections)
                sources.push_back({connection.fd, POLLIN, 0});
            if (poll(sources.data(), sources.size(), time_until_due()) < 1)
                continue;
            for (size_t at = connections.size(); at-- > 0;) // which may go
                if (sources[2 + at].revents)
                    read_stream(at);
            if (sources[0].revents)
                read_datagram();
            if (sources[1].revents)
                accept_connection();
        }
    }

    // Milliseconds until the answer is due, rounded up; -1 without one.
    int time_until_due() const {
        using namespace std::chrono;
        if (queue.empty())
            return -1;
        const auto left = ceil<milliseconds>(queue.front().due - Clock::now());
        return std::max(0, static_cast<int>(left.count()));
    }

    void send_due() {
        for (; !queue.empty() && queue.front().due <= Clock::now(); queue.pop_front()) {
            const Waiting &next = queue.front();
            if (next.connection >= 0)
                send(next.connection, next.answer.data(), next.answer.size(), MSG_NOSIGNAL);
            else
                sendto(udp, next.answer.data(), next.answer.size(), 0,
                       reinterpret_cast<const sockaddr *>(&next.client), sizeof next.client);
        }
    }

    void take(std::string_view query, sockaddr_in client, int connection) {
        if (query.size() < HEADER_SIZE || delay.count() < 0)
            return;
        std::string answer = answer_to(query);
        if (connection >= 0)
            answer.insert(
                0, {static_cast<char>(answer.size() >> 8), static_cast<char>(answer.size())});
        else if (is_truncating)
            answer[2] = static_cast<char>(answer[2] | 2);
        queue.push_back({Clock::now() + delay, client, connection, std::move(answer)});
    }

    void read_datagram() {
        char message[512];
        sockaddr_in client{};
        socklen_t length = sizeof client;
        const ssize_t size = recvfrom(udp, message, sizeof message, 0,
                                      reinterpret_cast<sockaddr *>(&client), &length);
        if (size > 0)
            take({message, static_cast<size_t>(size)}, client, -1);
    }

    void accept_connection() {
        sockaddr_in client{};
        socklen_t length = sizeof client;
        const int fd =
            accept4(listener, reinterpret_cast<sockaddr *>(&client), &length, SOCK_CLOEXEC);
        const int on = 1;
        if (fd < 0)
            return;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        connections.push_back({fd, {}});
    }

    void read_stream(size_t at) {
        char bytes[4096];
        const int fd = connections[at].fd;
        std::string &received = connections[at].received;
        const ssize_t size = recv(fd, bytes, sizeof bytes, 0);
        if (size <= 0) {
            std::erase_if(queue, [fd](const Waiting &each) { return each.connection == fd; });
            close(fd);
            connections.erase(connections.begin() + static_cast<ptrdiff_t>(at));
            return;
        }
        received.append(bytes, static_cast<size_t>(size));
        while (received.size() >= 2) {
            const size_t end =
                2 + (static_cast<uint8_t>(received[0]) << 8U | static_cast<uint8_t>(received[1]));
            if (received.size() < end)
                break;
            take(std::string_view(received).substr(2, end - 2), {}, fd);
            received.erase(0, end);
        }
    }
};

} // namespace

int main(int argc, char **argv) {
    if (argc != 3 && argc != 4)
        return 2;
    Server(argv[1], atoi(argv[2]), argc == 4).serve();
}
