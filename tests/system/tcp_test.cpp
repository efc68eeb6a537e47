// Queries over TCP: how they come and go in pieces, what becomes of clients and servers that stop
// in the middle, and that it is all decided as over UDP, which nothing of it holds up.
#include "database.h"
#include "guards.h"
#include "harness.h"
#include "localanswer.h"
#include "message.h"

#include <algorithm>
#include <map>
#include <random>

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>

using namespace harness;

namespace {

constexpr char BASE[] = "/etc/vantrelle";

UniqueFd bound_socket(const std::string &address, uint16_t port) {
    UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in own = socket_address(address, port);
    const int on = 1;
    const timeval patience{5, 0};
    setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    sandbox::must(bind(fd.get(), reinterpret_cast<const sockaddr *>(&own), sizeof own) == 0,
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
    bool closed(int timeout = 1000) const {
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

Bytes echo(const Bytes &message) {
    return *Upstream::echo(message);
}

// A server over TCP at 10.53.0.NUMBER, on a thread of its own.
class TcpUpstream {
  public:
    // Of a query, and of the connection's number from 0: the answer, or "close".
    using Answer = std::function<Bytes(const Bytes &, size_t)>;

    explicit TcpUpstream(
        int number, Answer what = [](const Bytes &asked, size_t) { return echo(asked); })
        : answer(std::move(what)),
          listener(bound_socket(sandbox::UPSTREAM_PREFIX + std::to_string(number), 53)) {
        sandbox::must(listen(listener.get(), 10) == 0, "listen");
        thread = std::thread([this] { serve(); });
    }
    ~TcpUpstream() {
        stopping = true;
        thread.join();
    }

    std::atomic<bool> holds_back = false; // answers, until it is false again
    std::atomic<size_t> count = 0;        // queries
    std::atomic<size_t> opened = 0, open = 0;

  private:
    struct Link : Connection {
        size_t number;
        Bytes held;
    };

    void serve() {
        std::vector<Link> links;
        while (!stopping) {
            pollfd source{listener.get(), POLLIN, 0};
            if (poll(&source, 1, 1) == 1)
                links.push_back(
                    {{UniqueFd(accept(listener.get(), nullptr, nullptr))}, opened++, {}});
            std::erase_if(links, [this](Link &link) { return !serve(link); });
            open = links.size();
        }
    }
    bool serve(Link &link) {
        while (link.ready(0)) {
            const std::optional<Bytes> message = link.receive();
            const Bytes reply = message ? answer(*message, link.number) : "close";
            count += message.has_value();
            if (reply == "close")
                return false;
            link.held += framed(reply);
        }
        return holds_back || link.write(std::exchange(link.held, {}));
    }

    Answer answer;
    UniqueFd listener;
    std::atomic<bool> stopping = false;
    std::thread thread;
};

struct Tcp : SystemTest {
    const Bytes question = query("a.example", 7);

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

Bytes malformed(Bytes message) {
    mark_malformed(reinterpret_cast<uint8_t *>(message.data()));
    return message;
}

// The specified one; the query as malformed where that would be too long for a message.
Bytes local_answer(const Bytes &message) {
    Bytes answer(65535, '\0');
    const auto *bytes = reinterpret_cast<const uint8_t *>(message.data());
    auto *into = reinterpret_cast<uint8_t *>(answer.data());
    const size_t size =
        make_local_answer({bytes, message.size()}, BlockAnswer::NONE, 0, {into, answer.size()});
    return size ? answer.substr(0, size) : malformed(message);
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
        Bytes cut = echo(message);
        cut[2] = static_cast<char>(cut[2] | 2);
        return cut;
    });
    const TcpUpstream tcp(1);
    configure();
    const Daemon daemon; // not primed: the first query over TCP is answered like any other
    const std::string dig = "dig @192.168.8.1 -b 192.168.8.20 +noedns +time=5 +tries=1 ";
    run(dig + "+tcp +keepopen a.example b.example c.example >/tmp/dig && "
              "test $(grep -c 'status: NOERROR' /tmp/dig) = 3");
    EXPECT_EQ(tcp.opened, 1U) << "shared by all";
    Client().send(query("first.example")); // over UDP the first one is lost
    run(dig + "long.example >/tmp/dig && grep -q 'retrying in TCP' /tmp/dig && "
              "grep -q 'status: NOERROR' /tmp/dig");
    EXPECT_EQ(tcp.count, 4U);
}

TEST_F(Tcp, MessagesComeInAnySplitAndGoWholeOrNot) {
    TcpUpstream server(1, [](const Bytes &message, size_t) {
        return sized(echo(message), message.size() > 999 ? 60000 : message.size());
    });
    configure();
    Daemon daemon;
    const TcpClient client;
    for (const char byte : framed(question)) {
        ASSERT_TRUE(client.write({byte}));
        usleep(1000);
    }
    EXPECT_EQ(client.receive(), echo(question));
    // Several at once, what is too short for a message among them, and half of one more.
    const Bytes big = sized(question, 3000), half = framed(question).substr(0, 20);
    EXPECT_TRUE(client.write(framed(question) + framed(Bytes(11, 'x')) + framed("x") + framed(big) +
                             framed(question.substr(0, 12)) + framed(echo(question)) + half));
    std::map<size_t, Bytes> answers;
    for (int count = 0; count < 3; count++) {
        const Bytes answer = client.receive().value_or("");
        answers[answer.size()] = answer;
    }
    EXPECT_EQ(answers[question.size()], echo(question));
    EXPECT_EQ(answers[60000], sized(echo(big), 60000));
    EXPECT_EQ(answers[12], malformed(question.substr(0, 12))) << "a header without a question";
    EXPECT_FALSE(client.ready(200)) << "a response is answered by nobody";
    EXPECT_TRUE(client.write(framed(question).substr(half.size())));
    EXPECT_EQ(client.receive(), echo(question));
    // Sixteen are out at a time; the rest comes through when they are answered, also to a client
    // that sends no more, and has sent half of a message last.
    server.holds_back = true;
    const size_t before = server.count;
    Bytes all;
    for (uint16_t id = 0; id < 20; id++)
        all += framed(query("held.example", id));
    EXPECT_TRUE(client.write(all + half));
    shutdown(client.fd.get(), SHUT_WR);
    EXPECT_TRUE(eventually([&] { return server.count == before + 16; }));
    usleep(100'000);
    EXPECT_EQ(server.count, before + 16);
    server.holds_back = false;
    std::map<uint16_t, int> ids;
    for (int count = 0; count < 20; count++)
        ids[id_of(client.receive().value_or(""))]++;
    EXPECT_EQ(ids.size(), 20U);
    EXPECT_TRUE(client.closed());
    // A message of nothing ends it, and so does a stop.
    const TcpClient other, last;
    EXPECT_TRUE(other.write(Bytes(2, '\0')) && other.closed());
    EXPECT_EQ(daemon.stop(), 0);
    EXPECT_TRUE(last.closed());
}

// Asks the same of two lives of the daemon, over UDP and over TCP.
TEST_F(Tcp, IsDecidedCountedAndRecordedAsOverUdp) {
    const Upstream udp(1);
    const TcpUpstream tcp(1);
    const std::pair<const char *, int> cases[] = {
        {"ads.example", 20},  {"x.AdS.Example", 21}, {"news.example", 22},
        {"news.example", 28}, {"Vantrelle", 28},     {"1.0.0.10.in-addr.arpa", 28}};
    const std::string file = BASE + "/vantrelle.db"s;
    std::string found[2];
    for (const bool is_tcp : {false, true}) {
        SetUp();
        fs::resize_file("/dev/ledchain0", 0);
        write_lists();
        configure({{"stats_db_path", BASE}, {"ignore_case", "1"}, {"log_stats_interval", "2"}});
        PrimedDaemon daemon;
        std::string &all = found[is_tcp];
        for (const auto &[name, number] : cases) {
            const Bytes asked = query(name, 99, 28, true);
            all += is_tcp ? TcpClient(number).ask(asked).value_or("")
                          : Client(number).ask(asked).value_or("none");
        }
        all += read_file("/dev/ledchain0");
        EXPECT_EQ(daemon.stop(), 0);
        all += read_rows(file, "select fqdn, ip from dns_traffic where ip glob '*.2[0-8]'");
        for (const char *list : {"black", "blocked_device"})
            all += read_rows(file, "select fqdn from "s + list + "_fqdn") +
                   read_rows(file, "select ip from "s + list + "_stats");
        for (const char *text : {"[ Req: 2 ] [ Blocked: 1 ]", "[ Req: 4 ] [ Blocked: 2 ]",
                                 "[ Req: 6 ] [ Blocked: 3 ]", "vantrelle is local server"})
            EXPECT_EQ(log_count(text), 1U) << text;
    }
    EXPECT_EQ(found[0], found[1]);
    EXPECT_EQ(tcp.count, 3U);

    write_lists();
    configure({{"ignore_case", "1"}, {"stats_db_path", BASE}, {"record_traffic", "0"}});
    {
        const PrimedDaemon daemon;
        const TcpClient client;
        for (const size_t size : {29, 600, 65519, 65520, 65535}) {
            const Bytes asked = sized(query("ads.example", 5), size);
            EXPECT_EQ(client.ask(asked), local_answer(asked)) << size;
        }
        std::mt19937 random(1);
        for (int spelling = 0; spelling < 100; spelling++) {
            Bytes asked = query("www.ads.example", 5);
            for (size_t at = 13; at < asked.size() - 5; at++)
                if (isalpha(asked[at]) && random() % 2)
                    asked[at] = static_cast<char>(asked[at] ^ 32);
            EXPECT_EQ(client.ask(asked), local_answer(asked)) << asked;
        }
    }
    configure({{"block_answer", "null"}, {"stats_db_path", BASE}});
    const PrimedDaemon daemon;
    const Bytes asked = query("ads.example", 5);
    const std::optional<Bytes> answer = TcpClient().ask(asked);
    EXPECT_EQ(answer, Client().ask(asked));
    EXPECT_NE(answer, local_answer(asked));
}

TEST_F(Tcp, ServersThatCloseRefuseOrSaySilentCostServerFailuresAtMost) {
    configure({{"dns_timeout", "400"}, {"log_level", "7"}});
    const Upstream udp(1), udp2(2);
    PrimedDaemon daemon;
    const TcpClient client;
    const auto failed = [](const std::string &why) {
        return log_count("No answer over TCP from upstream server 10.53.0.1: " + why);
    };
    // Nobody listens.
    Bytes asked = query("a.example", 0x1234, 1, true);
    asked[2] = '\x31'; // an opcode
    EXPECT_EQ(client.ask(asked), server_failure(asked, asked.size() - 11));
    EXPECT_EQ(failed("Connection refused"), 1U);
    {
        // Closes once, behind the answer to its first query.
        std::atomic<int> queries = 0;
        const TcpUpstream server(1, [&](const Bytes &message, size_t) {
            return ++queries == 2 ? "close" : echo(message);
        });
        EXPECT_TRUE(client.write(framed(question) + framed(question) + framed(question)));
        for (int count = 0; count < 3; count++)
            EXPECT_EQ(client.receive(), echo(question));
        EXPECT_EQ(server.opened, 2U);
        EXPECT_EQ(failed(""), 1U);
    }
    {
        const TcpUpstream server(1, [](auto &&...) { return "close"; });
        EXPECT_EQ(client.ask(question), server_failure(question, question.size()));
        EXPECT_EQ(failed("connection closed"), 1U);
        EXPECT_EQ(server.opened, 2U);
    }
    {
        // Answers nobody asked for, and then silence. A connection with a time-out is used no more,
        // though it has answered others meanwhile.
        const TcpUpstream server(1, [](const Bytes &message, size_t link) {
            Bytes reply = echo(message);
            if (message.find("forged") != Bytes::npos)
                reply[link == 0 ? 1 : 13] ^= 1; // the id, the name
            return reply;
        });
        const Bytes forged = query("forged.example", 2);
        for (size_t count = 1; count <= 2; count++) {
            EXPECT_TRUE(client.write(framed(forged)));
            usleep(200'000);
            EXPECT_EQ(client.ask(question), echo(question));
            EXPECT_EQ(client.receive(), server_failure(forged, forged.size()));
            EXPECT_EQ(failed("timed out"), count);
            EXPECT_EQ(server.opened, count);
            EXPECT_EQ(log_count("Dropping what answers no query"), count);
        }
    }
    // None of it has a part in which server is in use, and a switch moves nothing that waits.
    EXPECT_EQ(log_count("Switching to") + log_count("Response timed out"), 0U);
    EXPECT_TRUE(passes("udp.example"));
    EXPECT_EQ(daemon.stop(), 0);
    configure({{"dns_timeout", "3000"}});
    TcpUpstream first(1);
    const TcpUpstream second(2);
    const PrimedDaemon again;
    first.holds_back = true;
    for (int count = 0; count < 5; count++)
        Client().send(query("silent.example", 1));
    usleep(1'500'000);
    const TcpClient mover;
    EXPECT_TRUE(mover.write(framed(question)));
    ASSERT_TRUE(wait_for_log("Switching to Secondary Upstream DNS"));
    EXPECT_EQ(mover.ask(query("new.example", 2)), echo(query("new.example", 2)));
    first.holds_back = false;
    EXPECT_EQ(mover.receive(), echo(question));
    EXPECT_TRUE(first.count == 1 && second.count == 1);
}

// What takes its time, all at the same time.
TEST_F(Tcp, WhoStopsInTheMiddleIsClosedInTime) {
    const TcpUpstream server(1, [](const Bytes &message, size_t) {
        return sized(echo(message), message.find("long") == Bytes::npos ? 200 : 60000);
    });
    configure();
    const Daemon daemon;
    const Bytes asked = query("a-name-that-takes-its-time.example"), frame = framed(asked);
    const auto start = std::chrono::steady_clock::now();
    const TcpClient idle(20), half(21), slow(22), deaf(23, true), reader(24, true);
    EXPECT_TRUE(half.write(frame.substr(0, 10)));
    EXPECT_TRUE(slow.write(frame + frame.substr(0, 20)) && slow.receive());
    for (const TcpClient *each : {&deaf, &reader})
        for (int count = 0; count < 10; count++)
            EXPECT_TRUE(each->write(framed(query("long.example"))));
    std::map<const void *, double> ends;
    size_t sent = 20;
    for (double now = 0; now < 13;) {
        usleep(50'000);
        now = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        for (const TcpClient *each : {&idle, &half, &slow})
            if (each->closed(0))
                ends.emplace(each, now);
        if (deaf.ready(0, POLLRDHUP))
            ends.emplace(&deaf, now);
        if (now > 2 && server.open == 0)
            ends.emplace(&server, now);
        if (now > static_cast<double>(sent - 19) && sent < frame.size() - 1)
            slow.write(frame.substr(sent++, 1));
        EXPECT_TRUE(reader.read(2000)); // a little at a time
    }
    EXPECT_NEAR(ends[&idle], 10, 1);
    EXPECT_NEAR(ends[&half], 2, 0.8);
    EXPECT_NEAR(ends[&deaf], 10.5, 1);
    EXPECT_NEAR(ends[&server], 5.5, 1.5);
    EXPECT_FALSE(ends.contains(&slow)) << "a byte a second is progress";
    EXPECT_TRUE(slow.write(frame.substr(sent)));
    EXPECT_EQ(slow.receive(), sized(echo(asked), 200));
}

TEST_F(Tcp, AnswersThatNobodyTakesAreNotKeptWithoutEnd) {
    TcpUpstream server(1, [](const Bytes &message, size_t) { return sized(echo(message), 65535); });
    configure();
    const Daemon daemon;
    bool is_closed = false;
    // So many answers fill what the kernel takes, and leave the connection to be read.
    for (int first = 2; first < 12 && !is_closed; first++) {
        const TcpClient deaf(20, true);
        for (int count = 0; count < first + 40; count++) {
            EXPECT_TRUE(deaf.write(framed(question)));
            if (count == first) {
                usleep(100'000);
                server.holds_back = true;
            }
        }
        usleep(100'000);
        server.holds_back = false;
        is_closed = deaf.ready(1000, POLLRDHUP);
    }
    EXPECT_TRUE(is_closed) << "with 1 MB unsent";
    EXPECT_TRUE(TcpClient().ask(question));
}

// What the kernel still holds of a closed connection would be bounded by nothing.
TEST_F(Tcp, WhoTakesNoAnswersLeavesNoneBehind) {
    const TcpUpstream server(
        1, [](const Bytes &message, size_t) { return sized(echo(message), 60000); });
    configure();
    const Daemon daemon;
    std::vector<TcpClient> deaf;
    for (int count = 0; count < 30; count++) {
        deaf.emplace_back(20, true);
        deaf.back().write(framed(query("a.example")));
        if (count % 2)
            shutdown(deaf.back().fd.get(), SHUT_WR);
        usleep(20'000);
    }
    // Of the router's ends those that are closed and have more than a few bytes to deliver.
    run("! awk '$2 ~ /:0035$/ && $4 ~ /04|09/ && $5 ~ /^0000[1-9A-F]/' /proc/net/tcp | grep .");
    EXPECT_TRUE(TcpClient(21).ask(query("b.example")));
}

TEST_F(Tcp, ManyConnectionsTakeTheIdleOnesPlaces) {
    const Upstream udp(1);
    TcpUpstream server(1);
    configure({{"dns_timeout", "20000"}, {"tcp_connections", "7"}});
    const PrimedDaemon daemon;
    const size_t descriptors = daemon.descriptors();
    {
        const TcpClient own[5]; // of one device
        for (const int number : {0, 1, 2, 3, 4, 0})
            EXPECT_TRUE(own[number].ask(question));
        const TcpClient sixth(20);
        EXPECT_TRUE(sixth.ask(question));
        EXPECT_TRUE(own[1].closed()) << "idle for longest";
        const TcpClient other(21), third(22); // full
        EXPECT_TRUE(other.ask(question) && third.ask(question));
        const TcpClient fourth(23);
        EXPECT_TRUE(fourth.ask(question));
        EXPECT_TRUE(own[2].closed()) << "idle for longest of all";
        // Nobody idle: the new one goes.
        server.holds_back = true;
        const TcpClient *const all[] = {&sixth, &fourth, &other, &third, &own[0], &own[3], &own[4]};
        const size_t before = server.count;
        for (const TcpClient *busy : all)
            EXPECT_TRUE(busy->write(framed(question)));
        EXPECT_TRUE(eventually([&] { return server.count == before + 7; }));
        EXPECT_TRUE(TcpClient(24).closed() && TcpClient(20).closed());
        server.holds_back = false;
        for (const TcpClient *busy : all)
            EXPECT_EQ(busy->receive(), echo(question));
    }
    {
        std::vector<TcpClient> clients;
        for (int number = 0; number < 1000; number++)
            clients.emplace_back(20 + number % 10).write(framed(question));
        int answered = 0;
        for (const TcpClient &each : clients)
            answered += each.receive() == echo(question);
        EXPECT_GE(answered, 7);
        EXPECT_LE(daemon.descriptors(), descriptors + 7 + 2);
        EXPECT_TRUE(passes("udp.example"));
    }
    // Without descriptors they wait, and the daemon does not turn round and round.
    const std::string cannot = "Cannot accept TCP connections: Too many open files";
    rlimit enough{}, few{};
    ASSERT_EQ(prlimit(daemon.pid(), RLIMIT_NOFILE, nullptr, &enough), 0);
    few.rlim_max = enough.rlim_max;
    ASSERT_EQ(prlimit(daemon.pid(), RLIMIT_NOFILE, &few, nullptr), 0);
    const TcpClient waiting;
    EXPECT_TRUE(wait_for_log(cannot));
    usleep(200'000);
    EXPECT_EQ(log_count(cannot), 1U);
    ASSERT_EQ(prlimit(daemon.pid(), RLIMIT_NOFILE, &enough, nullptr), 0);
    EXPECT_EQ(waiting.ask(question), echo(question));
}

// While the database makes decisions wait, many queries over TCP come, and then one over UDP.
TEST_F(Tcp, AFloodHoldsUpADatagramForOneDecision) {
    write_lists();
    configure({{"log_level", "7"}, {"stats_db_path", BASE}});
    const Upstream udp(1);
    const PrimedDaemon daemon;
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
    const Upstream udp(1);
    const UniqueFd taker = bound_socket(sandbox::ROUTER, 53);
    ASSERT_EQ(listen(taker.get(), 1), 0);
    for (const char *queries : {"0", "300"}) {
        configure({{"concurrent_queries", queries}});
        PrimedDaemon daemon;
        EXPECT_TRUE(passes("a.example"));
        EXPECT_EQ(daemon.stop(), 0);
    }
    expect_logged(LOG_WARNING,
                  {"tcp_connections needs concurrent_queries above 0, serving no TCP"});
    expect_logged(LOG_ERR, {"No TCP connections on 192.168.8.1#53: Address already in use"});
    EXPECT_EQ(log_count("TCP connections: 20"), 1U);
}

} // namespace
