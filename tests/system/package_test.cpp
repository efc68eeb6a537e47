// What the package puts onto a router beside the daemon: the shipped settings are the built-in
// defaults, spelled as the daemon reads them.
#include "config.h"
#include "harness.h"
#include "ledutils.h"
#include "uciutils.h"

#include <syslog.h>

using namespace harness;

namespace {

struct PackageTest : SystemTest {};

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
         {oDNS.port, oDNS.dns_timeout, oDNS.socket_buffer_size, oDNS.thread_pool,
          oDNS.log_level.load(), oDNS.log_stats_interval, oDNS.record_traffic.load(),
          oDNS.disabled.load(), oDNS.dns_max_time_on_secondary, oDNS.debug, oDNS.debug_sql})
        all.push_back(std::to_string(number));
    return all;
}

TEST_F(PackageTest, ShippedSettingsAreTheBuiltInDefaults) {
    std::string shipped = read_file(SHIPPED_FILES "/etc/config/vantrelle");
    EXPECT_EQ(settings_from(shipped), settings_from(""));

    SetUp();
    // A misspelt option got its default above; with everything logged it is a failed reading.
    const std::string quiet = "option log_level '0'";
    ASSERT_NE(shipped.find(quiet), std::string::npos);
    openlog("package_test", LOG_PID, LOG_LOCAL0);
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
