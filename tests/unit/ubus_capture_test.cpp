// Repeats recordings of the bus's real programs with the stand-ins: our command-line client and our
// client library talk to our bus daemon through the test, which compares every message of either
// side with the recorded one, byte for byte.
#include <deque>
#include <map>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <pty.h>
#include <set>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

#include "guards.h"
#include "harness.h"
#include "hex.h"
// The platform's headers define `fallthrough` and other common words: they come last.
extern "C" {
#include <libubus.h>
}
#include "wire.h"

namespace {

using json = nlohmann::json;
using harness::Bytes, harness::Process;
constexpr int PATIENCE = 5000; // milliseconds

json load(const std::string &name) {
    return json::parse(std::ifstream(TEST_DATA "/captures/" + name + ".json"));
}

uint32_t word_at(const Bytes &message, size_t at) {
    return static_cast<uint32_t>(blob_read_number_(message.data() + at, 4));
}

// A recorded message, or another event on a connection.
struct Entry {
    std::string who, note, event;
    bool to_bus;
    Bytes bytes;

    explicit Entry(const json &from)
        : who(from["who"]), note(from.value("note", "")), event(from.value("event", "message")),
          to_bus(from.value("dir", "") == "client>bus"), bytes(from_hex(from.value("hex", ""))) {}
    int type() const { return bytes.empty() ? -1 : bytes[1]; }
    uint16_t seq() const { return static_cast<uint16_t>(word_at(bytes, 0)); }
    uint32_t peer() const { return word_at(bytes, 4); }
    blob_attr *operator[](ubus_msg_attr id) {
        return wire::parse(reinterpret_cast<blob_attr *>(bytes.data() + sizeof(ubus_msghdr)),
                           bytes.size() - sizeof(ubus_msghdr))[id];
    }
};
using Entries = std::vector<Entry>;

// ---- Descriptors and processes ----

bool readable(const UniqueFd &fd, int milliseconds) {
    pollfd entry{fd.get(), POLLIN, 0};
    return poll(&entry, 1, milliseconds) > 0;
}

bool ended(const UniqueFd &fd) {
    char byte;
    return readable(fd, PATIENCE) && recv(fd.get(), &byte, 1, MSG_PEEK) <= 0;
}

// Fewer bytes at the end of the stream, or when nothing comes.
Bytes read_bytes(const UniqueFd &fd, size_t size) {
    Bytes bytes;
    char byte;
    while (bytes.size() < size && readable(fd, PATIENCE) && read(fd.get(), &byte, 1) == 1)
        bytes += byte;
    return bytes;
}

Bytes read_message(const UniqueFd &fd) {
    Bytes message = read_bytes(fd, sizeof(wire::Head));
    if (message.size() == sizeof(wire::Head))
        message += read_bytes(fd, word_at(message, 8) - sizeof(blob_attr));
    return message;
}

bool send_bytes(const UniqueFd &fd, const Bytes &bytes) {
    return send(fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
}

using SocketCall = int (*)(int, const sockaddr *, socklen_t); // bind or connect

UniqueFd make_socket(const std::string &path, SocketCall take_address) {
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{AF_UNIX, {}};
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const auto *generic = reinterpret_cast<sockaddr *>(&address);
    return take_address(fd.get(), generic, sizeof(address)) == 0 ? std::move(fd) : UniqueFd();
}

// A process that does not outlive the test.
struct Program {
    pid_t pid = -1;

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
        if (pid > 0)
            waitpid(std::exchange(pid, -1), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    int end(int number = SIGTERM) {
        if (pid > 0)
            kill(pid, number);
        return wait();
    }
    ~Program() { end(SIGKILL); }
};

// A run of the command-line client.
class Command {
    const json &recorded_;
    Program program_;
    UniqueFd out_, err_;

  public:
    Command(const json &recorded, const std::string &socket) : recorded_(recorded) {
        int out[2], err[2];
        termios raw{};
        cfmakeraw(&raw);
        const bool is_terminal = recorded["stderr_is_terminal"];
        EXPECT_EQ(pipe(out), 0);
        EXPECT_EQ(is_terminal ? openpty(&err[0], &err[1], nullptr, &raw, nullptr) : pipe(err), 0);
        std::vector<std::string> texts = recorded["argv"];
        texts.insert(texts.begin() + 1, {"-s", socket});
        std::vector<char *> argv(texts.size() + 1);
        std::ranges::transform(texts, argv.begin(), [](auto &text) { return text.data(); });
        program_.start([&] {
            dup2(out[1], STDOUT_FILENO);
            dup2(err[1], STDERR_FILENO);
            execv(UBUS_PROGRAM, argv.data());
        });
        out_ = UniqueFd(out[0]);
        err_ = UniqueFd(err[0]);
        close(out[1]);
        close(err[1]);
    }
    void expect_end() {
        SCOPED_TRACE(recorded_["argv"].dump());
        EXPECT_EQ(read_bytes(out_, SIZE_MAX), recorded_["stdout"]);
        Bytes err = read_bytes(err_, SIZE_MAX);
        if (const size_t usage = err.find("Usage: ubus ["); usage != Bytes::npos)
            err.replace(usage, Bytes::npos, "<usage text>\n");
        EXPECT_EQ(err, recorded_["stderr"]);
        EXPECT_EQ(program_.wait(), recorded_["exit_status"]);
    }
};

// ---- The library, driven to do what a recorded program did with it ----

struct Answer {
    std::vector<blob_attr *> data;
    std::optional<int> status; // none: the answer never came
};

std::map<std::pair<uint32_t, uint16_t>, Answer> answers; // by peer and seq of the call

int play_answer(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *method,
                blob_attr *msg) {
    static const std::set<std::string> deferring{"add", "remove", "set_config"};
    const auto found = answers.find({req->peer, req->seq});
    if (found == answers.end()) // for messages of the test's own, which are echoed
        return ubus_send_reply(ctx, req, msg);
    auto &[data, status] = found->second;
    ubus_request_data later{};
    if (!status || deferring.contains(method)) {
        ubus_defer_request(ctx, req, &later);
        req = &later;
    }
    for (blob_attr *each : data)
        ubus_send_reply(ctx, req, each);
    if (req == &later && status)
        ubus_complete_deferred_request(ctx, req, *status);
    return status.value_or(UBUS_STATUS_OK); // of no consequence for a deferred call
}

// The object that a recorded ADD_OBJECT registers.
struct PlayedObject {
    ubus_object object{};
    ubus_object_type type{};
    std::vector<ubus_method> methods;
    std::deque<std::vector<blobmsg_policy>> policies;

    explicit PlayedObject(Entry &entry) {
        blob_attr *method, *argument;
        size_t rem, inner;
        blob_for_each_attr(method, entry[UBUS_ATTR_SIGNATURE], rem) {
            auto &policy = policies.emplace_back();
            blobmsg_for_each_attr(argument, method, inner)
                policy.push_back({blobmsg_name(argument),
                                  static_cast<enum blobmsg_type>(blobmsg_get_u32(argument))});
            methods.push_back({blobmsg_name(method), play_answer, 0, 0, policy.data(),
                               static_cast<int>(policy.size())});
        }
        object.name = type.name = wire::text(entry[UBUS_ATTR_OBJPATH]);
        object.type = &type;
        object.methods = type.methods = methods.data();
        object.n_methods = type.n_methods = static_cast<int>(methods.size());
    }
};

void repeat_request(ubus_context *ctx, Entry &entry) {
    static std::deque<PlayedObject> objects;
    static ubus_subscriber subscriber;
    if (entry.type() == UBUS_MSG_REMOVE_OBJECT)
        ubus_remove_object(ctx, &objects.back().object);
    else if (entry.type() == UBUS_MSG_NOTIFY)
        ubus_notify(ctx, &objects.back().object, wire::text(entry[UBUS_ATTR_METHOD]),
                    entry[UBUS_ATTR_DATA], entry[UBUS_ATTR_NO_REPLY] ? -1 : PATIENCE);
    else if (entry[UBUS_ATTR_OBJPATH])
        ubus_add_object(ctx, &objects.emplace_back(entry).object);
    else
        ubus_register_subscriber(ctx, &subscriber);
}

// Does what the recorded client `who` did, and ends with its connection.
[[noreturn]] void drive_library(const std::string &path, Entries &entries, const std::string &who) {
    std::vector<Entry *> requests;
    for (Entry &entry : entries) {
        if (entry.who != who || !entry.to_bus || entry.event != "message")
            continue;
        Answer &answer = answers[{entry.peer(), entry.seq()}];
        if (entry.type() == UBUS_MSG_DATA)
            answer.data.push_back(entry[UBUS_ATTR_DATA]);
        else if (entry.type() == UBUS_MSG_STATUS)
            answer.status = static_cast<int>(wire::number(entry[UBUS_ATTR_STATUS]));
        else
            requests.push_back(&entry);
    }
    ubus_context *ctx = ubus_connect(path.c_str());
    for (Entry *entry : requests)
        repeat_request(ctx, *entry);
    ctx->connection_lost = [](ubus_context *) { uloop_end(); };
    ubus_add_uloop(ctx);
    uloop_run();
    _exit(0);
}

// ---- The bus daemon ----

// Ids are random. Each recorded one stands for the live one that is found first in its place.
class Ids {
    std::set<uint32_t> recorded_;
    std::map<uint32_t, uint32_t> live_;

  public:
    explicit Ids(Entries &entries) {
        for (Entry &entry : entries) {
            if (entry.to_bus)
                continue;
            if (entry.type() == UBUS_MSG_HELLO || entry.type() == UBUS_MSG_INVOKE)
                recorded_.insert(entry.peer());
            for (const auto id : {UBUS_ATTR_OBJID, UBUS_ATTR_OBJTYPE})
                if (entry.type() == UBUS_MSG_DATA)
                    recorded_.insert(wire::number(entry[id]));
        }
        recorded_.erase(0);
    }
    // The recorded message with live ids; those not known yet are learned from `answer`.
    Bytes translate(Bytes message, const Bytes &answer = {}) {
        for (size_t at = 4; at + 4 <= message.size(); at += 4) {
            const uint32_t id = word_at(message, at);
            if (!recorded_.contains(id))
                continue;
            if (at + 4 <= answer.size() && word_at(answer, at) >= UBUS_SYSTEM_OBJECT_MAX)
                live_.try_emplace(id, word_at(answer, at));
            const uint32_t word = cpu_to_be32(live_[id]);
            message.replace(at, 4, reinterpret_cast<const char *>(&word), 4);
        }
        return message;
    }
};

// ---- The player ----

// A recorded connection. Clients know recorded ids only, the bus live ones only.
struct Connection {
    UniqueFd bus, client;           // no client: the test itself plays it
    std::optional<Command> command; // what the client is, if it is no program around the library
    Program program;
};

class Capture : public harness::SystemTest, public testing::WithParamInterface<std::string> {
  protected:
    const std::string bus_path = "/tmp/bus", path = "/tmp/relay"; // where clients find the test
    const json capture = load(GetParam());
    const json messages = capture.value("messages", json::array());
    const json commands = capture.value("commands", json::array());
    Entries entries{messages.begin(), messages.end()};
    Ids ids{entries};
    std::optional<Process> bus;
    Program owner;
    UniqueFd listener;
    std::map<std::string, Connection> connections;

    void SetUp() override {
        if (mkdir("/dev/pts", 0755) == 0)
            harness::run("mount -t devpts -o newinstance,ptmxmode=666 devpts /dev/pts && "
                         "ln -s pts/ptmx /dev/ptmx");
        bus.emplace(UBUSD_PROGRAM, std::vector<std::string>{"-s", bus_path});
        ASSERT_TRUE(harness::eventually([this] { return !!make_socket(bus_path, connect); }));
        unlink(path.c_str());
        listener = make_socket(path, bind);
        ASSERT_EQ(listen(listener.get(), 8), 0);
    }
    void TearDown() override {
        for (const auto &[who, connection] : connections)
            EXPECT_TRUE(!connection.bus || !readable(connection.bus, 0) || ended(connection.bus))
                << who;
        EXPECT_EQ(end_bus(), 0);
        EXPECT_NE(access(bus_path.c_str(), F_OK), 0);
    }

    int end_bus() {
        if (bus->running())
            bus->signal(SIGTERM);
        return bus->wait();
    }

    // Connects what `who` was: nobody for hand-made messages, or if it was killed while recorded.
    void start(Connection &connection, const std::string &who) {
        connection.bus = make_socket(bus_path, connect);
        for (const json &command : commands)
            if (command["connection"] == who)
                connection.command.emplace(command, path);
        if (who == "owner" || who == "second")
            connection.program.start([&] { drive_library(path, entries, who); });
        else if (!connection.command)
            return;
        ASSERT_TRUE(readable(listener, PATIENCE));
        connection.client = UniqueFd(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    }

    void relay(const Connection &connection, const Entry &entry) {
        if (entry.to_bus) {
            const Bytes sent = connection.client ? read_message(connection.client) : entry.bytes;
            ASSERT_EQ(sent, entry.bytes);
            ASSERT_TRUE(send_bytes(connection.bus, ids.translate(entry.bytes)));
        } else {
            const Bytes message = read_message(connection.bus);
            ASSERT_EQ(ids.translate(entry.bytes, message), message);
            ASSERT_TRUE(!connection.client || send_bytes(connection.client, entry.bytes));
        }
    }

    // A greeting, with an id of its own, and a look-up: recorded for the client's first run only.
    void relay_beginning(const Connection &connection) {
        ASSERT_TRUE(send_bytes(connection.client, read_message(connection.bus)));
        const auto greeting = std::ranges::find(entries, "cli", &Entry::who);
        for (auto entry = greeting + 1; entry != greeting + 4; ++entry) {
            if (entry->to_bus && ended(connection.client)) // its arguments were rejected
                return;
            relay(connection, *entry);
        }
    }

    void close(Connection &connection, bool by_client) {
        EXPECT_EQ(GetParam() == "32_bus_terminates" ? end_bus() : 0, 0);
        if (!by_client || !connection.command)
            shutdown(connection.client.get(), SHUT_RDWR); // which ends a program around the library
        if (connection.command)
            connection.command->expect_end();
        EXPECT_EQ(connection.program.wait(), 0);
        EXPECT_TRUE(by_client ? !readable(connection.bus, 0) : ended(connection.bus));
        connection.bus = UniqueFd();
    }
};

TEST_P(Capture, IsRepeated) {
    if (GetParam() == "33_raw_bus_answers") { // its objects are another recording's
        owner.start([this] {
            Entries registration{Entry(load("28_subscription_target_gone")["messages"][1])};
            drive_library(bus_path, registration, "owner");
        });
        harness::run(UBUS_PROGRAM " -s " + bus_path + " wait_for probe");
    }
    for (const Entry &entry : entries) {
        SCOPED_TRACE(entry.who + ": " + entry.note);
        const auto [at, is_new] = connections.try_emplace(entry.who);
        Connection &connection = at->second;
        if (is_new)
            start(connection, entry.who);
        if (is_new && entry.who.starts_with("cli#") && capture.contains("messages_omitted"))
            relay_beginning(connection);
        if (entry.event == "message")
            relay(connection, entry);
        if (entry.event == "close")
            close(connection, entry.to_bus);
        if (entry.event == "half-close")
            shutdown(connection.bus.get(), SHUT_WR);
        EXPECT_FALSE(entry.event == "nothing" && readable(connection.bus, 150));
        if (HasFatalFailure())
            return;
    }
    for (const json &command : commands)
        if (command.value("connection", json()).is_null())
            Command(command, "/tmp/absent").expect_end();
}

std::vector<std::string> all_captures() {
    std::vector<std::string> names;
    for (const auto &file : std::filesystem::directory_iterator(TEST_DATA "/captures"))
        if (file.path().stem() != "34_blobmsg_vectors") // no messages at all
            names.push_back(file.path().stem());
    return names;
}

INSTANTIATE_TEST_SUITE_P(Bus, Capture, testing::ValuesIn(all_captures()),
                         [](const auto &instance) { return instance.param; });

} // namespace
