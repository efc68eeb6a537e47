// The service script on a router's shell and tools (busybox), under a stand-in of its supervisor.
#include "router.h"

#include <set>
#include <sstream>

using namespace harness;

namespace {

using Clock = std::chrono::steady_clock;

struct Service : Router {
    Upstream upstream{1};
    unsigned long first_socket = 0; // when the test's action began
    size_t primed = 0;              // daemons

    void SetUp() override {
        Router::SetUp();
        configure({{"dns_timeout", "30000"}});
        service("start");
        expect_new_daemon();
    }

    static void service(const std::string &action) { run("/etc/init.d/vantrelle " + action); }

    // The inode of the daemon's listening socket; 0 while there is none.
    static unsigned long listener() {
        const std::string sockets = read_file("/proc/net/udp");
        const size_t at = sockets.find("08A8C0:0035 00000000:0000"); // 192.168.8.0, port 53
        unsigned long inode = 0;
        if (at != std::string::npos)
            sscanf(sockets.c_str() + at, "%*s %*s %*s %*s %*s %*s %*s %*s %lu", &inode);
        return inode;
    }

    bool is_new() const { return listener() && listener() != first_socket; }

    // A daemon that was not there before listens, and answers the first client. Whoever asks in the
    // very moment of its start may be first and is not answered.
    void expect_new_daemon(const char *address = sandbox::ROUTER) {
        ASSERT_TRUE(eventually([&] { return is_new(); }));
        first_socket = listener();
        ASSERT_TRUE(eventually(
            [&] { return log_count("Received error: Invalid argument") > primed; })) // no address
            << "not primed";
        primed++;
        EXPECT_TRUE(Client().ask(query("first.example"), address));
    }
};

TEST_F(Service, ReloadRestartsOnlyForAChange) {
    service("reload");
    EXPECT_FALSE(eventually([&] { return is_new() || log_count("signal") > 0; }, 500));
    configure({{"board", "Other"}});
    service("reload");
    expect_new_daemon();
    EXPECT_EQ(log_count("Shutdown Complete"), 1U);
}

// No datagram of a client reaches the old daemon then. One that still waits for an upstream is
// killed.
TEST_F(Service, AddressChange) {
    const auto change_to = [](const char *address) {
        run("ip addr flush dev apcli0 && ip addr add "s + address + "/24 dev apcli0");
        service("reload");
    };
    change_to("192.168.8.2");
    expect_new_daemon("192.168.8.2");
    EXPECT_EQ(log_count("Shutdown Complete"), 1U);
    const size_t waiting = upstream.count() + 1;
    Client().send(query("silent.example"), "192.168.8.2");
    ASSERT_TRUE(eventually([&] { return upstream.count() == waiting; }));
    change_to("192.168.8.3");
    EXPECT_TRUE(eventually([&] { return is_new(); }));
    EXPECT_EQ(system("{ ip addr; ip route; } | grep '192.168.8.[12][/ ]'"), 256)
        << "a borrowed address stayed";
}

TEST_F(Service, CrashIsPrimedToo) {
    run("kill -KILL $(pidof vantrelled)");
    expect_new_daemon();
}

TEST_F(Service, StopAndRestartAreOrderlyAndFast) {
    for (size_t round = 1; const char *action : {"restart", "stop"}) {
        const auto start = Clock::now();
        service(action);
        EXPECT_LT(Clock::now() - start, std::chrono::seconds(4)) << action;
        EXPECT_EQ(log_count("Shutdown Complete"), round++);
        if (action == "restart"s)
            expect_new_daemon();
    }
    EXPECT_FALSE(eventually([&] { return is_new(); }, 6000)) << "stopped, and started again";
}

std::set<std::string> options_in(const std::string &settings) {
    std::set<std::string> options;
    std::istringstream lines(settings);
    for (std::string line; std::getline(lines, line);)
        if (line.starts_with("\toption"))
            options.insert(line);
    return options;
}

// What the first boot or the installation switches on, and what it leaves alone.
TEST_F(Router, RecommendedSettingsAreForANewInstallationOnly) {
    const std::string shipped = read_file(SHIPPED_FILES "/etc/config/vantrelle");
    const struct {
        const char *preparation; // beside the shipped settings
        bool is_new;
    } routers[] = {
        {"rm -r /etc/vantrelle", true},
        {"touch /etc/vantrelle/notes", true},
        {"sed -i '/path/d' /etc/config/vantrelle", true},
        {"sed -i '/path/d' /etc/config/vantrelle && touch /etc/vantrelle/black.lst", false},
        {"touch /etc/vantrelle/local_device.lst", false},
        {"touch /etc/vantrelle/vantrelle.db", false},
        {"mkdir -p /tmp/usb && touch /tmp/usb/vantrelle.db && "
         "sed -i '/stats_db_path/s|/etc/vantrelle|/tmp/usb|' /etc/config/vantrelle",
         false},
        {"uci set 'vantrelle.@main[0].concurrent_queries=0' && uci commit vantrelle", false},
        {"uci set 'vantrelle.@main[0].upstream_port=5353' && uci commit vantrelle", false},
        {"uci set 'vantrelle.@main[0].block_ttl=5' && uci commit vantrelle", false},
    };
    size_t lines = 0;
    for (const auto &router : routers) {
        SCOPED_TRACE(router.preparation);
        write_file("/etc/config/vantrelle", shipped);
        run("rm -rf /etc/vantrelle && mkdir /etc/vantrelle && "s + router.preparation);
        const std::string before = read_file("/etc/config/vantrelle");
        // As the router does it; a second time finds what the first one left.
        for (int time = 0; time < 2; time++) {
            run("cp " SHIPPED_FILES "/etc/uci-defaults/90_vantrelle /tmp && cd /tmp && "
                "(. ./90_vantrelle) && rm 90_vantrelle");
            lines += !router.is_new || time == 1;
        }
        const std::string after = read_file("/etc/config/vantrelle");
        EXPECT_EQ(after == before, !router.is_new);
        std::set<std::string> expected = options_in(before);
        if (router.is_new)
            expected.insert({"\toption stats_max_size '16'", "\toption stats_write_delay '10'",
                             "\toption ignore_case '1'", "\toption block_answer 'null'",
                             "\toption tcp_connections '20'", "\toption concurrent_queries '300'"});
        EXPECT_EQ(options_in(after), expected);
        const std::string pointed_out =
            "test $(grep -c 'vantrelled: .*docs/' "s + sandbox::LOG_FILE + ") = ";
        EXPECT_TRUE(
            eventually([&] { return system((pointed_out + std::to_string(lines)).c_str()) == 0; }));
    }
}

} // namespace
