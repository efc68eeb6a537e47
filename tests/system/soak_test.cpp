// Long runs: queries of every kind, with edits, settings, reports and time-outs in between, and
// imports whenever the daemon starts anew. It must leave memory, descriptors and threads as they
// were after the first ten thousand. For two million, which take minutes:
//     SOAK_QUERIES=2000000 build/release/bin/system_tests --gtest_filter='Soak.Nothing*'
// and for half a million at servers that answer unreliably:
//     SOAK_QUERIES=500000 build/release/bin/system_tests --gtest_filter='Soak.Many*'
#include "bus.h"

#include <random>

using namespace harness;

namespace {

constexpr size_t CLIENTS = 3, AT_ONCE = 50, FIRST = 10'000;
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

void drop_in_lists() {
    std::string black = "ads.example,1\n";
    for (int number = 0; number < 2000; number++)
        black += "list-" + std::to_string(number) + ".black,4\n";
    write_file("/etc/vantrelle/black.lst", black);
    write_file("/etc/vantrelle/local_white.lst", "good,2\n");
    write_file("/etc/vantrelle/blocked_device.lst", "192.168.8.21,4\n");
    write_file("/etc/vantrelle/local_device.lst", "192.168.8.22,4\n");
}

struct Soak : BusTest {
    const Client clients[CLIENTS]{Client(20), Client(21), Client(22)};

    void SetUp() override {
        setenv("ASAN_OPTIONS", "quarantine_size_mb=1", 1); // of 256, which look like a leak
        BusTest::SetUp();
    }
    // Returns how many were answered, while the next answer came within `patience` milliseconds.
    // Nobody gets an answer that is not to a query of his own.
    size_t ask(size_t first, int patience) const {
        std::map<uint16_t, Bytes> open[CLIENTS];
        for (size_t number = first; number < first + AT_ONCE; number++) {
            const auto &[client, before, behind, rcode] = kind_of(number);
            const auto id = static_cast<uint16_t>(number % 60000);
            open[client][id] = query(before + std::to_string(number % 2000) + behind, id);
            clients[client].send(open[client][id]);
        }
        size_t answered = 0;
        for (size_t each = 0; each < CLIENTS; each++)
            while (const auto answer = clients[each].receive(open[each].empty() ? 0 : patience)) {
                const auto mine = open[each].extract(id_of(*answer));
                if (mine.empty())
                    continue; // of a round before
                answered++;
                if (kind_of(mine.key()).rcode == 0)
                    EXPECT_EQ(*answer, Upstream::echo(mine.mapped()));
                else
                    EXPECT_EQ(rcode_of(*answer), kind_of(mine.key()).rcode);
            }
        return answered;
    }
    // Changes that no answer shows, and calls that only read.
    void administer(Connection &connection, size_t number) const {
        const std::string edit = number % 2 ? "remove" : "add",
                          count = std::to_string(number / 2 % 20);
        connection.start(edit.c_str(),
                         R"({"option":"4","list":"bl","pattern":"unasked-)" + count + "\"}");
        connection.start(edit.c_str(),
                         R"({"option":"4","list":"wl","pattern":"edited-)" + count + ".example\"}");
        connection.start("set_config", R"({"dns1":"10.53.0.1","loglevel":"3","track":")" +
                                           std::to_string(number % 4 > 0) + "\"}");
        connection.start("list", R"({"list":"bl","start":"1","count":"50"})");
        for (const char *method : {"stats", "clients", "get_config"})
            connection.start(method);
        daemon->signal(SIGUSR2);
    }
    // Resident KiB, descriptors and threads, once no call is under way.
    std::array<size_t, 3> use(Connection &connection) const {
        connection.serve(10000);
        return {daemon->figure("VmRSS"), daemon->descriptors(), daemon->figure("Threads")};
    }
    // One life of the daemon. With patience next to every query is answered.
    void live(size_t total, int patience, size_t more_descriptors, const Options &options) {
        drop_in_lists();
        start(options);
        Connection connection;
        std::array<size_t, 3> before{};
        size_t answered = 0;
        for (size_t asked = 0; asked < total && !HasFailure(); asked += AT_ONCE) {
            if (asked == std::min(FIRST, total / 2))
                before = use(connection);
            if (asked % (total / 100) == 0)
                administer(connection, asked / (total / 100));
            if (asked % std::max(FIRST / 5, total / 50) == 0)
                clients[0].send(query("silent.example"));
            answered += ask(asked, patience);
            connection.serve(0);
        }
        sleep(1); // the last time-outs
        const std::array<size_t, 3> after = use(connection);
        printf("%zu of %zu answered: %zu KiB, then %zu; %zu descriptors, %zu; %zu threads, %zu\n",
               answered, total, before[0], after[0], before[1], after[1], before[2], after[2]);
        EXPECT_GE(answered, total * (patience > 1000 ? 99 : 75) / 100);
        EXPECT_LE(after[0], before[0] + MAX_GROWTH);
        EXPECT_LE(after[1], before[1] + more_descriptors);
        EXPECT_EQ(after[2], before[2]);
        // done, exists already, not found
        EXPECT_EQ(connection.statuses[0] + connection.statuses[2] + connection.statuses[7], 700);
        EXPECT_EQ(daemon->stop(), 0);
    }
    static size_t queries(size_t otherwise) {
        const char *given = getenv("SOAK_QUERIES");
        return given ? std::stoul(given) : otherwise;
    }
};

} // namespace

TEST_F(Soak, NothingGrows) {
    constexpr size_t LIVES = 4;
    for (size_t life = 0; life < LIVES && !HasFailure(); life++)
        live(queries(20'000) / LIVES, 5000, 0, {{"dns_timeout", "1000"}});
}

// Servers lose, delay, repeat and reorder what they answer.
TEST_F(Soak, ManyQueriesAtOnce) {
    const auto unreliable = [random = std::mt19937(1)](const Bytes &message) mutable {
        std::vector<std::pair<int, Bytes>> replies;
        const auto answer = Upstream::echo(message);
        const unsigned fate = random() % 100;
        if (answer && fate >= 3) // else it is lost
            replies.emplace_back(fate < 50 ? 0 : random() % 30, *answer);
        if (answer && fate < 10)
            replies.emplace_back(random() % 250, *answer);
        return replies;
    };
    upstream.reset();
    const Upstream first(1, unreliable), second(2, unreliable), third(3, unreliable);
    constexpr size_t SOCKETS = 128;
    live(queries(5'000), 40, SOCKETS, {{"concurrent_queries", "100"}, {"dns_timeout", "150"}});
}
