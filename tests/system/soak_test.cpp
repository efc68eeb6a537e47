// A long run: queries of every kind, with edits, settings and time-outs in between, and imports
// whenever the daemon starts anew. It must leave memory, descriptors and threads as they were after
// the first ten thousand. For two million, which take minutes:
//     SOAK_QUERIES=2000000 build/release/bin/system_tests --gtest_filter='Soak*'
#include "bus.h"

using namespace harness;

namespace {

constexpr size_t LIVES = 4, AT_ONCE = 50, FIRST = 10'000;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t MAX_GROWTH = 1 << 20; // KiB; a sanitizer keeps what was freed
#else
constexpr size_t MAX_GROWTH = 1024;
#endif

struct Question {
    int client;
    const char *before, *behind; // what stands around a number
    int rcode;
};

constexpr Question QUESTIONS[] = {
    {20, "www", ".example", 0},      {20, "host", ".ads.example", 3},
    {21, "blocked", ".example", 3},  {22, "free", ".ads.example", 0},
    {20, "list-", ".black", 3},      {20, "good", ".ads.example", 0},
    {20, "edited-", ".example", 0},  {20, "", ".in-addr.arpa", 0},
    {20, "it's", "%s%n.example", 0}, {20, "\xff\x80", "", 0},
};

struct Soak : BusTest {
    const Client clients[3]{Client(20), Client(21), Client(22)};

    const Client &client_of(size_t number) const {
        return clients[QUESTIONS[number % std::size(QUESTIONS)].client - 20];
    }
    void ask(size_t first) const {
        for (size_t number = first; number < first + AT_ONCE; number++) {
            const Question &question = QUESTIONS[number % std::size(QUESTIONS)];
            const std::string name =
                question.before + std::to_string(number % 2000) + question.behind;
            client_of(number).send(query(name, static_cast<uint16_t>(number % 60000)));
        }
        for (size_t number = first; number < first + AT_ONCE; number++) {
            const std::optional<Bytes> answer = client_of(number).receive();
            ASSERT_TRUE(answer) << number;
            ASSERT_EQ(rcode_of(*answer), QUESTIONS[id_of(*answer) % std::size(QUESTIONS)].rcode);
        }
    }
    // What is going on while queries flow.
    void disturb(Connection &connection, size_t number) const {
        const auto edit = [&](const char *method, const std::string &pattern) {
            connection.start(method, "{\"list\":\"" + pattern + "\",\"option\":\"4\"}");
        };
        const std::string counter = std::to_string(number / 2 % 20);
        const char *method = number % 2 ? "remove" : "add";
        edit(method, R"(bl","pattern":"unasked-)" + counter);
        edit(method, R"(wl","pattern":"edited-)" + counter + ".example");
        connection.start("set_config", R"({"dns1":"10.53.0.1","loglevel":"3","track":")" +
                                           std::to_string(number % 4 > 0) + "\"}");
        for (const char *reader : {"stats", "clients", "get_config"})
            connection.start(reader);
        edit("list", R"(bl","start":"1","count":"50)");
        clients[0].send(query("silent.example"));
    }
    static void drop_in_lists() {
        const std::string base = "/etc/vantrelle/";
        std::string black = "ads.example,1\n";
        for (int number = 0; number < 2000; number++)
            black += "list-" + std::to_string(number) + ".black,4\n";
        write_file(base + "black.lst", black);
        write_file(base + "local_white.lst", "good,2\n");
        write_file(base + "blocked_device.lst", "192.168.8.21,4\n");
        write_file(base + "local_device.lst", "192.168.8.22,4\n");
    }
};

struct Use {
    size_t memory, descriptors, threads;
    Use(Connection &connection, const Daemon &daemon) {
        connection.serve(300); // no call is under way
        memory = daemon.figure("VmRSS");
        descriptors = daemon.descriptors();
        threads = daemon.figure("Threads");
    }
};

} // namespace

TEST_F(Soak, NothingGrows) {
    const char *given = getenv("SOAK_QUERIES");
    const size_t each = (given ? std::stoul(given) : 20'000) / LIVES;
    for (size_t life = 1; life <= LIVES; life++) {
        drop_in_lists();
        start({{"dns_timeout", "200"}});
        Connection connection;
        std::optional<Use> before;
        for (size_t asked = 0; asked < each && !HasFailure(); asked += AT_ONCE) {
            if (asked % std::max(FIRST / 5, each / 50) == 0)
                disturb(connection, asked / AT_ONCE);
            if (asked == std::min(FIRST, each / 2))
                before.emplace(connection, *daemon);
            ask(asked);
            connection.serve(1, 0);
        }
        const Use after(connection, *daemon);
        EXPECT_EQ(connection.pending, 0);
        printf("%zu queries: resident %zu KiB, then %zu; descriptors %zu, %zu; threads %zu, %zu\n",
               each, before->memory, after.memory, before->descriptors, after.descriptors,
               before->threads, after.threads);
        EXPECT_LE(after.memory, before->memory + MAX_GROWTH);
        EXPECT_EQ(after.descriptors, before->descriptors);
        EXPECT_EQ(after.threads, before->threads);
        EXPECT_EQ(daemon->stop(), 0);
    }
}
