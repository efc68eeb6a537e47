// Plays recordings of the bus's real programs against the stand-ins, byte for byte. The recorded
// clients are played to our bus daemon; the recorded bus is played to our command-line client and
// to our client library.
#include <chrono>
#include <csignal>
#include <deque>
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
    std::ifstream file(TEST_DATA "/captures/" + name + ".json");
    return json::parse(file);
}

std::string hex(const Bytes &bytes) {
    std::string text;
    for (unsigned char byte : bytes) {
        text += "0123456789abcdef"[byte >> 4];
        text += "0123456789abcdef"[byte & 15];
    }
    return text;
}

Bytes unhex(const std::string &text) {
    Bytes bytes;
    for (size_t i = 0; i + 1 < text.size(); i += 2)
        bytes += (char)std::stoi(text.substr(i, 2), nullptr, 16);
    return bytes;
}

Bytes bytes_of(const json &entry) {
    return unhex(entry.value("hex", ""));
}

bool to_bus(const json &entry) {
    return entry.value("dir", "") == "client>bus";
}

wire::Attributes attributes_of(Bytes &message) {
    return wire::parse(reinterpret_cast<blob_attr *>(message.data() + sizeof(ubus_msghdr)),
                       message.size() - sizeof(ubus_msghdr));
}

uint32_t word_at(const Bytes &bytes, size_t at) {
    uint32_t word = 0;
    memcpy(&word, bytes.data() + at, sizeof(word));
    return be32_to_cpu(word);
}

bool readable(int fd, int milliseconds) {
    pollfd entry{fd, POLLIN, 0};
    return poll(&entry, 1, milliseconds) > 0;
}

// Fewer bytes at the end of the stream or when nothing comes.
Bytes read_bytes(int fd, size_t size) {
    Bytes bytes(size, '\0');
    size_t have = 0;
    while (have < size && readable(fd, patience)) {
        ssize_t got = read(fd, bytes.data() + have, size - have);
        if (got <= 0)
            break;
        have += (size_t)got;
    }
    bytes.resize(have);
    return bytes;
}

Bytes read_message(int fd) {
    Bytes message = read_bytes(fd, sizeof(wire::Head));
    if (message.size() == sizeof(wire::Head))
        message += read_bytes(fd, word_at(message, 8) - sizeof(blob_attr));
    return message;
}

bool ended(int fd) {
    char byte;
    return readable(fd, patience) && recv(fd, &byte, 1, MSG_PEEK) <= 0;
}

UniqueFd make_socket(const std::string &path, bool listening) {
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    auto *generic = reinterpret_cast<sockaddr *>(&address);
    bool done = listening ? bind(fd.get(), generic, sizeof(address)) == 0 && !listen(fd.get(), 8)
                          : connect(fd.get(), generic, sizeof(address)) == 0;
    return done ? std::move(fd) : UniqueFd();
}

// A child, which does not outlive its owner.
class Child {
    pid_t pid_ = -1;

  public:
    Child() = default;
    explicit Child(const std::function<void()> &body) : pid_(fork()) {
        if (pid_ == 0) {
            try {
                body();
            } catch (...) { // must not become a second test program
            }
            _exit(127);
        }
    }
    Child(Child &&other) noexcept : pid_(std::exchange(other.pid_, -1)) {}
    Child &operator=(Child &&other) noexcept {
        std::swap(pid_, other.pid_);
        return *this;
    }
    ~Child() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL); // a test failed
            wait();
        }
    }
    bool running() const {
        siginfo_t info{};
        return waitid(P_PID, (id_t)pid_, &info, WEXITED | WNOHANG | WNOWAIT) == 0 && !info.si_pid;
    }
    void end() const { kill(pid_, SIGTERM); }
    // The exit status, or 128 + signal.
    int wait() {
        int status = 0;
        waitpid(std::exchange(pid_, -1), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
};

// The names of accounts in the recordings are those of root. Who is somebody else lets the bus see
// its clients as root.
void become_root() {
    uid_t uid = geteuid();
    gid_t gid = getegid();
    if (uid == 0 || unshare(CLONE_NEWUSER) != 0)
        return;
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << "0 " << uid << " 1";
    std::ofstream("/proc/self/gid_map") << "0 " << gid << " 1";
}

class CaptureTest : public testing::TestWithParam<std::string> {
  protected:
    std::filesystem::path directory;
    std::string path;
    json capture;
    json commands;

    void SetUp() override {
        std::string name = testing::TempDir() + "ubus.XXXXXX";
        directory = mkdtemp(name.data());
        path = directory / "bus";
        capture = load(GetParam());
        commands = capture.value("commands", json::array());
    }
    void TearDown() override { std::filesystem::remove_all(directory); }
};

// ---- The library, driven by what a recorded program did with it ----

struct Answer {
    std::vector<Bytes> data;
    std::optional<int> status;
    int asked = 0; // when, in milliseconds
    bool deferred = false;
};

struct Script {
    std::map<std::pair<uint32_t, uint16_t>, Answer> answers; // by peer and seq of the call
    std::deque<ubus_object> objects;
    std::deque<ubus_object_type> types;
    std::deque<std::vector<ubus_method>> methods;
    std::deque<std::vector<blobmsg_policy>> policies;
    std::deque<Bytes> messages; // what names and replies point into
};
Script script;

struct Deferred {
    uloop_timeout timer;
    ubus_context *ctx;
    ubus_request_data req;
    const Answer *answer;
};

void send_data(ubus_context *ctx, ubus_request_data *req, const Answer &answer) {
    for (const Bytes &data : answer.data) {
        Bytes copy = data;
        ubus_send_reply(ctx, req, reinterpret_cast<blob_attr *>(copy.data()));
    }
}

int play_answer(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *method,
                blob_attr *msg) {
    static const Answer empty{{Bytes("\0\0\0\4", 4)}, 0, 0, false};
    auto found = script.answers.find({req->peer, req->seq});
    const Answer &answer = found == script.answers.end() ? empty : found->second;
    if (answer.status && !answer.deferred) {
        if (strcmp(method, "echo") == 0)
            ubus_send_reply(ctx, req, msg);
        else
            send_data(ctx, req, answer);
        return *answer.status;
    }
    static std::deque<Deferred> deferred;
    Deferred &call = deferred.emplace_back(Deferred{{}, ctx, {}, &answer});
    ubus_defer_request(ctx, req, &call.req);
    call.timer.cb = [](uloop_timeout *timer) {
        auto *due = container_of(timer, Deferred, timer);
        send_data(due->ctx, &due->req, *due->answer);
        ubus_complete_deferred_request(due->ctx, &due->req, *due->answer->status);
    };
    if (answer.status)
        uloop_timeout_set(&call.timer, 50);
    return UBUS_STATUS_UNKNOWN_ERROR; // of no consequence
}

// The object that a recorded ADD_OBJECT registers.
ubus_object *make_object(wire::Attributes &found) {
    auto &methods = script.methods.emplace_back();
    blob_attr *method;
    blob_attr *argument;
    size_t rem;
    size_t inner;
    blob_for_each_attr(method, found[UBUS_ATTR_SIGNATURE], rem) {
        auto &policy = script.policies.emplace_back();
        blobmsg_for_each_attr(argument, method, inner) policy.push_back(
            {blobmsg_name(argument), static_cast<enum blobmsg_type>(blobmsg_get_u32(argument))});
        methods.push_back(
            {blobmsg_name(method), play_answer, 0, 0, policy.data(), (int)policy.size()});
    }
    const char *name = wire::text(found[UBUS_ATTR_OBJPATH]);
    auto &type =
        script.types.emplace_back(ubus_object_type{name, 0, methods.data(), (int)methods.size()});
    ubus_object &object = script.objects.emplace_back();
    object.name = name;
    object.type = &type;
    object.methods = type.methods;
    object.n_methods = type.n_methods;
    return &object;
}

// Does what the recorded client `who` did until told to end. Returns the number of mistakes.
int drive_library(const std::string &path, const json &messages, const std::string &who) {
    // A signal that comes before uloop_run() would be lost on uloop's own handler.
    static volatile sig_atomic_t asked_to_end;
    signal(SIGTERM, [](int) { asked_to_end = 1; });
    ubus_context *ctx = ubus_connect(path.c_str());
    if (!ctx)
        return 100;
    int mistakes = 0;
    std::map<uint16_t, int> statuses; // of the client's own requests
    std::vector<Bytes *> requests;
    for (const json &entry : messages) {
        if (entry["who"] != who || !entry.contains("hex"))
            continue;
        Bytes &message = script.messages.emplace_back(bytes_of(entry));
        const json &decoded = entry["decoded"];
        int type = decoded["type"];
        uint16_t seq = decoded["seq"];
        wire::Attributes found = attributes_of(message);
        Answer &answer = script.answers[{word_at(message, 4), seq}];
        if (type == UBUS_MSG_INVOKE)
            answer.asked = entry.value("t_ms", 0);
        else if (to_bus(entry) && type == UBUS_MSG_DATA)
            answer.data.emplace_back(reinterpret_cast<char *>(found[UBUS_ATTR_DATA]),
                                     blob_pad_len(found[UBUS_ATTR_DATA]));
        else if (to_bus(entry) && type == UBUS_MSG_STATUS) {
            answer.status = (int)wire::number(found[UBUS_ATTR_STATUS]);
            answer.deferred = entry.value("t_ms", 0) > answer.asked + 500;
        } else if (to_bus(entry))
            requests.push_back(&message);
        else if (type == UBUS_MSG_STATUS)
            statuses[seq] = (int)wire::number(found[UBUS_ATTR_STATUS]);
    }
    ubus_subscriber subscriber{};
    for (Bytes *message : requests) {
        wire::Attributes found = attributes_of(*message);
        uint16_t seq = (uint16_t)word_at(*message, 0);
        const blob_attr *no_reply = found[UBUS_ATTR_NO_REPLY];
        int status = 101;
        if ((*message)[1] == UBUS_MSG_REMOVE_OBJECT)
            status = ubus_remove_object(ctx, &script.objects.back());
        else if ((*message)[1] == UBUS_MSG_NOTIFY)
            status = ubus_notify(ctx, &script.objects.back(), wire::text(found[UBUS_ATTR_METHOD]),
                                 found[UBUS_ATTR_DATA], no_reply ? -1 : patience);
        else if (found[UBUS_ATTR_OBJPATH])
            status = ubus_add_object(ctx, make_object(found));
        else
            status = ubus_register_subscriber(ctx, &subscriber);
        mistakes += status != statuses[seq];
    }
    ubus_add_uloop(ctx);
    while (!asked_to_end)
        uloop_run_timeout(10);
    ubus_free(ctx);
    uloop_done();
    return mistakes;
}

// ---- Recorded clients against our bus daemon ----

// Ids are random. Each recorded one stands for the live one found in its place first.
class Ids {
    std::set<uint32_t> recorded_;
    std::map<uint32_t, uint32_t> live_;
    std::set<uint32_t> taken_;

  public:
    explicit Ids(const json &messages) {
        for (const json &entry : messages) {
            if (to_bus(entry) || !entry.contains("decoded"))
                continue;
            Bytes message = bytes_of(entry);
            wire::Attributes found = attributes_of(message);
            if (message[1] == UBUS_MSG_HELLO || message[1] == UBUS_MSG_INVOKE)
                recorded_.insert(word_at(message, 4));
            if (message[1] == UBUS_MSG_DATA || message[1] == UBUS_MSG_INVOKE)
                recorded_.insert(
                    {wire::number(found[UBUS_ATTR_OBJID]), wire::number(found[UBUS_ATTR_OBJTYPE])});
        }
        recorded_.erase(0);
    }
    // `recorded` with live ids, as far as known; those not known yet are learned from `live`.
    Bytes translate(const Bytes &recorded, const Bytes &live = {}) {
        Bytes bytes = recorded;
        for (size_t at = 4; at + 4 <= bytes.size(); at += 4) {
            uint32_t id = word_at(bytes, at);
            if (!recorded_.contains(id))
                continue;
            if (!live_.contains(id) && at + 4 <= live.size() &&
                word_at(live, at) >= UBUS_SYSTEM_OBJECT_MAX &&
                taken_.insert(word_at(live, at)).second)
                live_[id] = word_at(live, at);
            uint32_t word = cpu_to_be32(live_[id]);
            memcpy(bytes.data() + at, &word, sizeof(word));
        }
        return bytes;
    }
};

class BusTest : public CaptureTest {};

TEST_P(BusTest, AnswersAsRecorded) {
    Child bus([this] {
        become_root();
        execl(UBUSD_PROGRAM, "ubusd", "-s", path.c_str(), nullptr);
    });
    for (int i = 0; i < 500 && !make_socket(path, false); i++)
        usleep(10000);
    Child owner;
    if (GetParam() == "33_raw_bus_answers") { // played against a real owner of "probe"
        owner = Child([this] {
            const json first = load("27_subscribe_notify")["messages"];
            json registration(json::array());
            std::copy_n(first.begin(), 4, std::back_inserter(registration));
            _exit(drive_library(path, registration, "owner"));
        });
        usleep(300000);
    }
    Ids ids(capture["messages"]);
    std::map<std::string, UniqueFd> connections;
    for (const json &entry : capture["messages"]) {
        SCOPED_TRACE(entry.value("who", "") + ": " + entry.value("note", ""));
        std::string event = entry.value("event", "");
        if (event == "case")
            continue;
        UniqueFd &fd = connections[entry["who"]];
        if (!fd) {
            fd = make_socket(path, false);
            ASSERT_TRUE(fd);
            if (entry.value("hex", "").substr(0, 4) != "0000")
                read_message(fd.get()); // the greeting was left out
        }
        if (event == "nothing") {
            EXPECT_FALSE(readable(fd.get(), 150));
        } else if (event == "half-close") {
            shutdown(fd.get(), SHUT_WR);
        } else if (event == "close" && to_bus(entry)) {
            EXPECT_FALSE(readable(fd.get(), 0));
            fd = UniqueFd();
        } else if (event == "close") {
            if (capture.contains("owner_still_running_after_bus_end"))
                bus.end();
            EXPECT_TRUE(ended(fd.get()));
        } else if (to_bus(entry)) {
            Bytes bytes = ids.translate(bytes_of(entry));
            ASSERT_EQ(send(fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                      (ssize_t)bytes.size());
        } else {
            Bytes live = read_message(fd.get());
            ASSERT_EQ(hex(ids.translate(bytes_of(entry), live)), hex(live));
        }
    }
    for (auto &[who, fd] : connections)
        EXPECT_TRUE(!fd || !readable(fd.get(), 0) || ended(fd.get())) << who;
    bus.end();
    EXPECT_EQ(bus.wait(), 0);
    EXPECT_FALSE(std::filesystem::exists(path));
}

// ---- The recorded bus against our clients ----

struct Program {
    const json *command = nullptr; // null: not the command-line client
    Child child;
    UniqueFd out, err, bus;
    std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
};

Bytes read_all(int fd) {
    Bytes all;
    for (Bytes some; !(some = read_bytes(fd, 1)).empty();)
        all += some;
    return all;
}

class ClientTest : public CaptureTest {
  protected:
    static Program start_command(const json &command, const std::string &socket) {
        Program program;
        program.command = &command;
        int out[2];
        int err[2];
        EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
        if (command["stderr_is_terminal"]) {
            termios raw{};
            cfmakeraw(&raw);
            EXPECT_EQ(openpty(&err[0], &err[1], nullptr, &raw, nullptr), 0);
        } else {
            EXPECT_EQ(pipe2(err, O_CLOEXEC), 0);
        }
        program.child = Child([&] {
            std::vector<std::string> texts = command["argv"];
            texts.insert(texts.begin() + 1, {"-s", socket});
            std::vector<char *> argv;
            for (std::string &text : texts)
                argv.push_back(text.data());
            argv.push_back(nullptr);
            dup2(out[1], STDOUT_FILENO);
            dup2(err[1], STDERR_FILENO);
            execv(UBUS_PROGRAM, argv.data());
        });
        program.out = UniqueFd(out[0]);
        program.err = UniqueFd(err[0]);
        close(out[1]);
        close(err[1]);
        return program;
    }

    static void check_end(Program &program) {
        const json &command = *program.command;
        SCOPED_TRACE(command["argv"].dump());
        EXPECT_EQ(read_all(program.out.get()), command["stdout"]);
        Bytes err = read_all(program.err.get());
        size_t usage = err.find("Usage: ubus [");
        if (usage != Bytes::npos)
            err.replace(usage, Bytes::npos, "<usage text>\n");
        EXPECT_EQ(err, command["stderr"]);
        EXPECT_EQ(program.child.wait(), command["exit_status"]);
        std::chrono::duration<double, std::milli> took =
            std::chrono::steady_clock::now() - program.start;
        bool waited = command["argv"].size() > 1 && command["argv"][1] == "-t" &&
                      command["elapsed_ms"] >= 1000;
        EXPECT_GE(took.count(), waited ? (double)command["elapsed_ms"] - 50 : 0);
    }

    Program start(const std::string &who) const {
        for (const json &command : commands)
            if (command["connection"] == who)
                return start_command(command, path);
        Program program;
        if (who == "owner" || who == "second")
            program.child = Child([&] { _exit(drive_library(path, capture["messages"], who)); });
        return program;
    }

    // What every later call of the command-line client begins with is recorded once only.
    void play_routine_exchange(int fd) const {
        for (const json &entry : capture["messages"]) {
            if (entry["who"] != "cli")
                continue;
            Bytes bytes = bytes_of(entry);
            if (!to_bus(entry))
                EXPECT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL),
                          (ssize_t)bytes.size());
            else if (!ended(fd)) // arguments may be refused before
                EXPECT_EQ(hex(read_message(fd)), hex(bytes));
            else
                return;
            if (bytes[1] == UBUS_MSG_STATUS)
                return;
        }
    }
};

TEST_P(ClientTest, BehavesAsRecorded) {
    UniqueFd listener = make_socket(path, true);
    std::map<std::string, Program> programs;
    for (const json &entry : capture["messages"]) {
        const std::string who = entry["who"];
        SCOPED_TRACE(who + ": " + entry.value("note", ""));
        if (!programs.contains(who)) {
            Program &program = programs[who] = start(who);
            if (!program.command && who == "cli")
                continue;
            ASSERT_TRUE(readable(listener.get(), patience));
            program.bus = UniqueFd(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
            if (entry.value("hex", "").substr(0, 4) != "0000")
                play_routine_exchange(program.bus.get());
        }
        Program &program = programs[who];
        if (!program.bus)
            continue; // killed while it was recorded
        Bytes bytes = bytes_of(entry);
        if (entry.value("event", "") == "close") {
            if (!to_bus(entry))
                program.bus = UniqueFd();
            if (!program.command && capture.contains("owner_still_running_after_bus_end")) {
                usleep(200000);
                EXPECT_TRUE(program.child.running());
            }
            if (!program.command)
                program.child.end();
            EXPECT_TRUE(!to_bus(entry) || ended(program.bus.get()));
            if (program.command)
                check_end(program);
            else
                EXPECT_EQ(program.child.wait(), 0);
        } else if (to_bus(entry)) {
            ASSERT_EQ(hex(read_bytes(program.bus.get(), bytes.size())), hex(bytes));
        } else {
            ASSERT_EQ(send(program.bus.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                      (ssize_t)bytes.size());
        }
    }
    for (const json &command : commands) {
        if (!command.value("connection", json()).is_null())
            continue;
        Program program = start_command(command, directory / "absent");
        check_end(program);
    }
}

// Left out: recordings of one side only.
const std::map<std::string, const char *> without_bus{
    {"30_no_bus", "there is no bus"},
};
const std::map<std::string, const char *> without_clients{
    {"33_raw_bus_answers", "its messages are hand-made, no program sends them"},
};

std::vector<std::string> captures_except(const std::map<std::string, const char *> &left_out) {
    std::vector<std::string> names;
    for (const auto &file : std::filesystem::directory_iterator(TEST_DATA "/captures")) {
        std::string name = file.path().stem();
        if (!left_out.contains(name) && load(name).contains("messages"))
            names.push_back(name);
    }
    std::ranges::sort(names);
    return names;
}

std::string name_of(const testing::TestParamInfo<std::string> &info) {
    return info.param;
}

INSTANTIATE_TEST_SUITE_P(Captures, BusTest, testing::ValuesIn(captures_except(without_bus)),
                         name_of);
INSTANTIATE_TEST_SUITE_P(Captures, ClientTest, testing::ValuesIn(captures_except(without_clients)),
                         name_of);

} // namespace
