// Repeats recordings of the bus's real programs: our command-line client talks to our bus daemon
// through the test, which compares every message of either side with the recorded one, byte for
// byte. What other programs sent, the test sends itself. The texts that the client takes and prints
// are those of the messages.
#include "guards.h"
#include "harness.h"
#include "hex.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <map>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace {

using json = nlohmann::json;
using harness::Bytes, harness::Process;

constexpr char BUS[] = "/tmp/bus", RELAY[] = "/tmp/relay"; // where the test takes its place

// --- sockets -------------------------------------------------------------------------------------

using SocketCall = int (*)(int, const sockaddr *, socklen_t); // bind or connect

UniqueFd make_socket(const char *path, SocketCall take_address) {
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{AF_UNIX, {}};
    strcpy(address.sun_path, path);
    const auto *generic = reinterpret_cast<sockaddr *>(&address);
    return take_address(fd.get(), generic, sizeof address) == 0 ? std::move(fd) : UniqueFd();
}

// Something to take, or the end of the stream.
bool readable(const UniqueFd &fd, int milliseconds = 5000) {
    pollfd entry{fd.get(), POLLIN, 0};
    return poll(&entry, 1, milliseconds) > 0;
}

// Fewer bytes at the end of the stream, or when nothing comes.
Bytes take(const UniqueFd &fd, size_t size) {
    Bytes bytes(size, '\0');
    const ssize_t taken =
        size > 0 && readable(fd) ? recv(fd.get(), bytes.data(), size, MSG_WAITALL) : 0;
    bytes.resize(static_cast<size_t>(std::max<ssize_t>(0, taken)));
    return bytes;
}

bool ended(const UniqueFd &fd) {
    return readable(fd) && take(fd, 1).empty();
}

Bytes take_message(const UniqueFd &fd) {
    const Bytes head = take(fd, 12);
    uint32_t length = htonl(4); // of what follows, itself too
    if (head.size() == 12)
        head.copy(reinterpret_cast<char *>(&length), sizeof length, 8);
    return head + take(fd, ntohl(length) - 4);
}

bool send_bytes(const UniqueFd &fd, const Bytes &bytes) {
    return send(fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
}

// --- the player ----------------------------------------------------------------------------------

// A run of the command-line client.
class Command {
    const json &recorded_;
    std::string output_ = "/tmp/output-of-" + recorded_.value("connection", json("")).dump();
    Process process_;

    std::vector<std::string> words(const char *socket) const {
        std::vector<std::string> words{"-c", "PATH=${0%/*}; exec ubus \"$@\" >'" + output_ + "'",
                                       UBUS_PROGRAM, "-s", socket};
        words.insert(words.end(), recorded_["argv"].begin() + 1, recorded_["argv"].end());
        return words;
    }

  public:
    Command(const json &recorded, const char *socket)
        : recorded_(recorded), process_("/bin/sh", words(socket)) {}
    void expect_end() {
        SCOPED_TRACE(recorded_["argv"].dump());
        EXPECT_EQ(process_.wait(), recorded_["exit_status"]);
        EXPECT_EQ(harness::read_file(output_), recorded_["stdout"]);
        Bytes error = process_.output();
        if (const size_t usage = error.find("Usage: ubus ["); usage != Bytes::npos)
            error.replace(usage, Bytes::npos, "<usage text>\n");
        EXPECT_EQ(error, recorded_["stderr"]);
    }
};

// A recorded connection. Clients know recorded ids only, the bus live ones only.
struct Connection {
    UniqueFd bus, client;           // no client: the test itself plays it
    std::optional<Command> command; // what the client is
};

class Capture : public harness::SystemTest, public testing::WithParamInterface<std::string> {
  protected:
    const json capture = json::parse(std::ifstream(TEST_DATA "/captures/" + GetParam() + ".json"));
    const json commands = capture.value("commands", json::array());
    // Ids are random. Each recorded one stands for the live one that is found first in its place,
    // that of a client for the last one greeted.
    std::map<Bytes, Bytes> ids;
    std::optional<Process> bus;
    UniqueFd listener;
    std::map<std::string, Connection> connections;

    void SetUp() override {
        for (const std::string id : capture.value("ids", json::array()))
            ids[from_hex(id)] = Bytes(4, '\0'); // while it is not known
        bus.emplace(UBUSD_PROGRAM, std::vector<std::string>{"-s", BUS});
        ASSERT_TRUE(harness::eventually([] { return !!make_socket(BUS, connect); }));
        unlink(RELAY);
        listener = make_socket(RELAY, bind);
        ASSERT_EQ(listen(listener.get(), 8), 0);
    }
    void TearDown() override {
        for (const auto &[who, connection] : connections)
            EXPECT_TRUE(!connection.bus || !readable(connection.bus, 0) || ended(connection.bus))
                << who;
        EXPECT_EQ(end_bus(), 0);
        EXPECT_NE(access(BUS, F_OK), 0);
    }

    int end_bus() {
        if (bus->running())
            bus->signal(SIGTERM);
        return bus->wait();
    }

    void start(Connection &connection, const std::string &who) {
        connection.bus = make_socket(BUS, connect);
        for (const json &command : commands)
            if (command["connection"] == who) {
                connection.command.emplace(command, RELAY);
                connection.client = UniqueFd(accept(listener.get(), nullptr, nullptr));
            }
    }

    // The recorded message with live ids; those not known yet are learned from `answer`.
    Bytes translate(Bytes message, const Bytes &answer = {}) {
        for (size_t at = 4; at + 4 <= message.size(); at += 4) {
            const auto id = ids.find(message.substr(at, 4));
            if (id == ids.end())
                continue;
            const bool is_greeting = message[1] == 0;
            if ((is_greeting || id->second == Bytes(4, '\0')) && at + 4 <= answer.size())
                id->second = answer.substr(at, 4);
            message.replace(at, 4, id->second);
        }
        return message;
    }

    void relay(const Connection &connection, bool to_bus, const Bytes &recorded) {
        if (to_bus) {
            ASSERT_EQ(connection.client ? take_message(connection.client) : recorded, recorded);
            ASSERT_TRUE(send_bytes(connection.bus, translate(recorded)));
        } else {
            const Bytes message = take_message(connection.bus);
            ASSERT_EQ(translate(recorded, message), message);
            ASSERT_TRUE(!connection.client || send_bytes(connection.client, recorded));
        }
    }

    void close(Connection &connection, bool by_client) {
        if (!by_client) {
            end_bus();
            shutdown(connection.client.get(), SHUT_RDWR);
        }
        if (connection.command)
            connection.command->expect_end();
        EXPECT_TRUE(by_client ? !readable(connection.bus, 0) : ended(connection.bus));
        connection.bus = UniqueFd();
    }
};

TEST_P(Capture, IsRepeated) {
    for (const json &entry : capture["messages"]) {
        SCOPED_TRACE(entry);
        const bool to_bus = entry["dir"] == "client>bus";
        const auto [at, is_new] = connections.try_emplace(entry["who"]);
        Connection &connection = at->second;
        if (is_new)
            start(connection, at->first);
        if (entry.contains("hex"))
            relay(connection, to_bus, from_hex(entry["hex"]));
        else
            close(connection, to_bus);
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
        names.push_back(file.path().stem());
    return names;
}

INSTANTIATE_TEST_SUITE_P(Bus, Capture, testing::ValuesIn(all_captures()),
                         [](const auto &instance) { return instance.param; });

} // namespace
