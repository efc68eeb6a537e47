// Plays recordings of the bus's real programs against the stand-ins, byte for byte: the recorded
// clients to our bus daemon, and the recorded bus to our command-line client. What the library does
// for the owner of an object is shown by the daemon itself, on a bus that passed here.
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <pty.h>
#include <sched.h>
#include <set>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

#include "guards.h"
// The platform's headers define `fallthrough` and other common words: they come last.
extern "C" {
#include <libubus.h>
}
#include "wire.h"

namespace {

using json = nlohmann::json;
using Bytes = std::string;
constexpr int patience = 5000; // milliseconds

json load(const std::string &name) {
    return json::parse(std::ifstream(TEST_DATA "/captures/" + name + ".json"));
}

Bytes bytes_of(const json &entry) {
    const std::string hex = entry.value("hex", "");
    Bytes bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    return bytes;
}

bool to_bus(const json &entry) {
    return entry.value("dir", "") == "client>bus";
}

uint32_t word_at(const Bytes &bytes, size_t at) {
    return static_cast<uint32_t>(blob_read_number_(bytes.data() + at, 4));
}

wire::Attributes attributes_of(Bytes &message) {
    return wire::parse(reinterpret_cast<blob_attr *>(message.data() + sizeof(ubus_msghdr)),
                       message.size() - sizeof(ubus_msghdr));
}

bool readable(int fd, int milliseconds) {
    pollfd entry{fd, POLLIN, 0};
    return poll(&entry, 1, milliseconds) > 0;
}

// Fewer bytes at the end of the stream, or when nothing comes.
Bytes read_bytes(int fd, size_t size) {
    Bytes bytes;
    char byte;
    while (bytes.size() < size && readable(fd, patience) && read(fd, &byte, 1) == 1)
        bytes += byte;
    return bytes;
}

Bytes read_message(int fd) {
    Bytes message = read_bytes(fd, sizeof(wire::Head));
    if (message.size() == sizeof(wire::Head))
        message += read_bytes(fd, word_at(message, 8) - sizeof(blob_attr));
    return message;
}

bool send_bytes(int fd, const Bytes &bytes) {
    return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

bool ended(int fd) {
    char byte;
    return readable(fd, patience) && recv(fd, &byte, 1, MSG_PEEK) <= 0;
}

UniqueFd make_socket(const std::string &path, bool listening) {
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{AF_UNIX, {}};
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    auto *generic = reinterpret_cast<sockaddr *>(&address);
    bool done = listening ? bind(fd.get(), generic, sizeof(address)) == 0 && !listen(fd.get(), 8)
                          : connect(fd.get(), generic, sizeof(address)) == 0;
    return done ? std::move(fd) : UniqueFd();
}

// A process that does not outlive the test, its output, and its connection to the played bus.
struct Program {
    pid_t pid = -1;
    const json *command = nullptr; // a run of the command-line client
    UniqueFd out, err, bus;

    // An exception in the child must not make a second test program of it.
    void start(const std::function<void()> &body) noexcept {
        pid = fork();
        if (pid == 0) {
            body();
            _exit(127);
        }
    }
    int wait() {
        int status = 0;
        waitpid(std::exchange(pid, -1), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    ~Program() {
        if (pid > 0 && kill(pid, SIGKILL) == 0)
            wait();
    }
};

class CaptureTest : public testing::TestWithParam<std::string> {
  protected:
    std::string directory = testing::TempDir() + "ubus.XXXXXX";
    std::string path;
    json capture, messages, commands;

    void SetUp() override {
        path = std::string(mkdtemp(directory.data())) + "/bus";
        capture = load(GetParam());
        messages = capture["messages"];
        commands = capture.value("commands", json::array());
    }
    void TearDown() override { std::filesystem::remove_all(directory); }
};

// ---- Recorded clients against our bus daemon ----

// Ids are random. Each recorded one stands for the live one that is found first in its place.
class Ids {
    std::set<uint32_t> recorded, taken;
    std::map<uint32_t, uint32_t> live;

  public:
    explicit Ids(const json &messages) {
        for (const json &entry : messages) {
            if (to_bus(entry) || !entry.contains("hex"))
                continue;
            Bytes message = bytes_of(entry);
            wire::Attributes found = attributes_of(message);
            if (message[1] == UBUS_MSG_HELLO || message[1] == UBUS_MSG_INVOKE)
                recorded.insert(word_at(message, 4));
            if (message[1] == UBUS_MSG_DATA)
                recorded.insert(
                    {wire::number(found[UBUS_ATTR_OBJID]), wire::number(found[UBUS_ATTR_OBJTYPE])});
        }
        recorded.erase(0);
    }
    // The recorded message with live ids; those not known yet are learned from `answer`.
    Bytes translate(Bytes message, const Bytes &answer = {}) {
        for (size_t at = 4; at + 4 <= message.size(); at += 4) {
            uint32_t id = word_at(message, at);
            if (!recorded.contains(id))
                continue;
            uint32_t there = at + 4 <= answer.size() ? word_at(answer, at) : 0;
            if (!live.contains(id) && there >= UBUS_SYSTEM_OBJECT_MAX && taken.insert(there).second)
                live[id] = there;
            uint32_t word = cpu_to_be32(live[id]);
            message.replace(at, 4, reinterpret_cast<char *>(&word), 4);
        }
        return message;
    }
};

// The recordings name root as the caller. Who is somebody else makes the bus see root's clients.
void become_root() {
    const std::string uid = std::to_string(geteuid()), gid = std::to_string(getegid());
    if (uid == "0" || unshare(CLONE_NEWUSER) != 0)
        return;
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << "0 " + uid + " 1";
    std::ofstream("/proc/self/gid_map") << "0 " + gid + " 1";
}

class BusTest : public CaptureTest {};

TEST_P(BusTest, AnswersAsRecorded) {
    Program bus;
    UniqueFd owner;
    bus.start([this] {
        become_root();
        execl(UBUSD_PROGRAM, "ubusd", "-s", path.c_str(), nullptr);
    });
    for (int i = 0; i < patience && !make_socket(path, false); i++)
        usleep(1000);
    if (GetParam() == "33_raw_bus_answers") { // its objects are another recording's
        owner = make_socket(path, false);
        read_message(owner.get());
        send_bytes(owner.get(), bytes_of(load("28_subscription_target_gone")["messages"][1]));
        read_message(owner.get());
    }
    Ids ids(messages);
    bool ending = false;
    std::map<std::string, UniqueFd> connections;
    for (const json &entry : messages) {
        SCOPED_TRACE(entry.value("who", "") + ": " + entry.value("note", ""));
        std::string event = entry.value("event", "");
        // The owner that answered in these two is not there.
        if (event == "case" || entry["who"] == "raw#15" || entry["who"] == "raw#17")
            continue;
        UniqueFd &fd = connections[entry["who"]];
        if (!fd) {
            fd = make_socket(path, false);
            if (!entry.value("hex", "").starts_with("0000"))
                read_message(fd.get()); // a greeting that was left out
        }
        if (event == "nothing") {
            EXPECT_FALSE(readable(fd.get(), 150));
        } else if (event == "half-close") {
            shutdown(fd.get(), SHUT_WR);
        } else if (event == "close" && to_bus(entry)) {
            EXPECT_FALSE(readable(fd.get(), 0));
            fd = UniqueFd();
        } else if (event == "close") {
            // In this one the bus ends first; a second signal would find no handler any more.
            if (GetParam() == "32_bus_terminates" && !std::exchange(ending, true))
                kill(bus.pid, SIGTERM);
            EXPECT_TRUE(ended(fd.get()));
        } else if (to_bus(entry)) {
            ASSERT_TRUE(send_bytes(fd.get(), ids.translate(bytes_of(entry))));
        } else {
            Bytes answer = read_message(fd.get());
            ASSERT_EQ(ids.translate(bytes_of(entry), answer), answer);
        }
    }
    for (auto &[who, fd] : connections)
        EXPECT_TRUE(!fd || !readable(fd.get(), 0) || ended(fd.get())) << who;
    if (!ending)
        kill(bus.pid, SIGTERM);
    EXPECT_EQ(bus.wait(), 0);
    EXPECT_FALSE(std::filesystem::exists(path));
}

// ---- The recorded bus against our clients ----

class ClientTest : public CaptureTest {
  protected:
    static void start_command(Program &program, const json &command, const std::string &socket) {
        int out[2], err[2];
        termios raw{};
        cfmakeraw(&raw);
        program.command = &command;
        ASSERT_EQ(pipe2(out, O_CLOEXEC), 0);
        ASSERT_EQ(command["stderr_is_terminal"] ? openpty(&err[0], &err[1], nullptr, &raw, nullptr)
                                                : pipe2(err, O_CLOEXEC),
                  0);
        program.start([&] {
            std::vector<std::string> texts = command["argv"];
            texts.insert(texts.begin() + 1, {"-s", socket});
            std::vector<char *> argv(texts.size() + 1);
            std::ranges::transform(texts, argv.begin(), [](auto &text) { return text.data(); });
            dup2(out[1], STDOUT_FILENO);
            dup2(err[1], STDERR_FILENO);
            execv(UBUS_PROGRAM, argv.data());
        });
        program.out = UniqueFd(out[0]);
        program.err = UniqueFd(err[0]);
        close(out[1]);
        close(err[1]);
    }

    static void check_command(Program &program) {
        const json &command = *program.command;
        SCOPED_TRACE(command["argv"].dump());
        EXPECT_EQ(read_bytes(program.out.get(), SIZE_MAX), command["stdout"]);
        Bytes err = read_bytes(program.err.get(), SIZE_MAX);
        if (size_t usage = err.find("Usage: ubus ["); usage != Bytes::npos)
            err.replace(usage, Bytes::npos, "<usage text>\n");
        EXPECT_EQ(err, command["stderr"]);
        EXPECT_EQ(program.wait(), command["exit_status"]);
    }

    // Connects whoever `who` was; nobody if it was killed while being recorded.
    void start(Program &program, const std::string &who, int listener, bool greeted) const {
        for (const json &command : commands)
            if (command["connection"] == who)
                start_command(program, command, path);
        if (program.pid < 0)
            return;
        ASSERT_TRUE(readable(listener, patience));
        program.bus = UniqueFd(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
        if (!greeted)
            play_routine_exchange(program.bus.get());
    }

    // What later runs of the command-line client begin with is recorded for the first one only.
    void play_routine_exchange(int fd) const {
        for (const json &entry : messages) {
            Bytes bytes = bytes_of(entry);
            if (entry["who"] != "cli")
                continue;
            if (to_bus(entry) && ended(fd)) // its arguments were refused
                return;
            if (to_bus(entry))
                EXPECT_EQ(read_message(fd), bytes);
            else
                EXPECT_TRUE(send_bytes(fd, bytes));
            if (bytes[1] == UBUS_MSG_STATUS)
                return;
        }
    }
};

TEST_P(ClientTest, BehavesAsRecorded) {
    UniqueFd listener = make_socket(path, true);
    std::map<std::string, Program> programs;
    for (const json &entry : messages) {
        const std::string who = entry["who"];
        SCOPED_TRACE(who + ": " + entry.value("note", ""));
        auto [at, added] = programs.try_emplace(who);
        Program &program = at->second;
        if (added)
            start(program, who, listener.get(), entry.value("hex", "").starts_with("0000"));
        if (!program.bus)
            continue;
        Bytes bytes = bytes_of(entry);
        if (entry.contains("event")) {
            if (!to_bus(entry))
                program.bus = UniqueFd();
            check_command(program);
            EXPECT_TRUE(!to_bus(entry) || ended(program.bus.get()));
        } else if (to_bus(entry)) {
            ASSERT_EQ(read_bytes(program.bus.get(), bytes.size()), bytes);
        } else {
            ASSERT_TRUE(send_bytes(program.bus.get(), bytes));
        }
    }
    for (const json &command : commands) {
        if (!command.value("connection", json()).is_null())
            continue;
        Program program;
        start_command(program, command, directory + "/absent");
        check_command(program);
    }
}

// The recordings that hold something of that kind, "messages" or "commands".
std::vector<std::string> captures_with(const char *kind) {
    std::set<std::string> names;
    for (const auto &file : std::filesystem::directory_iterator(TEST_DATA "/captures"))
        if (!load(file.path().stem()).value(kind, json()).empty())
            names.insert(file.path().stem());
    return {names.begin(), names.end()};
}

std::string name_of(const testing::TestParamInfo<std::string> &info) {
    return info.param;
}

INSTANTIATE_TEST_SUITE_P(Captures, BusTest, testing::ValuesIn(captures_with("messages")), name_of);
INSTANTIATE_TEST_SUITE_P(Captures, ClientTest, testing::ValuesIn(captures_with("commands")),
                         name_of);

} // namespace
