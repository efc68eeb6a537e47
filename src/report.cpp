#include "report.h"

#include "blacklist.h"
#include "config.h"
#include "counters.h"
#include "log.h"
#include "utils.h"
#include "whitelist.h"

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <syslog.h>
#include <unistd.h>

// Where a report's lines go, each with the text of its format.
typedef void (*ReportLine)(const char *format, ...) __attribute__((format(printf, 1, 2)));

__attribute__((format(printf, 1, 2))) static void line_to_log(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vsyslog(LOG_INFO, format, arguments);
    va_end(arguments);
}

// Writes no line break: the lines of a printed report run together, on purpose.
__attribute__((format(printf, 1, 2))) static void line_to_stdout(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vprintf(format, arguments);
    va_end(arguments);
}

static const char *flag_text(int flag) {
    return flag ? "True" : "False";
}

static void report_upstreams(ReportLine line) {
    line("Primary Upstream DNS: %s", shown(copy_upstream(0).get()));
    line("Secondary Upstream DNS: %s", shown(copy_upstream(1).get()));
    line("Tertiary Upstream DNS: %s", shown(copy_upstream(2).get()));
    line("Quaternary Upstream DNS: %s", shown(copy_upstream(3).get()));
}

static void report_settings(ReportLine line) {
    char uptime[TIME_TEXT_SIZE];
    time2String(uptime, time(nullptr) - oDNS.start_time);
    line("Host Name: %s", shown(oDNS.hostname));
    line("Listening on Interface: %s", shown(oDNS.interface));
    line("Listen on ipv4: %s#%d", shown(oDNS.listen_address), oDNS.port);
    report_upstreams(line);
    line("Upstream DNS Timeout: %d", oDNS.dns_timeout);
    if (oDNS.concurrent_queries > 0)
        line("Concurrent queries: %d", oDNS.concurrent_queries);
    if (oDNS.tcp_connections > 0)
        line("TCP connections: %d", oDNS.tcp_connections);
    if (oDNS.upstream_port != 0)
        line("Upstream port: %d", oDNS.upstream_port);
    if (oDNS.block_answer != BlockAnswer::NONE)
        line("Blocked queries: %s, time to live %d", block_answer_name(oDNS.block_answer),
             oDNS.block_ttl);
    if (oDNS.ignore_case == 1)
        line("Ignore letter case: %s", flag_text(oDNS.ignore_case));
    if (oDNS.socket_buffer_size != -1)
        line("Socket Buffer Size %d", oDNS.socket_buffer_size);
    line("Admin Enabled: %s", flag_text(oDNS.admin_enabled));
    line("Thread pool size: %d", oDNS.thread_pool);
    line("Log stats interval: %d", oDNS.log_stats_interval);
    if (oDNS.stats_write_delay != 0)
        line("Statistics write delay: %d", oDNS.stats_write_delay);
    if (oDNS.stats_max_size != 0)
        line("Statistics maximum size: %d", oDNS.stats_max_size);
    line("Log level: %d", oDNS.log_level.load());
    line("Log all Traffic: %s", flag_text(oDNS.record_traffic));
    line("Disabled: %s", flag_text(oDNS.disabled));
    line("Debug: %s", flag_text(oDNS.debug));
    line("Uptime: %s", uptime);
    line("PID: %u", static_cast<unsigned>(getpid()));
    line("Base Directory: %s", shown(oDNS.path));
}

static void report_list_sizes(ReportLine line) {
    line("Blacklist Size: %s", commaprint(get_black_list_size()));
    line("Local Blacklist Size: %s", commaprint(get_local_black_list_size()));
    line("Whitelist Size: %s", commaprint(get_white_list_size()));
    line("Local Whitelist Size: %s", commaprint(get_local_white_list_size()));
    line("Local Admin List Size: %s", commaprint(get_local_device_list_size()));
}

static void report(ReportLine line, int with_stats) {
    report_settings(line);
    if (!with_stats)
        return;
    log_stats();
    report_list_sizes(line);
}

void log_config(int with_stats) {
    report(line_to_log, with_stats);
}

void print_config(int with_stats) {
    line_to_stdout("Vantrelle v%s", PRODUCT_VERSION);
    report(line_to_stdout, with_stats);
}
