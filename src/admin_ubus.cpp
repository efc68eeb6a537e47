#include "admin_ubus.h"

#include "admin_lists.h"
#include "admin_reply.h"
#include "blacklist.h"
#include "config.h"
#include "counters.h"
#include "log.h"
#include "relay.h"
#include "thpool.h"
#include "uciutils.h"
#include "whitelist.h"

#include <array>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iterator>
#include <syslog.h>

static constexpr time_t GATE_TIMEOUT = 3;                               // seconds
static constexpr size_t MAX_ADDRESS = MAX_REPLY / UPSTREAM_SLOTS - 100; // within a reply

bool close_admin_gate() {
    timespec until = {};
    clock_gettime(CLOCK_REALTIME, &until); // the clock that the wait goes by
    until.tv_sec += GATE_TIMEOUT;
    return pthread_mutex_timedlock(&admin_gate, &until) == 0;
}

void open_admin_gate() {
    pthread_mutex_unlock(&admin_gate);
}

// --- replies that come later ---------------------------------------------------------------------

namespace {

struct ConfigRequest {
    DeferredCall call;
    char dns[UPSTREAM_SLOTS][16];
};

} // namespace

static void set_config_reply(struct uloop_timeout *timer) {
    const MutexGuard guard(admin_gate);
    syslog(LOG_DEBUG, "Inside set_config_reply");
    const std::unique_ptr<ConfigRequest, FreeMemory> request(
        reinterpret_cast<ConfigRequest *>(timer));
    syslog(LOG_DEBUG, "Set DNS Reply");
    for (int slot = 0; slot < UPSTREAM_SLOTS; slot++) {
        const OwnedText current = copy_upstream(slot);
        syslog(LOG_DEBUG, "Set DNS%d: %s, %s", slot + 1, request->dns[slot],
               current ? current.get() : "");
    }
    syslog(LOG_DEBUG, "Set DNS Reply Done");
    send_message(&request->call, request->call.status != 0
                                     ? "Error updating DNS configuration"
                                     : "Successfully updated DNS configuration");
    syslog(LOG_DEBUG, "set_config_reply done");
}

// --- status --------------------------------------------------------------------------------------

// The policy of the methods that take nothing.
static constexpr struct blobmsg_policy stats_policy[] = {
    {.name = "id", .type = BLOBMSG_TYPE_INT32},
};
static constexpr auto &get_config_policy = stats_policy;
static constexpr auto &get_arp_policy = stats_policy;
static constexpr auto &ping_policy = stats_policy;

static void add_time_of_day() {
    const time_t now = time(nullptr);
    struct tm local = {};
    localtime_r(&now, &local);
    char text[12];
    snprintf(text, sizeof text, "%2d:%02d:%02d", local.tm_hour, local.tm_min, local.tm_sec);
    blobmsg_add_string(&reply_buffer, "time", text);
}

static int vt_get_stats(struct ubus_context *ctx, struct ubus_object *,
                        struct ubus_request_data *req, const char *, struct blob_attr *) {
    const MutexGuard guard(admin_gate);
    blob_buf_init(&reply_buffer, 0);
    void *table = blobmsg_open_table(&reply_buffer, "stats");
    blobmsg_add_string(&reply_buffer, "name", oDNS.hostname);
    blobmsg_add_string(&reply_buffer, "version", PRODUCT_VERSION);
    blobmsg_add_string(&reply_buffer, "board_version", oDNS.board);
    blobmsg_add_u64(&reply_buffer, "count", read_counter(oDNS.requests));
    blobmsg_add_u64(&reply_buffer, "blocked", read_counter(oDNS.blocked));
    blobmsg_add_double(&reply_buffer, "block_rate", get_block_rate());
    blobmsg_add_u64(&reply_buffer, "resets", read_counter(oDNS.resets));
    blobmsg_add_u64(&reply_buffer, "errors", read_counter(oDNS.errors));
    blobmsg_add_u64(&reply_buffer, "bl", get_local_black_list_size());
    blobmsg_add_u64(&reply_buffer, "main_bl", get_black_list_size());
    blobmsg_add_u64(&reply_buffer, "wl", get_local_white_list_size());
    blobmsg_add_u64(&reply_buffer, "main_wl", get_white_list_size());
    add_time_of_day();
    blobmsg_close_table(&reply_buffer, table);
    return ubus_send_reply(ctx, req, reply_buffer.head);
}

static int vt_ping(struct ubus_context *ctx, struct ubus_object *, struct ubus_request_data *req,
                   const char *, struct blob_attr *) {
    const MutexGuard guard(admin_gate);
    blob_buf_init(&reply_buffer, 0);
    blobmsg_add_string(&reply_buffer, "message", "Ping Reply");
    ubus_send_reply(ctx, req, reply_buffer.head);
    syslog(LOG_DEBUG, "vt_ping done");
    return 0;
}

static int vt_get_client_list(struct ubus_context *ctx, struct ubus_object *,
                              struct ubus_request_data *req, const char *, struct blob_attr *) {
    const MutexGuard guard(admin_gate);
    static constexpr const char *OPEN_FAILED = "Arp Cache: Failed to open file \"/proc/net/arp\"";
    blob_buf_init(&reply_buffer, 0);
    const OwnedFile arp(fopen("/proc/net/arp", "re"));
    if (!arp) {
        syslog(LOG_ERR, "%s", OPEN_FAILED);
        perror(OPEN_FAILED);
        return -1;
    }
    char header[1024];
    if (!fgets(header, sizeof header, arp.get())) {
        syslog(LOG_ERR, "fgets heade error"); // spelt so; log readers match it
        return -1;
    }
    void *table = blobmsg_open_table(&reply_buffer, "clients");
    char address[1024], hardware[1024], device[1024];
    for (int index = 0;
         fscanf(arp.get(), "%1023s %*s %*s %1023s %*s %1023s", address, hardware, device) == 3;
         index++) {
        char key[12];
        snprintf(key, sizeof key, "%d", index);
        blobmsg_add_string(&reply_buffer, key, address);
    }
    blobmsg_close_table(&reply_buffer, table);
    return ubus_send_reply(ctx, req, reply_buffer.head);
}

// --- settings ------------------------------------------------------------------------------------

static int vt_get_config(struct ubus_context *ctx, struct ubus_object *,
                         struct ubus_request_data *req, const char *, struct blob_attr *) {
    const MutexGuard guard(admin_gate);
    // Every number goes out as the low 16 bits of its field.
    const auto add_number = [](const char *name, int value) {
        blobmsg_add_u16(&reply_buffer, name, static_cast<uint16_t>(value));
    };
    OwnedText dns[UPSTREAM_SLOTS];
    blob_buf_init(&reply_buffer, 0);
    void *table = blobmsg_open_table(&reply_buffer, "config");
    for (int slot = 0; slot < UPSTREAM_SLOTS; slot++) {
        dns[slot] = copy_upstream(slot);
        if (dns[slot] && strnlen(dns[slot].get(), MAX_ADDRESS) == MAX_ADDRESS)
            dns[slot].get()[MAX_ADDRESS - 1] = '\0';
        const char name[] = {'d', 'n', 's', static_cast<char>('1' + slot), '\0'};
        blobmsg_add_string(&reply_buffer, name, dns[slot] ? dns[slot].get() : "");
    }
    const int remote_log = isRemoteLog();
    add_number("dns_timeout", oDNS.dns_timeout);
    add_number("dns_port", oDNS.port);
    add_number("threads", oDNS.thread_pool);
    add_number("log_level", oDNS.log_level);
    blobmsg_add_string(&reply_buffer, "interface", oDNS.interface);
    add_number("job_queue_length", thpool_jobqueue_length(oDNS.pool));
    add_number("disabled", oDNS.disabled);
    add_number("track", oDNS.record_traffic);
    add_number("remote_log", remote_log);
    blobmsg_close_table(&reply_buffer, table);
    syslog(LOG_DEBUG, "Getting DNS");
    for (int slot = 0; slot < UPSTREAM_SLOTS; slot++)
        syslog(LOG_DEBUG, "DNS%d: %s", slot + 1, dns[slot] ? dns[slot].get() : "");
    syslog(LOG_DEBUG, "Log level is: %d", oDNS.log_level.load());
    syslog(LOG_DEBUG, "Remote Logging %d", remote_log);
    syslog(LOG_DEBUG, "Getting DNS done");
    return ubus_send_reply(ctx, req, reply_buffer.head);
}

namespace {

// A number that set_config changes.
struct NumberSetting {
    const char *name;   // of the argument
    int (*current)();   // what a call without it leaves
    int (*store)(int);  // in the configuration store: 0, or why that failed
    void (*apply)(int); // to the running daemon; null where the store is all there is
    const char *stored; // debug lines behind the storing and at the end, null for none
    const char *applied;
};

} // namespace

static constexpr NumberSetting NUMBER_SETTINGS[] = {
    {"loglevel", [] { return oDNS.log_level.load(); }, set_loglevel,
     [](int level) {
         oDNS.log_level = level;
         set_log_mask(level);
     },
     "Log Level set", "Set Loglevel: %d"},
    {"disabled", [] { return oDNS.disabled.load(); }, set_disabled_data,
     [](int flag) { oDNS.disabled = flag; }, "Disabled set", "Set Disabled: %d"},
    {"track", [] { return oDNS.record_traffic.load(); }, set_track_data,
     [](int flag) { oDNS.record_traffic = flag; }, "Track data set", "Set Track: %d"},
    {"remote_log", [] { return int{isRemoteLog()}; }, set_remote_log, nullptr, nullptr, nullptr},
};

// The arguments: an id that is not read, the addresses, the numbers in the order of their table.
static constexpr int SET_DNS1 = 1, SET_NUMBERS = SET_DNS1 + UPSTREAM_SLOTS;
using SetConfigPolicy = std::array<blobmsg_policy, SET_NUMBERS + std::size(NUMBER_SETTINGS)>;

static constexpr SetConfigPolicy make_set_config_policy() {
    SetConfigPolicy policy = {{{.name = "id", .type = BLOBMSG_TYPE_INT32},
                               {.name = "dns1", .type = BLOBMSG_TYPE_STRING},
                               {.name = "dns2", .type = BLOBMSG_TYPE_STRING},
                               {.name = "dns3", .type = BLOBMSG_TYPE_STRING},
                               {.name = "dns4", .type = BLOBMSG_TYPE_STRING}}};
    size_t at = SET_NUMBERS;
    for (const NumberSetting &setting : NUMBER_SETTINGS)
        policy[at++] = {.name = setting.name, .type = BLOBMSG_TYPE_STRING};
    return policy;
}

static constexpr SetConfigPolicy set_config_policy = make_set_config_policy();

namespace {

// What set_config is to set: the arguments, or the current number where one is missing.
struct NewSettings {
    const char *dns[UPSTREAM_SLOTS];
    int numbers[std::size(NUMBER_SETTINGS)];
};

} // namespace

static NewSettings settings_of(struct blob_attr *msg) {
    struct blob_attr *arguments[std::size(set_config_policy)];
    blobmsg_parse(set_config_policy.data(), std::size(set_config_policy), arguments, blob_data(msg),
                  static_cast<unsigned>(blob_len(msg)));
    NewSettings settings;
    for (int slot = 0; slot < UPSTREAM_SLOTS; slot++)
        settings.dns[slot] = text_of(arguments[SET_DNS1 + slot], "000.000.000.000");
    for (size_t i = 0; i < std::size(NUMBER_SETTINGS); i++) {
        struct blob_attr *number = arguments[SET_NUMBERS + i];
        settings.numbers[i] = number ? number_of(number, 0) : NUMBER_SETTINGS[i].current();
    }
    return settings;
}

// Writes the settings to the configuration store, one by one, until a writer fails: what the ones
// before it wrote stays written. Returns 0 or the failed writer's result.
static int store_settings(const NewSettings &settings) {
    for (int slot = 0; slot < UPSTREAM_SLOTS; slot++) {
        if (const int failure = set_dns(slot + 1, settings.dns[slot]))
            return failure;
        syslog(LOG_DEBUG, "DNS %d set", slot + 1);
    }
    for (size_t i = 0; i < std::size(NUMBER_SETTINGS); i++) {
        const NumberSetting &setting = NUMBER_SETTINGS[i];
        // Stored as its low 16 bits with their sign, whatever the running value is.
        if (const int failure = setting.store(static_cast<int16_t>(settings.numbers[i])))
            return failure;
        if (setting.stored)
            syslog(LOG_DEBUG, "%s", setting.stored);
    }
    return 0;
}

// Puts stored settings into effect; the upstream connection stays open as it is.
static void apply_settings(const NewSettings &settings, ConfigRequest *request) {
    for (int slot = 0; slot < UPSTREAM_SLOTS; slot++) // an address is its own format text
        expand_format(request->dns[slot], sizeof request->dns[slot], settings.dns[slot]);
    replace_upstreams(settings.dns);
    relay_upstreams_changed();
    for (size_t i = 0; i < std::size(NUMBER_SETTINGS); i++)
        if (NUMBER_SETTINGS[i].apply)
            NUMBER_SETTINGS[i].apply(settings.numbers[i]);
}

static int vt_set_config(struct ubus_context *ctx, struct ubus_object *,
                         struct ubus_request_data *req, const char *, struct blob_attr *msg) {
    const MutexGuard guard(admin_gate);
    syslog(LOG_DEBUG, "Inside vt_set_config");
    const NewSettings settings = settings_of(msg);
    syslog(LOG_DEBUG, "remoteLog in vt_set_config: %d",
           settings.numbers[std::size(NUMBER_SETTINGS) - 1]);
    auto *request = allocate<ConfigRequest>();
    if (!request)
        return UBUS_STATUS_NO_MEMORY;
    request->call.status = store_settings(settings);
    if (request->call.status == 0)
        apply_settings(settings, request);
    syslog(LOG_DEBUG, "Set DNS");
    for (int slot = 0; slot < UPSTREAM_SLOTS; slot++)
        syslog(LOG_DEBUG, "Set DNS%d: %s, %s", slot + 1, settings.dns[slot], request->dns[slot]);
    for (size_t i = 0; i < std::size(NUMBER_SETTINGS); i++)
        if (NUMBER_SETTINGS[i].applied)
            syslog(LOG_DEBUG, NUMBER_SETTINGS[i].applied, settings.numbers[i]);
    defer(ctx, req, &request->call, set_config_reply);
    syslog(LOG_DEBUG, "Done vt_set_config");
    return 0;
}

// --- methods, object and thread ------------------------------------------------------------------

static const struct ubus_method vt_methods[] = {
    UBUS_METHOD("add", vt_list_add, list_update_policy),
    UBUS_METHOD("remove", vt_list_remove, list_update_policy),
    UBUS_METHOD("stats", vt_get_stats, stats_policy),
    UBUS_METHOD("ping", vt_ping, ping_policy),
    UBUS_METHOD("clients", vt_get_client_list, get_arp_policy),
    UBUS_METHOD("get_config", vt_get_config, get_config_policy),
    {.name = "set_config",
     .handler = vt_set_config,
     .mask = 0,
     .tags = 0,
     .policy = set_config_policy.data(),
     .n_policy = std::size(set_config_policy)},
    UBUS_METHOD("list", vt_get_list, list_edit_policy),
};

static struct ubus_object_type vt_object_type = UBUS_OBJECT_TYPE("vantrelle", vt_methods);
static struct ubus_object vt_object;

// Registered and never subscribed to anything: it only shows the daemon as a watcher on the bus.
static struct ubus_subscriber vt_event;

// What the default disposition of SIGINT does.
static void end_by_signal(int number) {
    signal(number, SIG_DFL);
    raise(number);
}

// The event loop installs handlers of its own where it finds the default disposition. With its
// SIGINT handler an interrupt would end only this thread, and reaping every child of the process
// is not its business. SIGTERM has the daemon's handler already and is left alone.
static void keep_signals_from_loop() {
    struct sigaction current;
    if (sigaction(SIGINT, nullptr, &current) == 0 && current.sa_handler == SIG_DFL)
        signal(SIGINT, end_by_signal);
    uloop_handle_sigchld = false;
}

static void register_objects(struct ubus_context *ctx) {
    vt_object.name = "vantrelle";
    vt_object.type = &vt_object_type;
    vt_object.methods = vt_methods;
    vt_object.n_methods = std::size(vt_methods);
    if (const int failure = ubus_add_object(ctx, &vt_object))
        syslog(LOG_ERR, "Failed to add object: %s", ubus_strerror(failure));
    if (const int failure = ubus_register_subscriber(ctx, &vt_event))
        syslog(LOG_ERR, "Failed to add watch handler: %s", ubus_strerror(failure));
}

void *admin_ubus_main(void *) {
    keep_signals_from_loop();
    uloop_init();
    struct ubus_context *ctx = ubus_connect(nullptr);
    if (!ctx) {
        syslog(LOG_ERR, "Failed to connect to UBUS socket. Admin is disabled");
        uloop_done();
        return nullptr;
    }
    ubus_add_uloop(ctx);
    syslog(LOG_DEBUG, "Inside admin_ubus_main");
    register_objects(ctx);
    uloop_run();
    syslog(LOG_DEBUG, "server_main End");
    ubus_free(ctx);
    uloop_done();
    return nullptr;
}
