// The daemon as a process: options, start-up, signals, exit statuses.
#include "database.h"
#include "harness.h"

using namespace harness;

namespace {

struct LifecycleTest : SystemTest {
    const Upstream primary{1};
};

TEST_F(LifecycleTest, OptionsThatEndTheProcess) {
    constexpr struct {
        const char *option;
        int status;
        const char *output, *logged; // the latter as a warning, if anything
    } cases[] = {
        {"-v", 0, "Vantrelle v2.03a MIPS\nCopyright (C) 2026 The Vantrelle project\n", ""},
        {"-n", 0, "2.03a", ""},             // and no line end
        {"-f", 0, "", "Unknown option: f"}, // the usage names it, the parser does not know it
        {"-p", 0, "", "Unknown option: p"}, // its argument is missing
        {"-?", 0, "", ""},
        {"-b", 128 + SIGUSR1, "", ""}, // raised before there are handlers
        {"-r", 128 + SIGHUP, "", ""},
    };
    for (const auto &[option, status, output, logged] : cases) {
        Process daemon(daemon_program, {option});
        EXPECT_EQ(daemon.wait(), status) << option;
        EXPECT_TRUE(!*output || daemon.output() == output) << daemon.output();
        EXPECT_EQ(log_priority(logged), *logged ? LOG_WARNING : -1) << option;
    }
    EXPECT_EQ(log_count("Usage -p <listen port> -u <dns address> -m <max threads> -t "), 3U);
    EXPECT_EQ(log_count("Restarting PID: ") + log_count("Startup"), 1U);
}

TEST_F(LifecycleTest, StoredSettingsAndDefaultsReplaceTheOptions) {
    write_file("/etc/config/vantrelle", "");
    const Daemon daemon({"-l", "6", "-p", "5300",   "-m", "2",  "-t", "1",         "-x", "3",
                         "-s", "1", "-c", "/tmp/x", "-i", "lo", "-u", "10.53.0.1", "-y", "a"});
    expect_logged(LOG_INFO, {"Listen on ipv4: 192.168.8.1#53", "Upstream DNS Timeout: 2000",
                             "Socket Buffer Size 65535", "Thread pool size: 5",
                             "Log stats interval: 100", "Log level: 6", "Admin Enabled: True",
                             "Base Directory: /etc/vantrelle", "Host Name: Vantrelle-22AABBCC"});
    EXPECT_EQ(log_count("Upstream DNS: 10.53.0.") + log_count("Concurrent") + log_count("port: "),
              0U);
    EXPECT_EQ(log_lines().front().ident, "vantrelled");
}

TEST_F(LifecycleTest, StartsWithTheStoredSettingsAndStopsAfterTheNextDatagram) {
    configure({{"port", "53"}, {"log_level", "7"}, {"thread_pool", "2"}, {"path", "/etc/lists"}},
              {{"debug", "1"}});
    PrimedDaemon daemon;
    EXPECT_EQ(read_file("/etc/resolv.conf"),
              "search wlan\nnameserver 127.0.0.1\nnameserver 10.53.0.1\n");
    EXPECT_EQ(fs::status("/etc/lists").permissions(), fs::perms(0700));
    EXPECT_TRUE(passes("up.example"));
    daemon.signal(SIGTERM);
    ASSERT_TRUE(wait_for_log("Processing signal SIGABRT"));
    expect_logged(LOG_INFO, {"Creating directory /etc/lists", "Thread pool size: 2", "Debug: True",
                             "Processing signal 15", "Processing signal SIGTERM",
                             "Processing signal SIGINT", "Processing signal SIGABRT"});
    expect_logged(LOG_DEBUG, {"Starting main loop"});
    usleep(200'000);
    EXPECT_EQ(log_count("Shutting down ..."), 0U) << "before the next datagram";
    Client().send(query("last.example"));
    EXPECT_EQ(daemon.wait(), 0);
    expect_logged(LOG_INFO, {"Shutdown Complete"});
}

TEST_F(LifecycleTest, SignalsThatEndTheProcess) {
    configure({{"log_level", "7"}});
    for (const int number : {SIGHUP, SIGSEGV}) {
        Daemon daemon;
        usleep(100'000); // let it wait for a datagram: a fault while it logs could not be logged
        daemon.signal(number);
        EXPECT_EQ(daemon.wait(), number);
        expect_logged(LOG_INFO, {"Processing signal " + std::to_string(number)});
    }
    EXPECT_EQ(log_count("Vantrelle (2.03a) Performing Cleanup..."), 2U);
}

TEST_F(LifecycleTest, ReportsOnSignalsAndKeepsRunning) {
    configure();
    // Pending before the daemon's first instruction, the signal is met while it starts: it reports,
    // and start-up goes on.
    const Process daemon("/bin/env", {"--block-signal=USR1", "sh", "-c",
                                      "kill -USR1 $$; exec \"$0\"", daemon_program});
    ASSERT_TRUE(wait_for_log("Startup Complete."));
    EXPECT_EQ(log_count("Message Count: 0"), 1U);
    Daemon::prime();
    daemon.signal(SIGUSR2);
    EXPECT_TRUE(wait_for_log("Message Count: 1"));
    EXPECT_EQ(log_count("Primary Upstream DNS: 10.53.0.1"), 3U);
    EXPECT_TRUE(passes("www.example"));
}

// Each handler logs and one writes rows: run in the middle of such a call it would hang the daemon.
TEST_F(LifecycleTest, SignalsWhileQueriesFlow) {
    configure(
        {{"log_level", "7"}, {"stats_db_path", "/etc/vantrelle"}, {"log_stats_interval", "0"}});
    PrimedDaemon daemon;
    std::atomic<size_t> asked = 0, answered = 0;
    std::jthread flow([&](const std::stop_token &stop) {
        for (const Client client; !stop.stop_requested(); asked++)
            answered += client.ask(query("www.example")).has_value();
    });
    for (size_t burst = 1; burst <= 200; burst++) {
        const size_t handled = log_count("Processing signal 12"), before = answered;
        for (size_t sent = burst % 4 ? 4 : 0; sent < 5; sent++)
            daemon.signal(SIGUSR2);
        ASSERT_TRUE(wait_for_log("Processing signal 12", handled + 1)) << burst;
        ASSERT_TRUE(eventually([&] { return answered > before + 1; })) << burst;
    }
    flow = {};
    EXPECT_EQ(answered, asked);
    for (int sent = 0; sent < 5; sent++)
        daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.stop(), 0);
    EXPECT_EQ(read_rows("/etc/vantrelle/vantrelle.db", "select count(*) from summary"),
              std::to_string(2 * log_count("Processing signal 12") + 1) + "\n");
}

TEST_F(LifecycleTest, AFailedReceiveIsLoggedAndNotTheEnd) {
    constexpr std::pair<int, const char *> cases[] = {
        {EBADF, "The socket argument is not a valid file descriptor."},
        {EAGAIN, "Operation would block"},
        {ENOTSOCK, "File descriptor socket is not a socket."},
        {ENOTCONN, "You never connected this socket."},
        {EINTR, "The operation was interrupted by a signal before any data was read. See "
                "Primitives Interrupted by Signals."},
    };
    configure({{"record_traffic", "0"}});
    const Daemon daemon({}, STAGED_DAEMON);
    Daemon::prime();
    for (const auto &[error, text] : cases) {
        write_file("/tmp/error_of_recvfrom", std::to_string(error));
        EXPECT_TRUE(passes("www.example")); // the call that waits for it
        EXPECT_TRUE(wait_for_log(text));
        expect_logged(LOG_WARNING, {text});
    }
    EXPECT_TRUE(passes("www.example"));
}

TEST_F(LifecycleTest, TroubleAtStart) {
    configure({{"interface", "nosuch0"}});
    EXPECT_EQ(Process(daemon_program, {}).wait(), 1);
    configure({{"path", "/etc/no/such/parent"}, {"interface", "lo"}});
    Daemon first;
    Process second(daemon_program, {}); // its address is in use
    EXPECT_EQ(second.wait(), 128 + SIGABRT);
    EXPECT_NE(
        second.output().find("bind(oDNS.listenfd, (struct sockaddr *) &sin, sizeof (sin)) == 0"),
        Bytes::npos);
    EXPECT_TRUE(first.running());
    expect_logged(LOG_CRIT, {"No such interface: nosuch0"});
    expect_logged(LOG_INFO, {"Listen on ipv4: 127.0.0.1#53"});
    expect_logged(LOG_WARNING, {"Cannot create directory /etc/no/such/parent"});
}

} // namespace
