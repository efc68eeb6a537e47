// The service script on a router's shell and tools (busybox), under a stand-in of its supervisor.
#include "router.h"
#include "transcript.h"

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

// What the first boot or the installation switches on, and what it leaves alone.
TEST_F(Router, RecommendedSettingsAreForANewInstallationOnly) {
    expect_transcript("first-boot", "SHIPPED=" SHIPPED_FILES "; . " ROUTER_FILES
                                    "/owner.sh; . " ROUTER_FILES "/first_boot.sh\n");
}

} // namespace
