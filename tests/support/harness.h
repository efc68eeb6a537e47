// What system tests tell their stories with: the daemon as a process, clients and upstream servers
// at their addresses, the settings file and the system log. All of it works only in the sandbox;
// the tests' main() sees to that. Failures of the harness itself end the test process with a text.
#pragma once

#include "guards.h"
#include "sandbox.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <syslog.h>
#include <unistd.h>

namespace harness {

namespace fs = std::filesystem;
using namespace std::string_literals;

using Bytes = std::string; // a message; text comparison shows differences readably

// Every test starts with no settings, an empty base directory and an empty log.
class SystemTest : public testing::Test {
  protected:
    void SetUp() override;
};

// Settings

using Options = std::vector<std::pair<std::string, std::string>>;

// Writes /etc/config/vantrelle with these options in the section main (beside the four upstream
// addresses and log_level 6, unless they are given) and in the section logging.
void configure(const Options &main = {}, const Options &logging = {});
std::string read_file(const std::string &path);
using sandbox::write_file;

// The system log since the test began

struct LogLine {
    int priority; // 0 to 7
    std::string ident;
    pid_t process;
    std::string text;
};

std::vector<LogLine> log_lines();
size_t log_count(std::string_view text); // lines that contain the text
// Whether that many lines contain the text before the time (milliseconds) is over.
bool wait_for_log(std::string_view text, size_t times = 1, int timeout = 10000);
// The priority of the first line with exactly this text, -1 when there is none.
int log_priority(std::string_view text);
void expect_logged(int priority, std::initializer_list<std::string_view> texts);

// Waits until the condition holds; false when it still does not after that many milliseconds.
bool eventually(const std::function<bool()> &condition, int timeout = 10000);

// Messages (RFC 1035): one question of class IN, recursion desired, with edns an OPT record.
Bytes query(std::string_view name, uint16_t id = 1, uint16_t type = 1, bool edns = false);
uint16_t id_of(const Bytes &message); // 0 for a message without a whole header
int rcode_of(const Bytes &message);   // -1 likewise

sockaddr_in socket_address(const std::string &text, uint16_t port);

// A UDP socket with an address of its own.
class Socket {
  public:
    Socket(const std::string &address, uint16_t port);
    void send_to(const Bytes &message, const sockaddr_in &to) const;
    // Nothing when the time (milliseconds) is over. Tells the sender's address, if asked for it.
    std::optional<Bytes> receive(int timeout = 3000, sockaddr_in *from = nullptr) const;

  private:
    UniqueFd fd;
};

// A client at 192.168.8.NUMBER (20 to 29), on a port of its own.
struct Client : Socket {
    explicit Client(int number = 20);
    void send(const Bytes &message, const char *address = sandbox::ROUTER) const;
    std::optional<Bytes> ask(const Bytes &message, const char *address = sandbox::ROUTER) const;
};

// Whether a query for the name gets the answer that Upstream::echo() gives.
bool passes(std::string_view name, int client = 20);

// 0 when the daemon took all that ever came to its socket: bytes that wait, and datagrams lost.
size_t not_received();

// An upstream server at 10.53.0.NUMBER (1 to 4), port 53, on a thread of its own.
class Upstream {
  public:
    using Answer = std::function<std::optional<Bytes>(const Bytes &)>;
    // Called on the server's thread; no answer is sent when it returns nothing.
    // The query, marked as a response; nothing for one that contains "silent".
    static std::optional<Bytes> echo(const Bytes &message);

    // What a query brings about: each of these is sent so many milliseconds later.
    using Script = std::function<std::vector<std::pair<int, Bytes>>(const Bytes &)>;

    explicit Upstream(int number, Answer answer = echo);
    Upstream(int number, Script script);
    std::vector<Bytes> received() const;
    std::vector<sockaddr_in> senders() const; // of those
    size_t count() const { return received().size(); }

  private:
    void serve(const std::stop_token &stop);

    Script script;
    Socket socket;
    mutable std::mutex mutex;
    std::vector<Bytes> messages;
    std::vector<sockaddr_in> origins;
    std::jthread thread; // stops and ends before the rest goes
};

// A program that runs beside the test: killed, if it still runs, when the object goes.
class Process {
  public:
    Process(const std::string &program, std::vector<std::string> arguments);
    ~Process();
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;

    bool running();
    // Exit status, 128 + signal when a signal ended it, -1 when it still runs after the time.
    int wait(int timeout = 20000);
    void signal(int number) const;
    std::string output() const; // both standard output and standard error so far
    size_t descriptors() const; // open ones
    // A number of /proc/PID/status: "VmRSS" (resident memory in KiB), "Threads".
    size_t figure(const std::string &name) const;
    pid_t pid() const { return id; }

  private:
    pid_t id;
    std::string output_file;
    int status = -1;
};

extern const char *const daemon_program;

// Runs a shell command, which must succeed.
void run(const std::string &command);

class Daemon : public Process {
  public:
    // Starts it and waits until it is up. For one that will not come up use Process with
    // daemon_program.
    explicit Daemon(const std::vector<std::string> &arguments = {},
                    const char *program = daemon_program);
    // Sends the first datagram, whose sender is never answered, and waits until it is done with.
    static void prime();
    // SIGTERM and the datagram that it takes to be seen; returns as wait() does.
    int stop();
};

struct PrimedDaemon : Daemon {
    PrimedDaemon() { prime(); }
};

} // namespace harness
