// Plays recordings of the bus's real programs against the stand-ins, byte for byte: the recorded
// clients to our bus daemon, and the recorded bus to our command-line client and client library.
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
    std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();

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

// ---- The library, driven to do what a recorded program did with it ----

struct Answer {
    std::vector<Bytes> data;
    std::optional<int> status; // none: the answer never came
};

struct Script {
    std::map<std::pair<uint32_t, uint16_t>, Answer> answers; // by peer and seq of the call
    std::deque<ubus_object> objects;
    std::deque<ubus_object_type> types;
    std::deque<std::vector<ubus_method>> methods;
    std::deque<std::vector<blobmsg_policy>> policies;
    std::deque<Bytes> recorded; // what names and requests point into
} script;

struct DeferredCall {
    uloop_timeout timer;
    ubus_context *ctx;
    ubus_request_data req;
    Answer *answer;
};

void send_data(ubus_context *ctx, ubus_request_data *req, Answer &answer) {
    for (Bytes &data : answer.data)
        ubus_send_reply(ctx, req, reinterpret_cast<blob_attr *>(data.data()));
}

int play_answer(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *method,
                blob_attr *msg) {
    static const std::set<std::string> deferring{"add", "remove", "set_config"};
    static std::deque<DeferredCall> deferred;
    auto found = script.answers.find({req->peer, req->seq});
    if (found == script.answers.end() || strcmp(method, "echo") == 0)
        return ubus_send_reply(ctx, req, msg);
    Answer &answer = found->second;
    if (!deferring.contains(method)) {
        send_data(ctx, req, answer);
        return *answer.status;
    }
    DeferredCall &call = deferred.emplace_back(DeferredCall{{}, ctx, {}, &answer});
    ubus_defer_request(ctx, req, &call.req);
    call.timer.cb = [](uloop_timeout *timer) {
        auto *due = container_of(timer, DeferredCall, timer);
        send_data(due->ctx, &due->req, *due->answer);
        ubus_complete_deferred_request(due->ctx, &due->req, *due->answer->status);
    };
    if (answer.status)
        uloop_timeout_set(&call.timer, 50);
    return UBUS_STATUS_UNKNOWN_ERROR; // of no consequence
}

// The object that a recorded ADD_OBJECT registers.
ubus_object *make_object(const wire::Attributes &found) {
    auto &methods = script.methods.emplace_back();
    blob_attr *method, *argument;
    size_t rem, inner;
    blob_for_each_attr(method, found[UBUS_ATTR_SIGNATURE], rem) {
        auto &policy = script.policies.emplace_back();
        blobmsg_for_each_attr(argument, method, inner) policy.push_back(
            {blobmsg_name(argument), static_cast<enum blobmsg_type>(blobmsg_get_u32(argument))});
        int count = static_cast<int>(policy.size());
        methods.push_back({blobmsg_name(method), play_answer, 0, 0, policy.data(), count});
    }
    const char *name = wire::text(found[UBUS_ATTR_OBJPATH]);
    int count = static_cast<int>(methods.size());
    auto &type = script.types.emplace_back(ubus_object_type{name, 0, methods.data(), count});
    ubus_object &object = script.objects.emplace_back();
    object.name = name;
    object.type = &type;
    object.methods = type.methods;
    object.n_methods = type.n_methods;
    return &object;
}

// Repeats a request of a recorded client; the library's status of it.
int repeat_request(ubus_context *ctx, const Bytes &message, const wire::Attributes &found) {
    static ubus_subscriber subscriber;
    switch (message[1]) {
    case UBUS_MSG_REMOVE_OBJECT:
        return ubus_remove_object(ctx, &script.objects.back());
    case UBUS_MSG_NOTIFY:
        return ubus_notify(ctx, &script.objects.back(), wire::text(found[UBUS_ATTR_METHOD]),
                           found[UBUS_ATTR_DATA], found[UBUS_ATTR_NO_REPLY] ? -1 : patience);
    default:
        return found[UBUS_ATTR_OBJPATH] ? ubus_add_object(ctx, make_object(found))
                                        : ubus_register_subscriber(ctx, &subscriber);
    }
}

// Does what the recorded client `who` did, until told to end. Returns the number of requests that
// did not end as recorded.
int drive_library(const std::string &path, const json &messages, const std::string &who) {
    // A signal that comes before uloop_run() would be lost on uloop's own handler.
    static volatile sig_atomic_t asked_to_end;
    signal(SIGTERM, [](int) { asked_to_end = 1; });
    std::map<uint16_t, int> statuses; // of the client's own requests
    std::vector<Bytes *> requests;
    for (const json &entry : messages) {
        if (entry["who"] != who || !entry.contains("hex"))
            continue;
        Bytes &message = script.recorded.emplace_back(bytes_of(entry));
        wire::Attributes found = attributes_of(message);
        auto seq = static_cast<uint16_t>(word_at(message, 0));
        auto status = static_cast<int>(wire::number(found[UBUS_ATTR_STATUS]));
        Answer &answer = script.answers[{word_at(message, 4), seq}];
        if (!to_bus(entry))
            statuses[seq] = status; // the last one is STATUS
        else if (message[1] == UBUS_MSG_DATA)
            answer.data.emplace_back(reinterpret_cast<char *>(found[UBUS_ATTR_DATA]),
                                     blob_pad_len(found[UBUS_ATTR_DATA]));
        else if (message[1] == UBUS_MSG_STATUS)
            answer.status = status;
        else
            requests.push_back(&message);
    }
    ubus_context *ctx = ubus_connect(path.c_str());
    int mistakes = !ctx;
    for (Bytes *message : requests) {
        auto seq = static_cast<uint16_t>(word_at(*message, 0));
        mistakes += repeat_request(ctx, *message, attributes_of(*message)) != statuses[seq];
    }
    ubus_add_uloop(ctx);
    while (!asked_to_end)
        uloop_run_timeout(10);
    ubus_free(ctx);
    uloop_done();
    return mistakes;
}

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
    Program bus, owner;
    bus.start([this] {
        become_root();
        execl(UBUSD_PROGRAM, "ubusd", "-s", path.c_str(), nullptr);
    });
    for (int i = 0; i < patience && !make_socket(path, false); i++)
        usleep(1000);
    if (GetParam() == "33_raw_bus_answers") { // its objects are another recording's
        owner.start([this] {
            json registration = json::array();
            registration.push_back(load("28_subscription_target_gone")["messages"][1]);
            _exit(drive_library(path, registration, "owner"));
        });
        usleep(300000);
    }
    Ids ids(messages);
    bool ending = false;
    std::map<std::string, UniqueFd> connections;
    for (const json &entry : messages) {
        SCOPED_TRACE(entry.value("who", "") + ": " + entry.value("note", ""));
        std::string event = entry.value("event", "");
        if (event == "case")
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
        // Only the client's own limits are kept: our owner answers deferred calls sooner.
        std::chrono::duration<double, std::milli> took =
            std::chrono::steady_clock::now() - program.started;
        bool limited = command["argv"].size() > 1 && command["argv"][1] == "-t" &&
                       command["elapsed_ms"] >= 1000;
        EXPECT_GE(took.count(), limited ? command.value("elapsed_ms", 0.0) * 0.9 : 0.0);
    }

    // Connects whoever `who` was; nobody if it was killed while being recorded.
    void start(Program &program, const std::string &who, int listener, bool greeted) const {
        for (const json &command : commands)
            if (command["connection"] == who)
                start_command(program, command, path);
        if (who == "owner" || who == "second")
            program.start([&] { _exit(drive_library(path, messages, who)); });
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

    void play_close(Program &program, bool by_client) const {
        if (!by_client)
            program.bus = UniqueFd();
        if (program.command) {
            check_command(program);
        } else {
            if (!by_client) { // a program goes on without the bus
                usleep(200000);
                EXPECT_EQ(waitpid(program.pid, nullptr, WNOHANG), 0);
            }
            kill(program.pid, SIGTERM);
            EXPECT_EQ(program.wait(), 0);
        }
        EXPECT_TRUE(!by_client || ended(program.bus.get()));
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
        if (entry.contains("event"))
            play_close(program, to_bus(entry));
        else if (to_bus(entry))
            ASSERT_EQ(read_bytes(program.bus.get(), bytes.size()), bytes);
        else
            ASSERT_TRUE(send_bytes(program.bus.get(), bytes));
    }
    for (const json &command : commands) {
        if (!command.value("connection", json()).is_null())
            continue;
        Program program;
        start_command(program, command, directory + "/absent");
        check_command(program);
    }
}

struct LeftOut {
    const char *name, *reason;
    bool bus, clients;
};
constexpr LeftOut left_out[] = {
    {"30_no_bus", "there is no bus", true, false},
    {"33_raw_bus_answers", "hand-made messages, which no program sends", false, true},
    {"34_blobmsg_vectors", "no messages at all", true, true},
};

std::vector<std::string> captures_without(bool LeftOut::*side) {
    std::set<std::string> names;
    for (const auto &file : std::filesystem::directory_iterator(TEST_DATA "/captures"))
        names.insert(file.path().stem());
    for (const LeftOut &out : left_out)
        if (out.*side)
            names.erase(out.name);
    return {names.begin(), names.end()};
}

std::string name_of(const testing::TestParamInfo<std::string> &info) {
    return info.param;
}

INSTANTIATE_TEST_SUITE_P(Captures, BusTest, testing::ValuesIn(captures_without(&LeftOut::bus)),
                         name_of);
INSTANTIATE_TEST_SUITE_P(Captures, ClientTest,
                         testing::ValuesIn(captures_without(&LeftOut::clients)), name_of);

} // namespace
