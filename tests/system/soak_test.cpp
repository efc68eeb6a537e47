// Long runs: queries of every kind, with edits, settings and time-outs in between, and imports
// whenever the daemon starts anew. It must leave memory, descriptors and threads as they were after
// the first ten thousand. For two million, which take minutes:
//     SOAK_QUERIES=2000000 build/release/bin/system_tests --gtest_filter='Soak*'
#include "bus.h"

#include <random>

using namespace harness;

namespace {

constexpr size_t LIVES = 4, AT_ONCE = 50, FIRST = 10'000;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t MAX_GROWTH = 32 << 10; // KiB; a sanitizer keeps some of what was freed
#else
constexpr size_t MAX_GROWTH = 1024;
#endif

struct Kind {
    size_t client;               // 20 + this
    const char *before, *behind; // what stands around a number
    int rcode;
};

constexpr Kind KINDS[] = {
    {0, "www", ".example", 0},      {0, "host", ".ads.example", 3}, {1, "blocked", ".example", 3},
    {2, "free", ".ads.example", 0}, {0, "list-", ".black", 3},      {0, "good", ".ads.example", 0},
    {0, "edited-", ".example", 0},  {0, "", ".in-addr.arpa", 0},    {0, "it's", "%s%n.example", 0},
    {0, "\xff\x80", "", 0},
};

const Kind &kind_of(size_t number) {
    return KINDS[number % std::size(KINDS)];
}

struct Soak : BusTest {
    void SetUp() override {
        setenv("ASAN_OPTIONS", "quarantine_size_mb=1", 1); // of 256, which look like a leak
        BusTest::SetUp();
    }
    const Client clients[3]{Client(20), Client(21), Client(22)};

    void ask(size_t first) const {
        for (size_t number = first; number < first + AT_ONCE; number++) {
            const auto &[client, before, behind, rcode] = kind_of(number);
            const std::string name = before + std::to_string(number % 2000) + behind;
            clients[client].send(query(name, static_cast<uint16_t>(number % 60000)));
        }
        for (size_t number = first; number < first + AT_ONCE; number++) {
            const std::optional<Bytes> answer = clients[kind_of(number).client].receive();
            ASSERT_TRUE(answer) << number;
            ASSERT_EQ(rcode_of(*answer), kind_of(id_of(*answer)).rcode);
        }
    }
    static void drop_in_lists() {
        std::string black = "ads.example,1\n";
        for (int number = 0; number < 2000; number++)
            black += "list-" + std::to_string(number) + ".black,4\n";
        write_file("/etc/vantrelle/black.lst", black);
        write_file("/etc/vantrelle/local_white.lst", "good,2\n");
        write_file("/etc/vantrelle/blocked_device.lst", "192.168.8.21,4\n");
        write_file("/etc/vantrelle/local_device.lst", "192.168.8.22,4\n");
    }
    // Changes that no answer shows, and calls that only read.
    static void administer(Connection &connection, size_t number) {
        const auto edit = [&](const char *list, const std::string &pattern) {
            connection.start(number % 2 ? "remove" : "add", R"({"option":"4","list":")"s + list +
                                                                R"(","pattern":")" + pattern +
                                                                "\"}");
        };
        const std::string counter = std::to_string(number / 2 % 20);
        edit("bl", "unasked-" + counter);
        edit("wl", "edited-" + counter + ".example");
        connection.start("set_config", R"({"dns1":"10.53.0.1","loglevel":"3","track":")" +
                                           std::to_string(number % 4 > 0) + "\"}");
        connection.start("list", R"({"list":"bl","start":"1","count":"50"})");
        for (const char *method : {"stats", "clients", "get_config"})
            connection.start(method);
    }
    // Resident KiB, descriptors and threads, once no call is under way.
    std::array<size_t, 3> use(Connection &connection) const {
        connection.serve(10000);
        return {daemon->figure("VmRSS"), daemon->descriptors(), daemon->figure("Threads")};
    }
};

} // namespace

TEST_F(Soak, NothingGrows) {
    const char *given = getenv("SOAK_QUERIES");
    const size_t each = (given ? std::stoul(given) : 20'000) / LIVES;
    for (size_t life = 0; life < LIVES && !HasFailure(); life++) {
        drop_in_lists();
        start({{"dns_timeout", "200"}});
        Connection connection;
        std::array<size_t, 3> before{};
        for (size_t asked = 0; asked < each && !HasFailure(); asked += AT_ONCE) {
            if (asked == std::min(FIRST, each / 2))
                before = use(connection);
            if (asked % (each / 100) == 0)
                administer(connection, asked / (each / 100));
            if (asked % std::max(FIRST / 5, each / 50) == 0)
                clients[0].send(query("silent.example"));
            ask(asked);
            connection.serve(0);
        }
        const std::array<size_t, 3> after = use(connection);
        printf("%zu queries: %zu KiB, then %zu; %zu descriptors, %zu; %zu threads, %zu\n", each,
               before[0], after[0], before[1], after[1], before[2], after[2]);
        EXPECT_LE(after[0], before[0] + MAX_GROWTH);
        EXPECT_EQ(after[1], before[1]);
        EXPECT_EQ(after[2], before[2]);
        int replies = 0;
        for (const int status : {0, 2, 7}) // done, exists already, not found
            replies += connection.statuses[status];
        EXPECT_EQ(replies, 7 * 100);
        EXPECT_EQ(daemon->stop(), 0);
    }
}

// Many queries at once, and servers that lose, delay, repeat and reorder what they answer. Nobody
// ever gets an answer that is not to a query of his own. For half a million queries:
//     SOAK_QUERIES=500000 build/release/bin/system_tests --gtest_filter='*AtOnce'
TEST_F(Soak, ManyQueriesAtOnce) {
    const char *given = getenv("SOAK_QUERIES");
    const size_t total = given ? std::stoul(given) : 5'000;
    const auto unreliable = [random = std::mt19937(1)](const Bytes &message) mutable {
        std::vector<std::pair<int, Bytes>> replies;
        const unsigned fate = random() % 100;
        if (fate >= 3) // else it is lost
            replies.emplace_back(fate < 50 ? 0 : random() % 30, *Upstream::echo(message));
        if (fate < 10)
            replies.emplace_back(random() % 250, *Upstream::echo(message));
        return replies;
    };
    upstream.reset();
    const Upstream first(1, unreliable), second(2, unreliable), third(3, unreliable);
    start({{"concurrent_queries", "100"}, {"dns_timeout", "150"}});
    Connection connection;
    std::array<size_t, 3> before{};
    size_t answered = 0;
    for (size_t asked = 0; asked < total && !HasFailure(); asked += AT_ONCE) {
        if (asked == std::min(FIRST, total / 2))
            before = use(connection);
        if (asked % (total / 100) == 0) {
            administer(connection, asked / (total / 100));
            daemon->signal(SIGUSR2);
        }
        std::map<uint16_t, Bytes> open;
        for (size_t number = asked; number < asked + AT_ONCE; number++) {
            const auto id = static_cast<uint16_t>(number);
            open[id] = query("q" + std::to_string(number) + ".example", id);
            clients[0].send(open[id]);
        }
        // Waits for the rest of a round only as long as they come.
        while (const std::optional<Bytes> answer = clients[0].receive(open.empty() ? 0 : 40)) {
            const auto mine = open.find(id_of(*answer));
            if (mine == open.end())
                continue; // of a round before
            EXPECT_EQ(*answer, Upstream::echo(mine->second));
            open.erase(mine);
            answered++;
        }
        connection.serve(0);
    }
    sleep(1); // the last time-outs
    const std::array<size_t, 3> after = use(connection);
    printf("%zu of %zu answered: %zu KiB, then %zu; %zu descriptors, %zu; %zu threads, %zu\n",
           answered, total, before[0], after[0], before[1], after[1], before[2], after[2]);
    EXPECT_GT(answered, total * 9 / 10);
    EXPECT_LE(after[0], before[0] + MAX_GROWTH);
    EXPECT_LE(after[1], before[1] + 128) << "its sockets";
    EXPECT_EQ(after[2], before[2]);
    EXPECT_EQ(daemon->stop(), 0);
}
