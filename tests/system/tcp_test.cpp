// Queries over TCP: how they come and go in pieces, what becomes of clients and servers that stop
// in the middle, and that it is all decided as over UDP, which nothing of it holds up.
#include "database.h"
#include "guards.h"
#include "harness.h"

#include <deque>
#include <random>
#include <set>

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

using namespace harness;

namespace {

constexpr char BASE[] = "/etc/vantrelle";
constexpr size_t LONGEST = 65535;

// One that is bound to a port listens.
UniqueFd bound_socket(const std::string &address, uint16_t port) {
    UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in own = socket_address(address, port);
    const int on = 1;
    const timeval patience{20, 0};
    setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    sandbox::must(bind(fd.get(), reinterpret_cast<const sockaddr *>(&own), sizeof own) == 0 &&
                      (port == 0 || listen(fd.get(), 10) == 0),
                  "bind to " + address);
    return fd;
}

Bytes framed(const Bytes &message) {
    return Bytes{static_cast<char>(message.size() >> 8), static_cast<char>(message.size())} +
           message;
}

// One end of a connection.
struct Connection {
    UniqueFd fd;

    bool write(const Bytes &bytes) const {
        return send(fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(bytes.size());
    }
    bool ready(int timeout, short events = POLLIN) const {
        pollfd waiting{fd.get(), events, 0};
        return poll(&waiting, 1, timeout) == 1;
    }
    // All of that many bytes, or nothing.
    std::optional<Bytes> read(size_t size) const {
        Bytes bytes(size, '\0');
        const ssize_t count = recv(fd.get(), bytes.data(), size, MSG_WAITALL);
        return count == static_cast<ssize_t>(size) ? std::optional(bytes) : std::nullopt;
    }
    std::optional<Bytes> receive() const {
        uint16_t size;
        const bool is_there = recv(fd.get(), &size, sizeof size, MSG_WAITALL) == sizeof size;
        return is_there ? read(ntohs(size)) : std::nullopt;
    }
    std::optional<Bytes> ask(const Bytes &message) const {
        return write(framed(message)) ? receive() : std::nullopt;
    }
    // Whether the other side closed it, behind what it sent.
    bool closed(int timeout = 5000) const {
        char bytes[4096];
        while (ready(timeout))
            if (recv(fd.get(), bytes, sizeof bytes, 0) <= 0)
                return true;
        return false;
    }
};

// From 192.168.8.NUMBER; with a small buffer for what it receives, if it is deaf.
struct TcpClient : Connection {
    explicit TcpClient(int number = 20, bool is_deaf = false)
        : Connection{bound_socket(sandbox::CLIENT_PREFIX + std::to_string(number), 0)} {
        const sockaddr_in router = socket_address(sandbox::ROUTER, 53);
        const int size = 4096;
        if (is_deaf)
            setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
        sandbox::must(
            connect(fd.get(), reinterpret_cast<const sockaddr *>(&router), sizeof router) == 0,
            "connect to the router");
    }
};

Bytes sized(Bytes message, size_t size) {
    message.resize(size, 'x');
    return message;
}

Bytes echo(const Bytes &message) {
    return *Upstream::echo(message);
}

// What a server answers on one of its connections, the first of which is 0: what the name says, or
// the query as a response.
Bytes answer_to(const Bytes &message, size_t connection) {
    const auto says = [&](const char *word) { return message.find(word) != Bytes::npos; };
    Bytes answer = echo(message);
    if (says("closing") || (says("parting") && connection % 2 == 0))
        return "close";
    if (says("forged"))
        answer[connection % 2 ? 13 : 1] ^= 1; // the name, the id
    return says("long") ? sized(answer, LONGEST) : answer;
}

// A server over TCP at 10.53.0.NUMBER, on a thread of its own.
class TcpUpstream {
  public:
    explicit TcpUpstream(int number)
        : listener{bound_socket(sandbox::UPSTREAM_PREFIX + std::to_string(number), 53)} {}

    std::atomic<bool> holds_back = false; // answers, until it is false again
    std::atomic<size_t> count = 0;        // queries
    std::atomic<size_t> opened = 0, open = 0;

  private:
    struct Link : Connection {
        size_t number;
        Bytes held;
    };

    void serve(const std::stop_token &stop) {
        std::vector<Link> links;
        while (!stop.stop_requested()) {
            if (listener.ready(1))
                links.push_back(
                    {{UniqueFd(accept(listener.fd.get(), nullptr, nullptr))}, opened++, {}});
            std::erase_if(links, [this](Link &link) { return !serve(link); });
            open = links.size();
        }
    }
    bool serve(Link &link) {
        while (link.ready(0)) {
            const std::optional<Bytes> message = link.receive();
            const Bytes reply = message ? answer_to(*message, link.number) : "close";
            count += message.has_value();
            if (reply == "close")
                return false;
            link.held += framed(reply);
        }
        return holds_back || link.write(std::exchange(link.held, {}));
    }

    Connection listener;
    std::jthread thread{[this](const std::stop_token &stop) { serve(stop); }};
};

struct Tcp : SystemTest {
    const Bytes question = query("a.example", 7);
    std::optional<Upstream> udp{std::in_place, 1};
    std::optional<TcpUpstream> server{std::in_place, 1};
    std::optional<Daemon> daemon; // not primed: the first query over TCP is like any other

    void SetUp() override {
        SystemTest::SetUp();
        write_file(BASE + "/black.lst"s, "ads.example,1\n");
        write_file(BASE + "/blocked_device.lst"s, "192.168.8.28,4\n");
    }
    void start(Options main = {}) {
        main.insert(
            main.begin(),
            {{"concurrent_queries", "300"}, {"tcp_connections", "20"}, {"stats_db_path", BASE}});
        configure(main);
        daemon.emplace();
    }
};

TEST_F(Tcp, DigKeepsItsConnection) {
    start();
    run("dig @192.168.8.1 -b 192.168.8.20 +time=9 +tries=1 +tcp +keepopen a.example b.example "
        "c.example >/tmp/dig && test $(grep -c 'status: NOERROR' /tmp/dig) = 3");
    EXPECT_EQ(server->opened, 1U) << "shared by all";
}

TEST_F(Tcp, MessagesComeInAnySplitAndGoWholeOrNot) {
    start();
    const TcpClient client;
    for (const char byte : framed(question)) {
        ASSERT_TRUE(client.write({byte}));
        usleep(1000);
    }
    EXPECT_EQ(client.receive(), echo(question));
    // Several at once, what is too short for a message among them, and half of one more.
    const Bytes big = sized(query("long.example"), 3000), half = framed(question).substr(0, 20);
    EXPECT_TRUE(client.write(framed(question) + framed(Bytes(11, 'x')) + framed("x") + framed(big) +
                             framed(question.substr(0, 12)) + framed(echo(question)) + half));
    Bytes malformed = echo(question).substr(0, 12); // a header without a question
    malformed[3] = 1;
    std::set<Bytes> answers;
    for (int count = 0; count < 3; count++)
        answers.insert(client.receive().value_or(""));
    EXPECT_EQ(answers, (std::set{echo(question), sized(echo(big), LONGEST), malformed}));
    EXPECT_FALSE(client.ready(200)) << "a response is answered by nobody";
    EXPECT_TRUE(client.write(framed(question).substr(half.size())));
    EXPECT_EQ(client.receive(), echo(question));
    // Sixteen are out at a time; the rest comes through when they are answered, also to a client
    // that sends no more, and has sent half of a message last.
    server->holds_back = true;
    const size_t before = server->count;
    Bytes all;
    for (uint16_t id = 0; id < 20; id++)
        all += framed(query("held.example", id));
    EXPECT_TRUE(client.write(all + half));
    shutdown(client.fd.get(), SHUT_WR);
    EXPECT_TRUE(eventually([&] { return server->count == before + 16; }));
    usleep(100'000);
    EXPECT_EQ(server->count, before + 16);
    server->holds_back = false;
    std::set<uint16_t> ids;
    for (int count = 0; count < 20; count++)
        ids.insert(id_of(client.receive().value_or("")));
    EXPECT_EQ(ids.size(), 20U);
    EXPECT_TRUE(client.closed());
    // A message of nothing ends it. An open one keeps no stop.
    const TcpClient other, last;
    EXPECT_TRUE(other.write(Bytes(2, '\0')) && other.closed());
    EXPECT_EQ(daemon->stop(), 0);
}

// Asks the same of two lives of the daemon, over UDP and over TCP.
TEST_F(Tcp, IsDecidedCountedAndRecordedAsOverUdp) {
    const std::pair<const char *, int> cases[] = {
        {"ads.example", 20},  {"x.AdS.Example", 21}, {"news.example", 22},
        {"news.example", 28}, {"Vantrelle", 28},     {"1.0.0.10.in-addr.arpa", 28}};
    const std::string file = BASE + "/vantrelle.db"s;
    std::string found[2];
    for (const bool is_tcp : {false, true}) {
        SetUp();
        fs::resize_file("/dev/ledchain0", 0);
        start({{"ignore_case", "1"}, {"log_stats_interval", "2"}, {"block_answer", "null"}});
        Daemon::prime();
        std::string &all = found[is_tcp];
        for (const auto &[name, number] : cases) {
            const Bytes asked = query(name, 99, 28, true);
            all += is_tcp ? TcpClient(number).ask(asked).value_or("")
                          : Client(number).ask(asked).value_or("none");
        }
        all += read_file("/dev/ledchain0");
        EXPECT_EQ(daemon->stop(), 0);
        all += read_rows(file, "select fqdn, ip from dns_traffic where ip glob '*.2[0-8]'");
        for (const char *list : {"black", "blocked_device"})
            all += read_rows(file, "select fqdn from "s + list + "_fqdn") +
                   read_rows(file, "select ip from "s + list + "_stats");
        for (const char *text : {"[ Req: 2 ] [ Blocked: 1 ]", "[ Req: 4 ] [ Blocked: 2 ]",
                                 "[ Req: 6 ] [ Blocked: 3 ]", "vantrelle is local server"})
            EXPECT_EQ(log_count(text), 1U) << text;
    }
    EXPECT_EQ(found[0], found[1]);
    EXPECT_EQ(server->count, 3U);
}

TEST_F(Tcp, BlocksInAnySpellingAndWholeWhateverTheLength) {
    start({{"ignore_case", "1"}});
    const TcpClient client;
    std::mt19937 random(1);
    for (size_t spelling = 0; spelling < 100; spelling++) {
        constexpr size_t RECORD = 16, SIZES[] = {29, 600, LONGEST - RECORD, LONGEST - 15, LONGEST};
        Bytes asked = sized(query("ads.example"), SIZES[spelling % std::size(SIZES)]);
        for (const size_t letter : {13, 14, 15, 17, 18, 19, 20, 21, 22, 23})
            asked[letter] = static_cast<char>(asked[letter] ^ (random() & 32));
        const Bytes answer = client.ask(asked).value_or("");
        const bool is_malformed = asked.size() + RECORD > LONGEST;
        EXPECT_EQ(rcode_of(answer), is_malformed ? 1 : 3) << asked.substr(12, 20);
        EXPECT_EQ(answer.size(), asked.size() + (is_malformed ? 0 : RECORD));
        EXPECT_EQ(answer.find(asked.substr(12)), 12U);
    }
}

TEST_F(Tcp, ServersThatCloseRefuseOrSaySilentCostServerFailuresAtMost) {
    start({{"dns_timeout", "1000"}, {"log_level", "7"}});
    Daemon::prime();
    const TcpClient client;
    const auto failed = [](const std::string &why) {
        return log_count("No answer over TCP from upstream server 10.53.0.1: " + why);
    };
    server.reset();
    Bytes asked = query("a.example", 0x1234, 1, true), failure = asked.substr(0, question.size());
    asked[2] = '\x31'; // an opcode
    failure.replace(2, 10, "\xB1\x82\0\1\0\0\0\0\0\0", 10);
    EXPECT_EQ(client.ask(asked), failure);
    EXPECT_EQ(client.ask(asked), failure);
    EXPECT_EQ(failed("Connection refused"), 2U);
    server.emplace(1);
    // Closed once, behind an answer.
    const Bytes parting = query("parting.example", 2);
    EXPECT_TRUE(client.write(framed(question) + framed(parting) + framed(question)));
    std::multiset<Bytes> answers;
    for (int count = 0; count < 3; count++)
        answers.insert(client.receive().value_or(""));
    EXPECT_EQ(answers, (std::multiset{echo(question), echo(question), echo(parting)}));
    EXPECT_EQ(server->opened, 2U);
    EXPECT_EQ(failed(""), 2U);
    EXPECT_EQ(rcode_of(client.ask(query("closing.example")).value_or("")), 2);
    EXPECT_EQ(failed("connection closed"), 1U);
    EXPECT_EQ(server->opened, 3U);
    // Answers nobody asked for, and then silence. A connection with a time-out is used no more,
    // though it has answered others meanwhile.
    for (size_t count = 1; count <= 2; count++) {
        EXPECT_TRUE(client.write(framed(query("forged.example"))));
        usleep(300'000);
        EXPECT_EQ(client.ask(question), echo(question));
        EXPECT_EQ(rcode_of(client.receive().value_or("")), 2);
        EXPECT_EQ(failed("timed out"), count);
        EXPECT_EQ(server->opened, 3 + count);
        EXPECT_EQ(log_count("Dropping what answers no query"), count);
    }
    // None of it has a part in which server is in use.
    EXPECT_TRUE(passes("udp.example"));
    EXPECT_EQ(log_count("Switching to") + log_count("Response timed out"), 0U);
}

TEST_F(Tcp, ASwitchMovesNothingThatWaits) {
    const TcpUpstream second(2);
    start({{"dns_timeout", "20000"}});
    Daemon::prime();
    const TcpClient client;
    server->holds_back = true;
    EXPECT_TRUE(client.write(framed(question)));
    EXPECT_TRUE(eventually([&] { return server->count == 1; }));
    udp.reset();
    for (uint16_t id = 1; id <= 5; id++) {
        Client().send(query("refused.example", id));
        EXPECT_TRUE(wait_for_log("Response timed out", id));
    }
    const Bytes other = query("new.example", 2);
    EXPECT_EQ(client.ask(other), echo(other));
    EXPECT_EQ(second.count, 1U);
    server->holds_back = false;
    EXPECT_EQ(client.receive(), echo(question));
}

// What takes its time, all at the same time.
TEST_F(Tcp, WhoStopsInTheMiddleIsClosedInTime) {
    start();
    const Bytes asked = query("slow.example"), frame = framed(asked);
    const TcpClient idle(20), half(21), slow(22), deaf(23, true), reader(24, true);
    EXPECT_TRUE(half.write(frame.substr(0, 10)));
    for (const TcpClient *each : {&deaf, &reader})
        for (int count = 0; count < 10; count++)
            EXPECT_TRUE(each->write(framed(query("long.example"))));
    std::jthread progress([&] {
        for (const char byte : frame) {
            slow.write({byte});
            EXPECT_TRUE(reader.read(20'000));
            usleep(500'000);
        }
    });
    const auto ends = [begin = time(nullptr)](int seconds, const std::function<bool()> &is_over) {
        EXPECT_TRUE(eventually(is_over, 20'000));
        EXPECT_NEAR(static_cast<double>(time(nullptr) - begin), seconds + 1.5, 2.5);
    };
    ends(2, [&] { return half.closed(0); });
    ends(5, [&] { return server->open == 0; });
    ends(10, [&] { return idle.closed(0); });
    ends(10, [&] { return deaf.ready(0, POLLRDHUP); });
    progress.join();
    EXPECT_EQ(slow.receive(), echo(asked));
}

TEST_F(Tcp, AnswersThatNobodyTakesAreNotKeptWithoutEnd) {
    start();
    bool is_closed = false;
    // So many answers fill what the kernel takes, and leave the connection to be read.
    for (int first = 2; first < 12 && !is_closed; first++) {
        const TcpClient deaf(20, true);
        for (int count = 0; count < first + 40; count++) {
            EXPECT_TRUE(deaf.write(framed(query("long.example"))));
            if (count == first) {
                usleep(100'000);
                server->holds_back = true;
            }
        }
        usleep(100'000);
        server->holds_back = false;
        is_closed = deaf.ready(1000, POLLRDHUP);
    }
    EXPECT_TRUE(is_closed) << "with 1 MB unsent";
    EXPECT_TRUE(TcpClient().ask(question));
}

// What the kernel still holds of a closed connection would be bounded by nothing.
TEST_F(Tcp, WhoTakesNoAnswersLeavesNoneBehind) {
    start();
    std::vector<TcpClient> deaf;
    for (int count = 0; count < 30; count++) {
        deaf.emplace_back(20, true).write(framed(query("long.example")));
        if (count % 2)
            shutdown(deaf.back().fd.get(), SHUT_WR);
        usleep(20'000);
    }
    // Of the router's ends those that are closed and have more than a few bytes to deliver.
    run("! awk '$2 ~ /:0035$/ && $4 ~ /04|09/ && $5 ~ /^0000[1-9A-F]/' /proc/net/tcp | grep .");
    EXPECT_TRUE(TcpClient(21).ask(question));
}

TEST_F(Tcp, ManyConnectionsTakeTheIdleOnesPlaces) {
    start({{"dns_timeout", "20000"}, {"tcp_connections", "7"}});
    Daemon::prime();
    const size_t descriptors = daemon->descriptors();
    {
        std::deque<TcpClient> open;
        const auto opens = [&](std::initializer_list<int> numbers) {
            for (const int number : numbers)
                EXPECT_TRUE(open.emplace_back(number).ask(question));
        };
        opens({21, 20, 20, 20, 20, 20});
        EXPECT_TRUE(open[1].ask(question));
        opens({20});
        EXPECT_TRUE(open[2].closed()) << "the device's that is idle for longest";
        opens({22, 23});
        EXPECT_TRUE(open[0].closed()) << "idle for longest of all";
        open.erase(open.begin() + 2);
        open.pop_front();
        // Nobody idle: the new one goes.
        server->holds_back = true;
        const size_t before = server->count;
        for (const TcpClient &busy : open)
            EXPECT_TRUE(busy.write(framed(question)));
        EXPECT_TRUE(eventually([&] { return server->count == before + 7; }));
        EXPECT_TRUE(TcpClient(24).closed() && TcpClient(20).closed());
        server->holds_back = false;
        for (const TcpClient &busy : open)
            EXPECT_EQ(busy.receive(), echo(question));
    }
    {
        std::vector<TcpClient> clients;
        for (int number = 0; number < 1000; number++)
            clients.emplace_back(20 + number % 10).write(framed(question));
        int answered = 0;
        for (const TcpClient &each : clients)
            answered += each.receive() == echo(question);
        EXPECT_GE(answered, 7);
        EXPECT_LE(daemon->descriptors(), descriptors + 7 + 2);
        EXPECT_TRUE(passes("udp.example"));
    }
    // Without descriptors they wait, and the daemon does not turn round and round.
    const std::string cannot = "Cannot accept TCP connections: Too many open files";
    const std::string limit = "prlimit --pid " + std::to_string(daemon->pid()) + " --nofile=";
    run(limit + "0:");
    const TcpClient waiting;
    EXPECT_TRUE(wait_for_log(cannot));
    usleep(200'000);
    EXPECT_EQ(log_count(cannot), 1U);
    run(limit + "1000:");
    EXPECT_EQ(waiting.ask(question), echo(question));
}

// While the database makes decisions wait, many queries over TCP come, and then one over UDP.
TEST_F(Tcp, AFloodHoldsUpADatagramForOneDecision) {
    start({{"log_level", "7"}});
    Daemon::prime();
    const Client datagram(29);
    const TcpClient flood;
    {
        const Holder other(BASE + "/vantrelle.db"s, "begin exclusive");
        for (uint16_t id = 0; id < 16; id++)
            EXPECT_TRUE(flood.write(framed(query("ads.example", id))));
        ASSERT_TRUE(wait_for_log("Request size: 29", 16));
        datagram.send(query("udp.example"));
        ASSERT_TRUE(eventually([] { return not_received() == 0; }));
        usleep(100'000);
    }
    EXPECT_TRUE(datagram.receive());
    for (int count = 0; count < 16; count++)
        EXPECT_TRUE(flood.receive());
    size_t before = 0;
    for (const LogLine &line : log_lines()) {
        if (line.text.starts_with("FQDN: udp.example"))
            break;
        before += line.text.starts_with("FQDN: ads.example");
    }
    EXPECT_EQ(before, 2U) << "one, which is traced twice";
}

TEST_F(Tcp, ServesUdpWithoutAListenerAndWithOneQueryAtATime) {
    const UniqueFd taker = bound_socket(sandbox::ROUTER, 53);
    for (const char *queries : {"0", "300"}) {
        start({{"concurrent_queries", queries}});
        Daemon::prime();
        EXPECT_TRUE(passes("a.example"));
    }
    expect_logged(LOG_WARNING,
                  {"tcp_connections needs concurrent_queries above 0, serving no TCP"});
    expect_logged(LOG_ERR, {"No TCP connections on 192.168.8.1#53: Address already in use"});
    EXPECT_EQ(log_count("TCP connections: 20"), 1U);
}

} // namespace
