// Queries over TCP: how they come and go in pieces, what becomes of clients and servers that stop
// in the middle, and that it is all decided as over UDP, which nothing of it holds up.
#include "database.h"
#include "harness.h"

#include <algorithm>
#include <map>
#include <memory>
#include <random>

#include <netinet/tcp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>

using namespace harness;

namespace {

constexpr char BASE[] = "/etc/vantrelle";

Bytes framed(const Bytes &message) {
    return Bytes{static_cast<char>(message.size() >> 8), static_cast<char>(message.size())} +
           message;
}

// One end of a connection, which reads as many bytes as it is asked for.
class Connection {
  public:
    explicit Connection(int own) : fd(own) {}
    // From a client's address to the router.
    explicit Connection(int number, bool is_small) : fd(socket(AF_INET, SOCK_STREAM, 0)) {
        const sockaddr_in own = socket_address(sandbox::CLIENT_PREFIX + std::to_string(number), 0);
        const sockaddr_in router = socket_address(sandbox::ROUTER, 53);
        const int on = 1, size = 4096;
        if (is_small)
            setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        sandbox::must(bind(fd, reinterpret_cast<const sockaddr *>(&own), sizeof own) == 0 &&
                          connect(fd, reinterpret_cast<const sockaddr *>(&router), sizeof router) ==
                              0,
                      "connect to the router");
    }
    Connection(Connection &&other) noexcept : fd(std::exchange(other.fd, -1)) {}
    Connection &operator=(Connection &&other) noexcept {
        std::swap(fd, other.fd);
        return *this;
    }
    ~Connection() {
        if (fd >= 0)
            close(fd);
    }
    bool write(const Bytes &bytes) const {
        return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(bytes.size());
    }
    void end() const { shutdown(fd, SHUT_WR); }
    bool ready(int timeout, short events = POLLIN) const {
        pollfd waiting{fd, events, 0};
        return poll(&waiting, 1, timeout) == 1;
    }
    // All of that many bytes, or nothing.
    std::optional<Bytes> read(size_t size, int timeout = 5000) const {
        Bytes bytes(size, '\0');
        for (size_t at = 0; at < size;) {
            const ssize_t count =
                ready(timeout) ? recv(fd, bytes.data() + at, size - at, 0) : ssize_t{-1};
            if (count <= 0)
                return std::nullopt;
            at += static_cast<size_t>(count);
        }
        return bytes;
    }
    std::optional<Bytes> receive(int timeout = 5000) const {
        const std::optional<Bytes> length = read(2, timeout);
        if (!length)
            return std::nullopt;
        return read(static_cast<size_t>(static_cast<uint8_t>((*length)[0]) << 8 |
                                        static_cast<uint8_t>((*length)[1])),
                    timeout);
    }
    std::optional<Bytes> ask(const Bytes &message) const {
        return write(framed(message)) ? receive() : std::nullopt;
    }
    // Whether the other side closed it, behind what it sent.
    bool closed(int timeout = 5000) const {
        char bytes[4096];
        while (ready(timeout))
            if (recv(fd, bytes, sizeof bytes, 0) <= 0)
                return true;
        return false;
    }
    bool open() const { return !closed(0); }

  protected:
    int fd;
};

struct TcpClient : Connection {
    explicit TcpClient(int number = 20, bool is_small = false) : Connection(number, is_small) {}
};

// A server over TCP at 10.53.0.NUMBER, on a thread of its own. Answers are sent as the function
// returns them; "" is none, and "close" closes the connection.
class TcpUpstream {
  public:
    // Of the query, of the connection's number and of the query's number on it, both from 0.
    using Answer = std::function<Bytes(const Bytes &, size_t, size_t)>;
    static Bytes echo(const Bytes &message, size_t = 0, size_t = 0) {
        return Upstream::echo(message).value_or("");
    }

    explicit TcpUpstream(int number, Answer what = echo)
        : answer(std::move(what)), listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_in own =
            socket_address(sandbox::UPSTREAM_PREFIX + std::to_string(number), 53);
        const int on = 1;
        setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        sandbox::must(bind(listener, reinterpret_cast<const sockaddr *>(&own), sizeof own) == 0 &&
                          listen(listener, 10) == 0,
                      "listen over TCP");
        thread = std::thread([this] { serve(); });
    }
    ~TcpUpstream() {
        stopping = true;
        thread.join();
        close(listener);
    }
    std::vector<Bytes> received() const {
        std::lock_guard guard(mutex);
        return messages;
    }
    size_t count() const { return received().size(); }
    size_t opened() const { return connections; }
    size_t open() const { return still_open; }

    std::atomic<bool> holds_back = false; // answers, until it is false again

  private:
    struct Link {
        Connection connection;
        size_t number, queries;
        Bytes held;
    };

    void serve() {
        std::vector<Link> links;
        while (!stopping) {
            std::vector<pollfd> sources{{listener, POLLIN, 0}};
            if (poll(sources.data(), 1, 1) == 1)
                links.push_back(
                    {Connection(accept(listener, nullptr, nullptr)), connections++, 0, {}});
            std::erase_if(links, [this](Link &link) { return !serve(link); });
            still_open = links.size();
        }
    }
    bool serve(Link &link) {
        while (link.connection.ready(0)) {
            const std::optional<Bytes> message = link.connection.receive();
            if (!message)
                return false;
            {
                std::lock_guard guard(mutex);
                messages.push_back(*message);
            }
            const Bytes reply = answer(*message, link.number, link.queries++);
            if (reply == "close")
                return false;
            if (!reply.empty())
                link.held += framed(reply);
            if (holds_back)
                continue;
            if (!link.connection.write(std::exchange(link.held, {})))
                return false;
        }
        return holds_back || link.held.empty() ||
               link.connection.write(std::exchange(link.held, {}));
    }

    Answer answer;
    int listener;
    mutable std::mutex mutex;
    std::vector<Bytes> messages;
    std::atomic<size_t> connections = 0, still_open = 0;
    std::atomic<bool> stopping = false;
    std::thread thread;
};

struct Tcp : SystemTest {
    static void configure(Options main = {}) {
        main.insert(main.begin(), {{"concurrent_queries", "300"}, {"tcp_connections", "20"}});
        harness::configure(main);
    }
    static void write_lists() {
        fs::create_directory(BASE);
        write_file(BASE + "/black.lst"s, "ads.example,1\n");
        write_file(BASE + "/blocked_device.lst"s, "192.168.8.28,4\n");
    }
};

// What the local answer is without block_answer.
Bytes diverted(Bytes message) {
    for (const auto &[at, value] :
         {std::pair{2, 0x80}, {3, message[3] | 0x83}, {6, 0}, {7, 1}, {10, 0}, {11, 0}})
        message[static_cast<size_t>(at)] = static_cast<char>(value);
    return message + Bytes("\xc0\x0c\0\1\0\1\0\0\5\x41\0\4\xff\xff\xff\xff", 16);
}

Bytes malformed(Bytes message) {
    message[2] = static_cast<char>(message[2] | 0x80);
    message[3] = static_cast<char>((message[3] & 0xF0) | 1);
    return message;
}

Bytes server_failure(const Bytes &message, size_t question_end) {
    Bytes reply = message.substr(0, question_end);
    reply[2] = static_cast<char>(0x80 | (message[2] & 0x79));
    reply[3] = '\x82';
    std::fill(reply.begin() + 6, reply.begin() + 12, '\0');
    return reply;
}

Bytes sized(Bytes message, size_t size) {
    message.resize(size, 'x');
    return message;
}

TEST_F(Tcp, DigAsksAgainOverTcpAndKeepsItsConnection) {
    const Upstream udp(1, [](const Bytes &message) { // what does not fit is for TCP
        Bytes cut = *Upstream::echo(message);
        cut[2] = static_cast<char>(cut[2] | 2);
        return cut;
    });
    const TcpUpstream tcp(1);
    configure();
    const Daemon daemon; // not primed: the first query over TCP is answered like any other
    expect_logged(6, {"TCP connections: 20"});
    const std::string dig = "dig @192.168.8.1 -b 192.168.8.20 +noedns +time=5 +tries=1 ";
    run(dig + "+tcp +keepopen a.example b.example c.example >/tmp/dig && "
              "test $(grep -c 'status: NOERROR' /tmp/dig) = 3");
    EXPECT_EQ(tcp.opened(), 1U) << "shared by all";
    Client().send(query("first.example")); // over UDP the first one is lost
    run(dig + "long.example >/tmp/dig && grep -q 'retrying in TCP' /tmp/dig && "
              "grep -q 'status: NOERROR' /tmp/dig");
    EXPECT_EQ(tcp.count(), 4U);
}

TEST_F(Tcp, MessagesComeInAnySplitAndGoWholeOrNot) {
    TcpUpstream server(1, [](const Bytes &message, size_t, size_t) {
        const bool is_long = message.find("long") != Bytes::npos;
        return sized(TcpUpstream::echo(message), is_long ? 60000 : message.size());
    });
    configure();
    Daemon daemon;
    const TcpClient client;
    const Bytes small = query("a.example", 7), big = sized(query("long.example", 8), 3000);
    for (const char byte : framed(small)) {
        ASSERT_TRUE(client.write({byte}));
        usleep(1000);
    }
    EXPECT_EQ(client.receive(), TcpUpstream::echo(small));
    // Several at once, what is too short for a message among them, and half of one more.
    const Bytes half = framed(small).substr(0, 20);
    EXPECT_TRUE(client.write(framed(small) + framed(Bytes(11, 'x')) + framed("x") + framed(big) +
                             framed(small.substr(0, 12)) + framed(*Upstream::echo(small)) + half));
    std::map<size_t, Bytes> answers;
    for (int count = 0; count < 3; count++)
        if (const std::optional<Bytes> answer = client.receive())
            answers[answer->size()] = *answer;
    EXPECT_EQ(answers[small.size()], TcpUpstream::echo(small));
    EXPECT_EQ(answers[60000], sized(TcpUpstream::echo(big), 60000));
    EXPECT_EQ(answers[12], malformed(small.substr(0, 12))) << "a header with no question in it";
    EXPECT_FALSE(client.ready(200)) << "a response is answered by nobody";
    EXPECT_TRUE(client.write(framed(small).substr(half.size())));
    EXPECT_EQ(client.receive(), TcpUpstream::echo(small));
    // Sixteen are out at a time; the rest comes through when they are answered, also to a client
    // that sends no more, and has sent half of a message last.
    server.holds_back = true;
    const size_t before = server.count();
    Bytes all;
    for (uint16_t id = 0; id < 20; id++)
        all += framed(query("held.example", id));
    EXPECT_TRUE(client.write(all + half));
    client.end();
    EXPECT_TRUE(eventually([&] { return server.count() == before + 16; }));
    usleep(100'000);
    EXPECT_EQ(server.count(), before + 16);
    server.holds_back = false;
    std::vector<bool> seen(20);
    for (int count = 0; count < 20; count++)
        seen[id_of(client.receive().value_or(Bytes(12, '\x7f'))) % 20] = true;
    EXPECT_EQ(std::count(seen.begin(), seen.end(), true), 20);
    EXPECT_TRUE(client.closed());
    EXPECT_EQ(server.count(), before + 20);
    // A message of nothing ends it.
    const TcpClient other;
    EXPECT_TRUE(other.write(Bytes(2, '\0')));
    EXPECT_TRUE(other.closed(1000));
    // A stop, with a connection open.
    const TcpClient last;
    EXPECT_EQ(daemon.stop(), 0);
    EXPECT_TRUE(last.closed(1000));
}

// Asks the same of two lives of the daemon, over UDP and over TCP.
TEST_F(Tcp, IsDecidedCountedAndRecordedAsOverUdp) {
    const Upstream udp(1);
    const TcpUpstream tcp(1);
    const std::tuple<const char *, int, bool> cases[] = {
        {"ads.example", 20, true},   {"x.AdS.Example", 21, true},
        {"news.example", 22, false}, {"news.example", 28, true},
        {"Vantrelle", 28, false},    {"1.0.0.10.in-addr.arpa", 28, false}};
    std::string found[2];
    for (const bool is_tcp : {false, true}) {
        SetUp();
        fs::resize_file("/dev/ledchain0", 0);
        write_lists();
        configure({{"stats_db_path", BASE}, {"ignore_case", "1"}, {"log_stats_interval", "2"}});
        PrimedDaemon daemon;
        for (const auto &[name, number, is_blocked] : cases) {
            const Bytes asked = query(name, 99, 28, true);
            const std::optional<Bytes> answer =
                is_tcp ? TcpClient(number).ask(asked) : Client(number).ask(asked);
            EXPECT_EQ(answer, is_blocked ? diverted(asked) : *Upstream::echo(asked)) << name;
        }
        const std::string frames = read_file("/dev/ledchain0");
        EXPECT_EQ(daemon.stop(), 0);
        const std::string file = BASE + "/vantrelle.db"s;
        found[is_tcp] = read_rows(file, "select fqdn, ip from dns_traffic where ip <> '0.0.0.0'"
                                        "and fqdn <> 'stop.example' order by id");
        for (const char *list : {"black", "blocked_device"})
            found[is_tcp] += read_rows(file, "select fqdn from "s + list + "_fqdn") +
                             read_rows(file, "select ip from "s + list + "_stats");
        for (const LogLine &line : log_lines())
            if (line.text.starts_with("[ Req:") || line.text.find("local server") != Bytes::npos)
                found[is_tcp] += line.text.substr(0, line.text.find("[ Threads")) + '\n';
        found[is_tcp] += frames;
    }
    EXPECT_EQ(found[0], found[1]);
    EXPECT_EQ(tcp.count(), 3U);

    // Whatever the length, up to where the answer is longer than a message can be.
    write_lists();
    configure({{"ignore_case", "1"}, {"stats_db_path", BASE}, {"record_traffic", "0"}});
    {
        const PrimedDaemon daemon;
        const TcpClient client;
        for (const size_t size : {29, 600, 65519, 65520, 65535}) {
            const Bytes asked = sized(query("ads.example", 5), size);
            EXPECT_EQ(client.ask(asked), size <= 65519 ? diverted(asked) : malformed(asked));
        }
        std::mt19937 random(1);
        for (int spelling = 0; spelling < 100; spelling++) {
            Bytes asked = query("www.ads.example", 5);
            for (size_t at = 13; at < asked.size() - 5; at++)
                if (isalpha(asked[at]) && random() % 2)
                    asked[at] = static_cast<char>(asked[at] ^ 32);
            EXPECT_EQ(client.ask(asked), diverted(asked)) << asked;
        }
    }
    configure({{"block_answer", "null"}, {"stats_db_path", BASE}, {"block_ttl", "5"}});
    const PrimedDaemon daemon;
    const Bytes asked = query("ads.example", 5), answer = TcpClient().ask(asked).value_or("");
    EXPECT_EQ(answer, Client().ask(asked));
    EXPECT_EQ(answer.substr(asked.size()), Bytes("\xc0\x0c\0\1\0\1\0\0\0\5\0\4\0\0\0\0", 16));
}

TEST_F(Tcp, ServersThatCloseRefuseOrSaySilentCostServerFailuresAtMost) {
    configure({{"dns_timeout", "400"}, {"log_level", "7"}});
    const Upstream udp(1), udp2(2);
    PrimedDaemon daemon;
    const TcpClient client;
    const auto failed = [](std::string_view why) {
        return log_count("No answer over TCP from upstream server 10.53.0.1: "s + std::string(why));
    };
    // Nobody listens.
    Bytes asked = query("a.example", 0x1234, 1, true);
    asked[2] = '\x31'; // an opcode
    EXPECT_EQ(client.ask(asked), server_failure(asked, asked.size() - 11));
    EXPECT_EQ(failed("Connection refused"), 1U);
    const Bytes question = query("b.example", 1);
    {
        // Closes once, and behind the answer to its first query.
        const TcpUpstream server(1, [](const Bytes &message, size_t link, size_t number) {
            return link == 0 && number == 1 ? "close" : TcpUpstream::echo(message);
        });
        EXPECT_TRUE(client.write(framed(question) + framed(question) + framed(question)));
        for (int count = 0; count < 3; count++)
            EXPECT_EQ(client.receive(), TcpUpstream::echo(question));
        EXPECT_EQ(server.opened(), 2U);
        EXPECT_EQ(failed(""), 1U);
    }
    {
        const TcpUpstream server(1, [](auto &&...) { return "close"; });
        EXPECT_EQ(client.ask(question), server_failure(question, question.size()));
        EXPECT_EQ(failed("connection closed"), 1U);
        EXPECT_EQ(server.opened(), 2U);
    }
    {
        // Answers nobody asked for, and then silence. A connection with a time-out is used no more,
        // though it has answered others meanwhile.
        TcpUpstream server(1, [](const Bytes &message, size_t link, size_t) {
            Bytes reply = TcpUpstream::echo(message);
            if (message.find("forged") != Bytes::npos)
                reply[link == 0 ? 1 : 13] ^= 1; // the id, the name
            return reply;
        });
        const Bytes forged = query("forged.example", 2);
        for (int count = 0; count < 2; count++) {
            const auto start = std::chrono::steady_clock::now();
            EXPECT_TRUE(client.write(framed(forged)));
            usleep(200'000);
            EXPECT_EQ(client.ask(question), TcpUpstream::echo(question));
            EXPECT_EQ(client.receive(), server_failure(forged, forged.size()));
            const auto took = std::chrono::steady_clock::now() - start;
            EXPECT_GE(took, std::chrono::milliseconds(400));
            EXPECT_LE(took, std::chrono::milliseconds(800));
        }
        EXPECT_EQ(failed("timed out"), 2U);
        EXPECT_EQ(server.opened(), 2U);
        EXPECT_EQ(log_count("Dropping what answers no query"), 2U);
    }
    // None of it has a part in which server is in use, and a switch moves nothing that waits.
    EXPECT_EQ(log_count("Switching to"), 0U);
    EXPECT_TRUE(passes("udp.example"));
    EXPECT_EQ(log_count("Connection Reset"), 0U);
    EXPECT_EQ(daemon.stop(), 0);
    SetUp();
    configure({{"dns_timeout", "3000"}});
    TcpUpstream first(1);
    const TcpUpstream second(2);
    const PrimedDaemon again;
    first.holds_back = true;
    const TcpClient mover;
    for (int count = 0; count < 5; count++)
        Client().send(query("silent.example", 1));
    usleep(1'500'000);
    EXPECT_TRUE(mover.write(framed(question)));
    ASSERT_TRUE(wait_for_log("Switching to Secondary Upstream DNS"));
    EXPECT_EQ(mover.ask(query("new.example", 2)), *Upstream::echo(query("new.example", 2)));
    first.holds_back = false;
    EXPECT_EQ(mover.receive(), TcpUpstream::echo(question));
    EXPECT_EQ(first.count() + second.count(), 2U);
}

// What takes its time, all at the same time.
TEST_F(Tcp, WhoStopsInTheMiddleIsClosedInTime) {
    const TcpUpstream server(1, [](const Bytes &message, size_t, size_t) {
        return sized(TcpUpstream::echo(message), message.find("long") == Bytes::npos ? 200 : 60000);
    });
    configure();
    const Daemon daemon;
    const Bytes question = query("a-name-that-takes-its-time.example"), frame = framed(question);
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    const TcpClient idle(20), half(21), slow(22), deaf(23, true), reader(24, true);
    EXPECT_TRUE(half.write(frame.substr(0, 10)) && slow.write(frame.substr(0, 20)));
    for (const TcpClient *each : {&deaf, &reader})
        for (int count = 0; count < 10; count++)
            EXPECT_TRUE(each->write(framed(query("long.example"))));
    std::map<const TcpClient *, double> ends;
    size_t sent = 20;
    double kept = 0;
    EXPECT_TRUE(slow.open());
    while (Clock::now() - start < std::chrono::seconds(13)) {
        const double now = std::chrono::duration<double>(Clock::now() - start).count();
        for (const TcpClient *each : {&idle, &half, &slow})
            if (!ends.contains(each) && each->closed(0))
                ends[each] = now;
        if (!ends.contains(&deaf) && deaf.ready(0, POLLRDHUP))
            ends[&deaf] = now;
        if (kept == 0 && server.opened() > 0 && server.open() == 0)
            kept = now;
        if (sent < frame.size() - 1 && now > static_cast<double>(sent - 19)) {
            EXPECT_TRUE(slow.write(frame.substr(sent++, 1)));
        }
        EXPECT_TRUE(reader.read(2000)); // a little at a time
        usleep(50'000);
    }
    EXPECT_NEAR(ends[&idle], 10, 1);
    EXPECT_NEAR(ends[&half], 2, 0.8);
    EXPECT_NEAR(ends[&deaf], 10.5, 1);
    EXPECT_NEAR(kept, 5, 2) << "the server's connection";
    EXPECT_FALSE(ends.contains(&slow)) << "a byte a second is progress";
    EXPECT_TRUE(slow.write(frame.substr(sent)));
    EXPECT_EQ(slow.receive(), sized(TcpUpstream::echo(question), 200));
}

TEST_F(Tcp, AnswersThatNobodyTakesAreNotKeptWithoutEnd) {
    TcpUpstream server(1, [](const Bytes &message, size_t, size_t) {
        return sized(TcpUpstream::echo(message), 65535);
    });
    configure();
    const Daemon daemon;
    const size_t memory = daemon.figure("VmRSS");
    bool is_closed = false;
    // So many answers fill what the kernel takes, and leave the connection to be read.
    for (int first = 2; first < 12 && !is_closed; first++) {
        const TcpClient deaf(20, true);
        for (int count = 0; count < first; count++)
            EXPECT_TRUE(deaf.write(framed(query("a.example"))));
        usleep(100'000);
        server.holds_back = true;
        for (int count = 0; count < 40; count++)
            EXPECT_TRUE(deaf.write(framed(query("b.example"))));
        usleep(100'000);
        server.holds_back = false;
        is_closed = deaf.ready(1000, POLLRDHUP);
        EXPECT_LT(daemon.figure("VmRSS"), memory + 4096);
    }
    EXPECT_TRUE(is_closed) << "with 1 MB unsent";
    EXPECT_EQ(TcpClient().ask(query("c.example"))->size(), 65535U);
}

TEST_F(Tcp, ManyConnectionsTakeTheIdleOnesPlaces) {
    constexpr size_t total = 1000;
    const Upstream udp(1);
    TcpUpstream server(1);
    configure({{"dns_timeout", "20000"}, {"tcp_connections", "7"}});
    PrimedDaemon daemon;
    const size_t descriptors = daemon.descriptors();
    const Bytes question = query("a.example");
    {
        std::vector<TcpClient> own; // of one device
        for (int count = 0; count < 5; count++) {
            own.emplace_back(20);
            EXPECT_TRUE(own.back().ask(question));
        }
        EXPECT_TRUE(own[0].ask(question));
        const TcpClient sixth(20);
        EXPECT_TRUE(sixth.ask(question));
        EXPECT_TRUE(own[1].closed(1000)) << "idle for longest";
        const TcpClient other(21), third(22); // full
        EXPECT_TRUE(other.ask(question) && third.ask(question));
        const TcpClient fourth(23);
        EXPECT_TRUE(fourth.ask(question));
        EXPECT_TRUE(own[2].closed(1000)) << "idle for longest of all";
        // Nobody idle: the new one goes.
        server.holds_back = true;
        const TcpClient *const all[] = {&sixth, &fourth, &other, &third, &own[0], &own[3], &own[4]};
        for (const TcpClient *busy : all)
            EXPECT_TRUE(busy->write(framed(question)));
        EXPECT_TRUE(eventually([&] { return server.count() == 17; })) << server.count();
        EXPECT_TRUE(TcpClient(24).closed(1000) && TcpClient(20).closed(1000));
        server.holds_back = false;
        for (const TcpClient *busy : all)
            EXPECT_EQ(busy->receive(), TcpUpstream::echo(question));
    }
    std::vector<TcpClient> clients;
    for (size_t number = 0; number < total; number++) {
        clients.emplace_back(20 + static_cast<int>(number % 10));
        clients.back().write(framed(question));
    }
    size_t answered = 0;
    for (const TcpClient &each : clients)
        answered += each.receive(1000) == TcpUpstream::echo(question);
    EXPECT_GE(answered, 7U);
    EXPECT_LE(daemon.descriptors(), descriptors + 7 + 2);
    clients.clear();
    // Without descriptors they wait, and the daemon does not turn round and round.
    const std::string cannot = "Cannot accept TCP connections: Too many open files";
    rlimit few{0, 0}, enough{};
    ASSERT_EQ(prlimit(daemon.pid(), RLIMIT_NOFILE, nullptr, &enough), 0);
    few.rlim_max = enough.rlim_max;
    ASSERT_EQ(prlimit(daemon.pid(), RLIMIT_NOFILE, &few, nullptr), 0);
    const TcpClient waiting(20);
    EXPECT_TRUE(wait_for_log(cannot));
    usleep(200'000);
    EXPECT_EQ(log_count(cannot), 1U);
    ASSERT_EQ(prlimit(daemon.pid(), RLIMIT_NOFILE, &enough, nullptr), 0);
    EXPECT_EQ(waiting.ask(question), TcpUpstream::echo(question));
    EXPECT_TRUE(passes("udp.example"));
    EXPECT_EQ(TcpClient(29).ask(question), TcpUpstream::echo(question));
}

// While the database makes decisions wait, many queries over TCP come, and then one over UDP.
TEST_F(Tcp, AFloodHoldsUpADatagramForOneDecision) {
    write_lists();
    configure({{"log_level", "7"}, {"stats_db_path", BASE}});
    const Upstream udp(1);
    const PrimedDaemon daemon;
    const Client datagram(29);
    std::vector<TcpClient> clients;
    {
        const Holder other(BASE + "/vantrelle.db"s, "begin exclusive");
        for (int number = 20; number < 24; number++) {
            clients.emplace_back(number);
            Bytes all;
            for (uint16_t id = 0; id < 16; id++)
                all += framed(query("ads.example", id));
            EXPECT_TRUE(clients.back().write(all));
        }
        ASSERT_TRUE(wait_for_log("Request size: 29", 64));
        EXPECT_EQ(log_count("FQDN: ads.example"), 2U) << "the first one is being decided";
        datagram.send(query("udp.example"));
        ASSERT_TRUE(eventually([] { return not_received() == 0; }));
        usleep(100'000);
    }
    EXPECT_TRUE(datagram.receive());
    for (const TcpClient &each : clients)
        for (int count = 0; count < 16; count++)
            EXPECT_TRUE(each.receive());
    size_t before = 0;
    for (const LogLine &line : log_lines()) {
        if (line.text.starts_with("FQDN: udp.example"))
            break;
        before += line.text.starts_with("FQDN: ads.example");
    }
    EXPECT_EQ(before, 2U) << "one, which is traced twice";
}

TEST_F(Tcp, ServesUdpWithoutAListenerAndWithOneQueryAtATime) {
    const Upstream udp(1);
    configure({{"concurrent_queries", "0"}});
    for (const bool is_taken : {false, true}) {
        const int taker = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_in router = socket_address(sandbox::ROUTER, 53);
        const int on = 1;
        setsockopt(taker, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        if (is_taken) {
            ASSERT_EQ(bind(taker, reinterpret_cast<const sockaddr *>(&router), sizeof router), 0);
            ASSERT_EQ(listen(taker, 1), 0);
        }
        PrimedDaemon daemon;
        EXPECT_TRUE(passes("a.example"));
        EXPECT_EQ(daemon.stop(), 0);
        close(taker);
        configure();
    }
    EXPECT_EQ(log_count("TCP connections: "), 1U);
    expect_logged(LOG_WARNING,
                  {"tcp_connections needs concurrent_queries above 0, serving no TCP"});
    expect_logged(LOG_ERR, {"No TCP connections on 192.168.8.1#53: Address already in use"});
}

} // namespace
