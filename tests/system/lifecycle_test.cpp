// The daemon as a process: options, start-up, signals, exit statuses.
#include "database.h"
#include "transcript.h"

using namespace harness;

namespace {

struct LifecycleTest : SystemTest {
    const Upstream primary{1};
};

TEST_F(LifecycleTest, OptionsDefaultsEndsAndTroubleAtStart) {
    expect_transcript("process", PROCESS_TOOLS);
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

} // namespace
