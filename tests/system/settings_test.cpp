// Settings written back to the configuration store: the files that result, byte for byte, the
// result codes and the log lines. The writers know only the system's own /etc/config. And what the
// package ships: settings that are the built-in defaults, spelled as the daemon reads them.
#include "config.h"
#include "guards.h"
#include "ledutils.h"
#include "transcript.h"
#include "uciutils.h"

using namespace harness;

namespace {

constexpr char settings_file[] = "/etc/config/vantrelle";
constexpr char system_file[] = "/etc/config/system";
constexpr char before[] = "# kept until something changes\n"
                          "config main\n\toption  port '53'\n\toption upstream_dns '10.53.0.1'\n"
                          "config logging 'l'\n\toption debug 0\n";
constexpr char system_before[] = "config system\n\toption log_remote '0'\n";

struct SettingsTest : SystemTest {
    void SetUp() override {
        SystemTest::SetUp();
        openlog("settings", LOG_PID, LOG_LOCAL0);
        write_file(settings_file, before);
        write_file(system_file, system_before);
    }
    // The errors logged since the test began, one per line.
    static std::string errors() {
        std::string texts;
        for (const LogLine &line : log_lines())
            texts += line.priority == LOG_ERR ? line.text + "\n" : "";
        return texts;
    }
};

// All five that the bus uses, as one text of their results.
std::string results() {
    std::string text;
    for (int result : {set_loglevel(7), set_disabled_data(1), set_track_data(1), set_remote_log(1),
                       set_dns(2, "10.53.0.2")})
        text += std::to_string(result);
    return text;
}

TEST_F(SettingsTest, FailureIsToldAndChangesNothing) {
    write_file("/tmp/.uci", "in the way of the directory of changes");
    EXPECT_EQ(results(), "55553");
    EXPECT_EQ(set_dns(1, nullptr), 2);
    EXPECT_EQ(read_file(settings_file), before);
    fs::remove(settings_file);
    write_file(system_file, "");
    EXPECT_EQ(results(), "55551");
    const std::string missing = "failed to find the specified section: ",
                      main = missing + "vantrelle.@main[0]";
    EXPECT_EQ(errors(), "Failed to commit log_level changes\n"
                        "Failed to commit Disabled option changes\n"
                        "Failed to commit record_traffic changes\n"
                        "Failed to commit log_remote changes\n"
                        "failed to commit stats_db_location changes\n"
                        "failed to set new stats_db_location\n" +
                            main + "\n" + main + "\n" + main + "\n" + missing +
                            "system.@system[0]\n" + main + " 1\n");
}

// Handing over the whole key succeeds at every step and stores nothing; the next change clears away
// what that left behind.
TEST_F(SettingsTest, DatabaseLocationIsNotStored) {
    set_stats_db_location("/tmp");
    EXPECT_EQ(read_file(settings_file), before);
    EXPECT_EQ(log_priority("Stats db location is:  /tmp"), LOG_DEBUG);
    EXPECT_EQ(errors(), "");
    EXPECT_EQ(set_loglevel(5), 0);
    EXPECT_EQ(fs::file_size("/tmp/.uci/vantrelle"), 0U);
}

// What load_config() makes of a settings file.
std::vector<std::string> settings_from(const std::string &file) {
    write_file("/etc/config/vantrelle", file);
    oDNS.log_level = 0;
    load_config();
    std::vector<std::string> all;
    for (char **text :
         {&oDNS.path, &oDNS.interface, &oDNS.hostname, &oDNS.board, &oDNS.upstream_dns[0],
          &oDNS.upstream_dns[1], &oDNS.upstream_dns[2], &oDNS.upstream_dns[3]})
        all.emplace_back(OwnedText(std::exchange(*text, nullptr)).get());
    for (const int number :
         {oDNS.port, oDNS.upstream_port, oDNS.concurrent_queries, oDNS.tcp_connections,
          oDNS.dns_timeout, oDNS.socket_buffer_size, oDNS.thread_pool, oDNS.log_level.load(),
          oDNS.log_stats_interval, oDNS.record_traffic.load(), oDNS.disabled.load(),
          oDNS.dns_max_time_on_secondary, oDNS.debug, oDNS.debug_sql,
          static_cast<int>(oDNS.block_answer), oDNS.block_ttl, oDNS.ignore_case,
          oDNS.stats_write_delay, oDNS.stats_max_size})
        all.push_back(std::to_string(number));
    return all;
}

TEST_F(SettingsTest, NumbersOutOfRange) {
    expect_transcript("settings", PROCESS_TOOLS);
}

TEST_F(SettingsTest, ShippedOnesAreTheBuiltInDefaults) {
    std::string shipped = read_file(SHIPPED_FILES "/etc/config/vantrelle");
    EXPECT_EQ(settings_from(shipped), settings_from(""));
    SetUp();
    // A misspelt option got its default above; with everything logged it is a failed reading.
    const std::string quiet = "option log_level '0'";
    ASSERT_NE(shipped.find(quiet), std::string::npos);
    settings_from(shipped.replace(shipped.find(quiet), quiet.size(), "option log_level '7'"));
    start_init_leds();
    shutdown_multi_led();
    const OwnedText database(get_stats_db_location());
    EXPECT_STREQ(database.get(), "/etc/vantrelle") << "there is no default to fall back to";
    EXPECT_EQ(log_count("Done Load Config") + log_count("GPIO Mux returned 0"), 2U);
    for (const LogLine &line : log_lines())
        EXPECT_EQ(line.text.find("Failed"), std::string::npos) << line.text;
}

} // namespace
