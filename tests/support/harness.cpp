#include "harness.h"

#include <algorithm>
#include <cstring>
#include <map>

#include <arpa/inet.h>
#include <poll.h>
#include <spawn.h>
#include <sys/un.h>
#include <sys/wait.h>

using sandbox::must;

namespace harness {
namespace {

constexpr uint16_t dns_port = 53;

// The log file only grows: what was read once is kept.
struct LogReader {
    static constexpr char mark[] = "mark";
    size_t marks = 0;
    std::streamoff position = 0;
    std::vector<LogLine> lines;

    void read() {
        std::ifstream file(sandbox::LOG_FILE);
        file.seekg(position);
        for (std::string line; std::getline(file, line) && !file.eof();) {
            position += static_cast<std::streamoff>(line.size() + 1);
            marks += line == mark;
            // "<134>Nov 21 09:33:57 ident[4]: text"
            unsigned priority = 0;
            char ident[40] = "";
            pid_t process = 0;
            int text = 0;
            if (sscanf(line.c_str(), "<%u>%*15c %39[^[][%d]: %n", &priority, ident, &process,
                       &text) == 3)
                lines.push_back({static_cast<int>(priority & 7), ident, process,
                                 line.substr(static_cast<size_t>(text))});
        }
    }

    // Reads all that was logged before this call: the socket keeps the order, so it has all come
    // when a mark of our own has.
    void catch_up() {
        size_t expected = marks + 1;
        const UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        const sockaddr_un log{AF_UNIX, "/dev/log"};
        must(sendto(fd.get(), mark, strlen(mark), 0, reinterpret_cast<const sockaddr *>(&log),
                    sizeof log) > 0 &&
                 eventually([&] { return read(), marks == expected; }),
             "read the log");
    }

    // Lines that contain the text; a process of 0 is any.
    size_t count(std::string_view text, pid_t process = 0) const {
        return static_cast<size_t>(std::ranges::count_if(lines, [&](const LogLine &line) {
            return (process == 0 || line.process == process) &&
                   line.text.find(text) != std::string::npos;
        }));
    }
};

LogReader reader;

Bytes two_bytes(uint16_t number) {
    return {static_cast<char>(number >> 8), static_cast<char>(number)};
}

} // namespace

const char *const daemon_program = DAEMON_PROGRAM;

void SystemTest::SetUp() {
    must(sandbox::inside(), "run outside of the sandbox");
    for (const char *path : {"/etc/config", "/etc/vantrelle", "/tmp/.uci"})
        fs::remove_all(path);
    fs::create_directory("/etc/config");
    fs::create_directory("/etc/vantrelle");
    reader.catch_up();
    reader.lines.clear();
}

void configure(const Options &main, const Options &logging) {
    Options options{{"log_level", "6"},
                    {"upstream_dns", "10.53.0.1"},
                    {"upstream_dns2", "10.53.0.2"},
                    {"upstream_dns3", "10.53.0.3"},
                    {"upstream_dns4", "10.53.0.4"}};
    options.insert(options.end(), main.begin(), main.end()); // the later one of a name holds
    std::string file;
    for (const auto &[section, content] : {std::pair("main", options), {"logging", logging}}) {
        file += "config "s + section + '\n';
        for (const auto &[name, value] : content)
            file.append("\toption ").append(name).append(" '").append(value).append("'\n");
    }
    write_file("/etc/config/vantrelle", file);
}

std::string read_file(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<LogLine> log_lines() {
    reader.catch_up();
    return reader.lines;
}

size_t log_count(std::string_view text) {
    return reader.catch_up(), reader.count(text);
}

bool wait_for_log(std::string_view text, size_t times, int timeout) {
    return eventually([&] { return reader.read(), reader.count(text) >= times; }, timeout);
}

int log_priority(std::string_view text) {
    const std::vector<LogLine> lines = log_lines();
    const auto line = std::ranges::find(lines, text, &LogLine::text);
    return line == lines.end() ? -1 : line->priority;
}

void expect_logged(int priority, std::initializer_list<std::string_view> texts) {
    for (const std::string_view text : texts)
        EXPECT_EQ(log_priority(text), priority) << text;
}

bool eventually(const std::function<bool()> &condition, int timeout) {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        usleep(2000);
    }
    return true;
}

Bytes query(std::string_view name, uint16_t id, uint16_t type, bool edns) {
    Bytes message = two_bytes(id) + "\1\0\0\1\0\0\0\0\0"s + (edns ? '\1' : '\0');
    while (!name.empty()) {
        std::string_view label = name.substr(0, name.find('.'));
        message += static_cast<char>(label.size());
        message += label;
        name.remove_prefix(std::min(name.size(), label.size() + 1));
    }
    message += '\0' + two_bytes(type) + "\0\1"s;
    // Root name, OPT, 1232 bytes, no flags, no data (RFC 6891).
    return edns ? message + "\0\0\x29\x04\xd0\0\0\0\0\0\0"s : message;
}

uint16_t id_of(const Bytes &message) {
    uint16_t id = 0;
    if (message.size() >= 12)
        memcpy(&id, message.data(), sizeof id);
    return ntohs(id);
}

int rcode_of(const Bytes &message) {
    return message.size() < 12 ? -1 : message[3] & 15;
}

sockaddr_in socket_address(const std::string &text, uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    must(inet_aton(text.c_str(), &address.sin_addr) == 1, "read the address " + text);
    return address;
}

Socket::Socket(const std::string &address, uint16_t port)
    : fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    const sockaddr_in own = socket_address(address, port);
    must(bind(fd.get(), reinterpret_cast<const sockaddr *>(&own), sizeof own) == 0,
         "bind to " + address);
}

void Socket::send_to(const Bytes &message, const sockaddr_in &to) const {
    must(sendto(fd.get(), message.data(), message.size(), 0,
                reinterpret_cast<const sockaddr *>(&to),
                sizeof to) == static_cast<ssize_t>(message.size()),
         "send a message");
}

std::optional<Bytes> Socket::receive(int timeout, sockaddr_in *from) const {
    pollfd waiting{fd.get(), POLLIN, 0};
    if (poll(&waiting, 1, timeout) != 1)
        return std::nullopt;
    Bytes message(4096, '\0');
    socklen_t length = sizeof(sockaddr_in);
    const ssize_t size = recvfrom(fd.get(), message.data(), message.size(), 0,
                                  reinterpret_cast<sockaddr *>(from), from ? &length : nullptr);
    must(size >= 0, "receive a message");
    message.resize(static_cast<size_t>(size));
    return message;
}

Client::Client(int number) : Socket(sandbox::CLIENT_PREFIX + std::to_string(number), 0) {}

void Client::send(const Bytes &message, const char *address) const {
    send_to(message, socket_address(address, dns_port));
}

std::optional<Bytes> Client::ask(const Bytes &message, const char *address) const {
    send(message, address);
    return receive();
}

bool passes(std::string_view name, int client) {
    return Client(client).ask(query(name)) == Upstream::echo(query(name));
}

std::optional<Bytes> Upstream::echo(const Bytes &message) {
    if (message.find("silent") != Bytes::npos)
        return std::nullopt;
    Bytes answer = message;
    if (answer.size() > 2)
        answer[2] = static_cast<char>(answer[2] | 0x80);
    return answer;
}

size_t not_received() {
    const std::string sockets = read_file("/proc/net/udp");
    size_t waiting = 0, dropped = 0;
    sscanf(sockets.c_str() + sockets.find("0108A8C0:0035"), // 192.168.8.1, port 53
           "%*s %*s %*s %*x:%zx %*s %*s %*s %*s %*s %*s %*s %zu", &waiting, &dropped);
    return waiting + dropped;
}

Upstream::Upstream(int number, Answer answer)
    : Upstream(number, [answer = std::move(answer)](const Bytes &message) {
          const std::optional<Bytes> reply = answer(message);
          return reply ? std::vector{std::pair{0, *reply}} : std::vector<std::pair<int, Bytes>>{};
      }) {}

Upstream::Upstream(int number, Script what)
    : script(std::move(what)), socket(sandbox::UPSTREAM_PREFIX + std::to_string(number), dns_port),
      thread([this](const std::stop_token &stop) { serve(stop); }) {}

std::vector<Bytes> Upstream::received() const {
    std::lock_guard guard(mutex);
    return messages;
}

std::vector<sockaddr_in> Upstream::senders() const {
    std::lock_guard guard(mutex);
    return origins;
}

void Upstream::serve(const std::stop_token &stop) {
    using Clock = std::chrono::steady_clock;
    std::multimap<Clock::time_point, std::pair<Bytes, sockaddr_in>> later;
    while (!stop.stop_requested()) {
        sockaddr_in from{};
        if (const std::optional<Bytes> message = socket.receive(later.empty() ? 20 : 1, &from)) {
            {
                std::lock_guard guard(mutex);
                messages.push_back(*message);
                origins.push_back(from);
            }
            for (const auto &[delay, reply] : script(*message))
                later.insert({Clock::now() + std::chrono::milliseconds(delay), {reply, from}});
        }
        while (!later.empty() && later.begin()->first <= Clock::now()) {
            const auto &[reply, to] = later.begin()->second;
            socket.send_to(reply, to);
            later.erase(later.begin());
        }
    }
}

Process::Process(const std::string &program, std::vector<std::string> arguments) {
    must(sandbox::inside(), "start anything outside of the sandbox");
    static std::atomic<int> number;
    output_file = "/tmp/output." + std::to_string(++number);
    // The shell redirects, and then becomes the program.
    arguments.insert(
        arguments.begin(),
        {"/bin/sh", "-c", "exec \"$0\" \"$@\" </dev/null >>" + output_file + " 2>&1", program});
    std::vector<char *> argv;
    for (std::string &argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    must(posix_spawn(&id, argv[0], nullptr, nullptr, argv.data(), environ) == 0,
         "start " + program);
}

Process::~Process() {
    if (running()) {
        signal(SIGKILL);
        wait();
    }
    if (output().find("Sanitizer") != std::string::npos)
        ADD_FAILURE() << "a sanitizer reported";
    if (testing::Test::HasFailure())
        fprintf(stderr, "%s", output().c_str());
}

bool Process::running() {
    int raw;
    if (status < 0 && waitpid(id, &raw, WNOHANG) == id)
        status = WIFSIGNALED(raw) ? 128 + WTERMSIG(raw) : WEXITSTATUS(raw);
    return status < 0;
}

int Process::wait(int timeout) {
    eventually([this] { return !running(); }, timeout);
    return status;
}

void Process::signal(int number) const {
    must(kill(id, number) == 0, "send a signal");
}

std::string Process::output() const {
    return read_file(output_file);
}

size_t Process::figure(const std::string &name) const {
    const std::string all = read_file("/proc/" + std::to_string(id) + "/status");
    const size_t at = all.find("\n" + name + ":");
    must(at != std::string::npos, "read " + name);
    return std::stoul(all.substr(at + name.size() + 2));
}

size_t Process::descriptors() const {
    fs::directory_iterator entries("/proc/" + std::to_string(id) + "/fd");
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

void run(const std::string &command) {
    must(Process("/bin/sh", {"-c", command}).wait() == 0, command);
}

Daemon::Daemon(const std::vector<std::string> &arguments, const char *program)
    : Process(program, arguments) {
    auto up = [this] { return reader.read(), reader.count("Startup Complete.", pid()) > 0; };
    if (!eventually([&] { return up() || !running(); }, 20000) || !running())
        ADD_FAILURE() << "the daemon did not start";
}

void Daemon::prime() {
    auto done = [] { return log_count("Received error") + log_count("Response timed out"); };
    size_t before = done();
    Client(29).send(query("first.example"));
    EXPECT_TRUE(eventually([&] { return done() > before; })) << "the first datagram got stuck";
}

int Daemon::stop() {
    signal(SIGTERM);
    Client nudge(29);
    eventually([&] {
        if (running())
            nudge.send(query("stop.example"));
        usleep(10000);
        return !running();
    });
    return wait();
}

} // namespace harness

// Each test runs in a sandbox of its own; listing the tests needs none.
int main(int argc, char **argv) {
    const bool listing = argc > 1 && strcmp(argv[1], "--gtest_list_tests") == 0;
    if (!listing && !sandbox::inside()) {
        std::string self = harness::fs::read_symlink("/proc/self/exe");
        argv[0] = self.data();
        return sandbox::run(argv);
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
