#include "admin_ubus.h"

#include "blacklist.h"
#include "blockedlist.h"
#include "config.h"
#include "counters.h"
#include "guards.h"
#include "log.h"
#include "strutils.h"
#include "thpool.h"
#include "uciutils.h"
#include "whitelist.h"

#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iterator>
#include <span>
#include <syslog.h>

extern "C" {
#include <libubox/blobmsg.h>
#include <libubox/uloop.h>
#include <libubus.h>
}

static struct ubus_context *ctx;
static struct blob_buf b; // every reply is built here: all handlers run on this one thread
static pthread_mutex_t gate = PTHREAD_MUTEX_INITIALIZER;

static constexpr int DEFERRED_REPLY_MS = 1000;
static constexpr time_t GATE_TIMEOUT = 3; // seconds

// The bus closes the connection of an owner that sends more than 1 MiB, which would end the
// administration for good. Replies stay well below.
static constexpr size_t MAX_REPLY = 1000000;
static constexpr size_t MAX_ADDRESS = MAX_REPLY / UPSTREAM_SLOTS - 100; // within a reply

bool close_admin_gate() {
    timespec until = {};
    clock_gettime(CLOCK_REALTIME, &until); // the clock that the wait goes by
    until.tv_sec += GATE_TIMEOUT;
    return pthread_mutex_timedlock(&gate, &until) == 0;
}

void open_admin_gate() {
    pthread_mutex_unlock(&gate);
}

// Gated<handler>::call is `handler` behind the gate.
template <auto Function>
struct Gated;
template <typename Result, typename... Arguments, Result (*Function)(Arguments...)>
struct Gated<Function> {
    static Result call(Arguments... arguments) {
        const MutexGuard guard(gate);
        return Function(arguments...);
    }
};

namespace {

// A call that is answered one second later. The timer comes first: its address is the record's.
struct DeferredCall {
    struct uloop_timeout timer;
    struct ubus_request_data request;
    int status; // of the operation, and then of the bus call
};

struct ListRequest {
    DeferredCall call;
    int list_id;   // 0 when no code matched
    char *pattern; // behind the record, in the same block
};

struct ConfigRequest {
    DeferredCall call;
    char dns[UPSTREAM_SLOTS][16];
    int disabled;
    int track;
    int remote_log;
};

// A record allocated zeroed, with `extra` bytes behind it.
template <typename Record>
Record *allocate(size_t extra = 0) {
    return static_cast<Record *>(std::calloc(1, sizeof(Record) + extra));
}

// The text of an argument, or `missing` when the call does not have it.
const char *text_of(struct blob_attr *argument, const char *missing) {
    return argument ? blobmsg_get_string(argument) : missing;
}

int number_of(struct blob_attr *argument, int missing) {
    return argument ? decimal(blobmsg_get_string(argument)) : missing;
}

// Copies `format` as a formatted print without arguments would: "%%" becomes "%". A conversion has
// nothing to convert and is copied as it stands.
void expand_format(char *out, size_t size, const char *format) {
    size_t length = 0;
    for (; *format && length + 1 < size; format++) {
        out[length++] = *format;
        if (format[0] == '%' && format[1] == '%')
            format++;
    }
    if (size > 0)
        out[length] = '\0';
}

void defer(struct ubus_request_data *request, DeferredCall *call, uloop_timeout_handler reply) {
    ubus_defer_request(ctx, request, &call->request);
    call->timer.cb = reply;
    uloop_timeout_set(&call->timer, DEFERRED_REPLY_MS);
}

// Answers a deferred call with {"message": ...} and ends it with its status.
__attribute__((format(printf, 2, 3))) void send_message(DeferredCall *call, const char *format,
                                                        ...) {
    va_list arguments;
    va_start(arguments, format);
    char *text = nullptr;
    const int length = vasprintf(&text, format, arguments);
    va_end(arguments);
    const OwnedText message(length < 0 ? nullptr : text);
    if (message && static_cast<size_t>(length) > MAX_REPLY)
        message.get()[MAX_REPLY] = '\0';
    blob_buf_init(&b, 0);
    blobmsg_add_string(&b, "message", message ? message.get() : "");
    ubus_send_reply(ctx, &call->request, b.head);
    ubus_complete_deferred_request(ctx, &call->request, call->status);
}

} // namespace

const char *get_list_name(int id) {
    static constexpr const char *NAMES[] = {"Black", "White", "Device"};
    return id >= 0 && id < static_cast<int>(std::size(NAMES)) ? NAMES[id] : "Unknown";
}

// Editing lists

static int ubus_add_black_list(const char *item, int8_t mode) {
    syslog(LOG_DEBUG, "Add %s to local black list, Opt: %d", item, mode);
    return add_local_black_list(item, mode);
}

static int ubus_add_white_list(const char *item, int8_t mode) {
    syslog(LOG_DEBUG, "Add %s to local white list, Opt: %d", item, mode);
    return add_local_white_list(item, mode);
}

static int ubus_add_admin_list(const char *item, int8_t mode) {
    syslog(LOG_DEBUG, "Add %s to local admin list, Opt: %d", item, mode);
    return add_local_device_list(item, mode);
}

static int ubus_add_bad_list(const char *item, int8_t mode) {
    syslog(LOG_DEBUG, "Add %s to local device block list, Opt: %d", item, mode);
    return add_blocked_device_list(item, mode);
}

static int ubus_del_black_list(const char *item) {
    syslog(LOG_DEBUG, "Del %s from local black list", item);
    return del_local_black_list(item);
}

static int ubus_del_white_list(const char *item) {
    syslog(LOG_DEBUG, "Del %s from local white list", item);
    return del_local_white_list(item);
}

static int ubus_del_device_list(const char *item) {
    syslog(LOG_DEBUG, "Del %s from local admin list", item);
    return del_local_device_list(item);
}

static int ubus_del_bad_device_list(const char *item) {
    syslog(LOG_DEBUG, "Del %s from local blocked device list", item);
    return del_blocked_device_list(item);
}

namespace {

// The lists that the bus edits; a list's place here is its id.
struct EditableList {
    const char *code;
    int (*add)(const char *item, int8_t mode);
    int (*remove)(const char *item);
};

constexpr EditableList EDITABLE_LISTS[] = {
    {"bl", ubus_add_black_list, ubus_del_black_list},
    {"wl", ubus_add_white_list, ubus_del_white_list},
    {"ad", ubus_add_admin_list, ubus_del_device_list},
    {"bd", ubus_add_bad_list, ubus_del_bad_device_list},
};

enum { UPDATE_ID, UPDATE_LIST, UPDATE_PATTERN, UPDATE_OPTION };
constexpr struct blobmsg_policy list_update_policy[] = {
    {.name = "id", .type = BLOBMSG_TYPE_INT32},
    {.name = "list", .type = BLOBMSG_TYPE_STRING},
    {.name = "pattern", .type = BLOBMSG_TYPE_STRING},
    {.name = "option", .type = BLOBMSG_TYPE_STRING},
};

enum { EDIT_ID, EDIT_LIST, EDIT_START, EDIT_COUNT };
constexpr struct blobmsg_policy list_edit_policy[] = {
    {.name = "id", .type = BLOBMSG_TYPE_INT32},
    {.name = "list", .type = BLOBMSG_TYPE_STRING},
    {.name = "start", .type = BLOBMSG_TYPE_STRING},
    {.name = "count", .type = BLOBMSG_TYPE_STRING},
};

// Parses the arguments of a call. One that is missing or of another type is null.
template <size_t Count>
struct Arguments {
    struct blob_attr *values[Count];
    Arguments(const struct blobmsg_policy (&policy)[Count], struct blob_attr *msg) {
        blobmsg_parse(policy, Count, values, blob_data(msg), static_cast<unsigned>(blob_len(msg)));
    }
    struct blob_attr *operator[](int index) const {
        return values[index];
    }
};

} // namespace

// The answers to an edit by its ListResult. Each format takes pattern and list name, or only the
// pattern, or nothing. The bold markers are for the front end.
static constexpr const char *ADD_REPLIES[] = {
    // For an unknown list code, too, although nothing was added; front ends know it so.
    "Successfully added <B>%s</B> to <B>%s</B> list",
    "Error: list is NULL",
    "Error: <B>%s</B> already exists in <B>%s</B> list",
    "Error: Cannot add empty or NULL item to list",
    "Error: Failure inserting item in list. Contact developer",
    "Error: General failure",
    "Error: Failure writing list",
};
static constexpr const char *ADD_REPLY_OTHERWISE = "Successfully added <B>%s</B> to list";

static constexpr const char *REMOVED = "Successfully removed <B>%s</B> from <B>%s</B> list";
static constexpr const char *REMOVE_REPLIES[] = {
    REMOVED,
    "Error: list is NULL",
    REMOVED,
    "Error: Cannot remove empty or NULL item from list",
    REMOVED,
    "Error: General failure",
    "Error: Failure writing list",
    "Error: <B>%s</B> does not exist in <B>%s</B> list",
};

static void reply_to_edit(ListRequest *request, std::span<const char *const> replies,
                          const char *otherwise) {
    const auto status = static_cast<unsigned>(request->call.status);
    send_message(&request->call, status < replies.size() ? replies[status] : otherwise,
                 request->pattern, get_list_name(request->list_id));
}

static void vt_add_reply(struct uloop_timeout *timer) {
    syslog(LOG_DEBUG, "Inside vt_add_reply");
    const std::unique_ptr<ListRequest, FreeMemory> request(reinterpret_cast<ListRequest *>(timer));
    syslog(LOG_INFO, "Pattern: %s", request->pattern);
    reply_to_edit(request.get(), ADD_REPLIES, ADD_REPLY_OTHERWISE);
    syslog(LOG_DEBUG, "vt_add_reply done");
}

static void vt_remove_reply(struct uloop_timeout *timer) {
    syslog(LOG_DEBUG, "Inside vt_remove_reply");
    const std::unique_ptr<ListRequest, FreeMemory> request(reinterpret_cast<ListRequest *>(timer));
    reply_to_edit(request.get(), REMOVE_REPLIES, REMOVED);
    syslog(LOG_DEBUG, "vt_remove_reply done");
}

// Allocates the record of an edit, runs `edit` (list) for each list whose code is `code`, and
// defers the answer to `reply`. An unknown code leaves status and list id 0.
template <typename Edit>
static int edit_list(struct ubus_request_data *req, const char *code, const char *pattern,
                     uloop_timeout_handler reply, Edit edit) {
    const size_t room = std::strlen(pattern) + 1;
    auto *request = allocate<ListRequest>(room);
    if (!request)
        return UBUS_STATUS_NO_MEMORY;
    for (const EditableList &list : EDITABLE_LISTS) {
        if (std::strcmp(code, list.code) == 0) {
            request->list_id = static_cast<int>(&list - EDITABLE_LISTS);
            request->call.status = edit(list);
        }
    }
    request->pattern = reinterpret_cast<char *>(request + 1);
    expand_format(request->pattern, room, pattern); // the pattern is its own format text; kept
    defer(req, &request->call, reply);
    return 0;
}

static int vt_list_add(struct ubus_context *, struct ubus_object *, struct ubus_request_data *req,
                       const char *, struct blob_attr *msg) {
    syslog(LOG_DEBUG, "Inside vt_list_add");
    const Arguments arguments(list_update_policy, msg);
    const auto mode = static_cast<int8_t>(number_of(arguments[UPDATE_OPTION], -1));
    // A text that was taken is cut at its first line break, also in the answer.
    const OwnedText pattern(strdup(text_of(arguments[UPDATE_PATTERN], "(unknown)")));
    if (!pattern)
        return UBUS_STATUS_NO_MEMORY;
    const int result = edit_list(req, text_of(arguments[UPDATE_LIST], "(unknown)"), pattern.get(),
                                 Gated<vt_add_reply>::call, [&](const EditableList &list) {
                                     const int status = list.add(pattern.get(), mode);
                                     if (status != LIST_EMPTY_ITEM)
                                         pattern.get()[std::strcspn(pattern.get(), "\n")] = '\0';
                                     return status;
                                 });
    syslog(LOG_DEBUG, "Done vt_list_add");
    return result;
}

static int vt_list_remove(struct ubus_context *, struct ubus_object *,
                          struct ubus_request_data *req, const char *, struct blob_attr *msg) {
    syslog(LOG_DEBUG, "Inside vt_list_remove");
    const Arguments arguments(list_update_policy, msg);
    const char *pattern = text_of(arguments[UPDATE_PATTERN], "(unknown)");
    const int result = edit_list(req, text_of(arguments[UPDATE_LIST], "(unknown)"), pattern,
                                 Gated<vt_remove_reply>::call,
                                 [&](const EditableList &list) { return list.remove(pattern); });
    syslog(LOG_DEBUG, "Done vt_list_remove");
    return result;
}

// Reading lists

// The list with this code, empty when there is none to read: of the editable lists only the local
// black and white lists can be read.
static ListHold find_source(const char *code) {
    if (std::strcmp(code, "bl") == 0) {
        syslog(LOG_DEBUG, "Before checksize");
        if (get_local_black_list_size() != 0) {
            syslog(LOG_DEBUG, "Before get list");
            ListHold list = get_local_black_list();
            syslog(LOG_DEBUG, "After get list");
            return list;
        }
    } else if (std::strcmp(code, "wl") == 0 && get_local_white_list_size() != 0) {
        return get_local_white_list();
    }
    return ListHold();
}

// The page to answer with, null when there is none; the caller frees it.
static List *get_page(List *source, int start, int count) {
    if (!source)
        return nullptr;
    syslog(LOG_DEBUG, "Before get sub list");
    List *page = get_sub_list(source, start, count);
    syslog(LOG_DEBUG, "after get sub list");
    return page;
}

static void add_number_text(const char *name, unsigned number) {
    char text[12];
    std::snprintf(text, sizeof text, "%u", number);
    blobmsg_add_string(&b, name, text);
}

// How many of a page's records, at most `count`, fit into a reply.
static int count_fitting(const Node *node, int count) {
    size_t size = 0;
    int fitting = 0;
    for (; node && fitting < count; node = node->next, fitting++) {
        const int digits = std::snprintf(nullptr, 0, "%d", fitting + 1);
        size += sizeof(struct blob_attr) +
                static_cast<size_t>(blobmsg_hdrlen(static_cast<unsigned>(digits))) +
                BLOBMSG_PADDING(std::strlen(node->frag) + 1);
        if (size > MAX_REPLY) {
            syslog(LOG_WARNING, "List page cut to %d records, no more fit into a message", fitting);
            break;
        }
    }
    return fitting;
}

static int vt_get_list(struct ubus_context *, struct ubus_object *, struct ubus_request_data *req,
                       const char *, struct blob_attr *msg) {
    const Arguments arguments(list_edit_policy, msg);
    const char *code = text_of(arguments[EDIT_LIST], "(unknown)");
    const int start = number_of(arguments[EDIT_START], 0);
    const int count = number_of(arguments[EDIT_COUNT], 0);
    syslog(LOG_INFO, "Params (new): %s, start: %d, count: %d", code, start, count);
    const ListHold source = find_source(code);
    List *page = get_page(source.get(), start, count);
    blob_buf_init(&b, 0);
    add_number_text("max_records", page ? get_list_size(source.get()) : 0);
    const Node *node = page ? page->head : nullptr;
    const int records = count_fitting(node, count);
    add_number_text("records", static_cast<unsigned>(records));
    void *items = blobmsg_open_table(&b, "list_items");
    for (int number = 1; number <= records; node = node->next, number++) {
        char key[12];
        std::snprintf(key, sizeof key, "%d", number);
        blobmsg_add_string(&b, key, node->frag);
    }
    blobmsg_close_table(&b, items);
    ubus_send_reply(ctx, req, b.head);
    free_list(page);
    return 0;
}

// Status

// The policy of the methods that take nothing.
constexpr static struct blobmsg_policy stats_policy[] = {
    {.name = "id", .type = BLOBMSG_TYPE_INT32},
};
constexpr static auto &get_config_policy = stats_policy;
constexpr static auto &get_arp_policy = stats_policy;
constexpr static auto &ping_policy = stats_policy;
[[maybe_unused]] constexpr static auto &restart_policy = stats_policy; // no method takes it

static void add_time_of_day() {
    const time_t now = time(nullptr);
    struct tm local = {};
    localtime_r(&now, &local);
    char text[12];
    std::snprintf(text, sizeof text, "%2d:%02d:%02d", local.tm_hour, local.tm_min, local.tm_sec);
    blobmsg_add_string(&b, "time", text);
}

static int vt_get_stats(struct ubus_context *, struct ubus_object *, struct ubus_request_data *req,
                        const char *, struct blob_attr *) {
    blob_buf_init(&b, 0);
    void *table = blobmsg_open_table(&b, "stats");
    blobmsg_add_string(&b, "name", oDNS.hostname);
    blobmsg_add_string(&b, "version", PRODUCT_VERSION);
    blobmsg_add_string(&b, "board_version", oDNS.board);
    blobmsg_add_u64(&b, "count", read_counter(oDNS.requests));
    blobmsg_add_u64(&b, "blocked", read_counter(oDNS.blocked));
    blobmsg_add_double(&b, "block_rate", get_block_rate());
    blobmsg_add_u64(&b, "resets", read_counter(oDNS.resets));
    blobmsg_add_u64(&b, "errors", read_counter(oDNS.errors));
    blobmsg_add_u64(&b, "bl", get_local_black_list_size());
    blobmsg_add_u64(&b, "main_bl", get_black_list_size());
    blobmsg_add_u64(&b, "wl", get_local_white_list_size());
    blobmsg_add_u64(&b, "main_wl", get_white_list_size());
    add_time_of_day();
    blobmsg_close_table(&b, table);
    return ubus_send_reply(ctx, req, b.head);
}

static int vt_ping(struct ubus_context *, struct ubus_object *, struct ubus_request_data *req,
                   const char *, struct blob_attr *) {
    blob_buf_init(&b, 0);
    blobmsg_add_string(&b, "message", "Ping Reply");
    ubus_send_reply(ctx, req, b.head);
    syslog(LOG_DEBUG, "vt_ping done");
    return 0;
}

static int vt_get_client_list(struct ubus_context *, struct ubus_object *,
                              struct ubus_request_data *req, const char *, struct blob_attr *) {
    static constexpr const char *OPEN_FAILED = "Arp Cache: Failed to open file \"/proc/net/arp\"";
    blob_buf_init(&b, 0);
    const OwnedFile arp(std::fopen("/proc/net/arp", "re"));
    if (!arp) {
        syslog(LOG_ERR, "%s", OPEN_FAILED);
        std::perror(OPEN_FAILED);
        return -1;
    }
    char header[1024];
    if (!std::fgets(header, sizeof header, arp.get())) {
        syslog(LOG_ERR, "fgets heade error"); // spelt so; log readers match it
        return -1;
    }
    void *table = blobmsg_open_table(&b, "clients");
    char address[1024], hardware[1024], device[1024];
    for (int index = 0;
         std::fscanf(arp.get(), "%1023s %*s %*s %1023s %*s %1023s", address, hardware, device) == 3;
         index++) {
        char key[12];
        std::snprintf(key, sizeof key, "%d", index);
        blobmsg_add_string(&b, key, address);
    }
    blobmsg_close_table(&b, table);
    return ubus_send_reply(ctx, req, b.head);
}

// Configuration

static int vt_get_config(struct ubus_context *, struct ubus_object *, struct ubus_request_data *req,
                         const char *, struct blob_attr *) {
    // Every number goes out as the low 16 bits of its field.
    const auto add_number = [](const char *name, int value) {
        blobmsg_add_u16(&b, name, static_cast<uint16_t>(value));
    };
    OwnedText dns[UPSTREAM_SLOTS];
    blob_buf_init(&b, 0);
    void *table = blobmsg_open_table(&b, "config");
    for (int slot = 0; slot < UPSTREAM_SLOTS; slot++) {
        dns[slot] = copy_upstream(slot);
        if (dns[slot] && strnlen(dns[slot].get(), MAX_ADDRESS) == MAX_ADDRESS)
            dns[slot].get()[MAX_ADDRESS - 1] = '\0';
        const char name[] = {'d', 'n', 's', static_cast<char>('1' + slot), '\0'};
        blobmsg_add_string(&b, name, dns[slot] ? dns[slot].get() : "");
    }
    const int remote_log = isRemoteLog();
    add_number("dns_timeout", oDNS.dns_timeout);
    add_number("dns_port", oDNS.port);
    add_number("threads", oDNS.thread_pool);
    add_number("log_level", oDNS.log_level);
    blobmsg_add_string(&b, "interface", oDNS.interface);
    add_number("job_queue_length", thpool_jobqueue_length(oDNS.pool));
    add_number("disabled", oDNS.disabled);
    add_number("track", oDNS.record_traffic);
    add_number("remote_log", remote_log);
    blobmsg_close_table(&b, table);
    syslog(LOG_DEBUG, "Getting DNS");
    for (int slot = 0; slot < UPSTREAM_SLOTS; slot++)
        syslog(LOG_DEBUG, "DNS%d: %s", slot + 1, dns[slot] ? dns[slot].get() : "");
    syslog(LOG_DEBUG, "Log level is: %d", oDNS.log_level.load());
    syslog(LOG_DEBUG, "Remote Logging %d", remote_log);
    syslog(LOG_DEBUG, "Getting DNS done");
    return ubus_send_reply(ctx, req, b.head);
}

enum {
    SET_ID,
    SET_DNS1,
    SET_DNS2,
    SET_DNS3,
    SET_DNS4,
    SET_LOGLEVEL,
    SET_DISABLED,
    SET_TRACK,
    SET_REMOTE_LOG
};
constexpr static struct blobmsg_policy set_config_policy[] = {
    {.name = "id", .type = BLOBMSG_TYPE_INT32},
    {.name = "dns1", .type = BLOBMSG_TYPE_STRING},
    {.name = "dns2", .type = BLOBMSG_TYPE_STRING},
    {.name = "dns3", .type = BLOBMSG_TYPE_STRING},
    {.name = "dns4", .type = BLOBMSG_TYPE_STRING},
    {.name = "loglevel", .type = BLOBMSG_TYPE_STRING},
    {.name = "disabled", .type = BLOBMSG_TYPE_STRING},
    {.name = "track", .type = BLOBMSG_TYPE_STRING},
    {.name = "remote_log", .type = BLOBMSG_TYPE_STRING},
};

namespace {

// The arguments of set_config, with the current value for a number that is missing.
struct NewSettings {
    const char *dns[UPSTREAM_SLOTS];
    int log_level;
    int disabled;
    int track;
    int remote_log;
};

} // namespace

static NewSettings settings_of(const Arguments<std::size(set_config_policy)> &arguments) {
    NewSettings settings;
    for (int slot = 0; slot < UPSTREAM_SLOTS; slot++)
        settings.dns[slot] = text_of(arguments[SET_DNS1 + slot], "000.000.000.000");
    settings.log_level = number_of(arguments[SET_LOGLEVEL], oDNS.log_level);
    settings.disabled = number_of(arguments[SET_DISABLED], oDNS.disabled);
    settings.track = number_of(arguments[SET_TRACK], oDNS.record_traffic);
    settings.remote_log =
        arguments[SET_REMOTE_LOG] ? number_of(arguments[SET_REMOTE_LOG], 0) : isRemoteLog();
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
    const struct {
        int (*write)(int value);
        int value;
        const char *done;
    } writers[] = {
        {set_loglevel, settings.log_level, "Log Level set"},
        {set_disabled_data, settings.disabled, "Disabled set"},
        {set_track_data, settings.track, "Track data set"},
        {set_remote_log, settings.remote_log, nullptr},
    };
    for (const auto &writer : writers) {
        // Stored as its low 16 bits with their sign, whatever the running value is.
        if (const int failure = writer.write(static_cast<int16_t>(writer.value)))
            return failure;
        if (writer.done)
            syslog(LOG_DEBUG, "%s", writer.done);
    }
    return 0;
}

// Puts stored settings into effect; the upstream connection stays open as it is.
static void apply_settings(const NewSettings &settings, ConfigRequest *request) {
    for (int slot = 0; slot < UPSTREAM_SLOTS; slot++) // an address is its own format text; kept
        expand_format(request->dns[slot], sizeof request->dns[slot], settings.dns[slot]);
    request->disabled = settings.disabled;
    request->track = settings.track;
    request->remote_log = settings.remote_log;
    oDNS.record_traffic = settings.track;
    oDNS.disabled = settings.disabled;
    replace_upstreams(settings.dns);
    oDNS.log_level = settings.log_level;
    set_log_mask(settings.log_level);
}

static void set_config_reply(struct uloop_timeout *timer) {
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

static int vt_set_config(struct ubus_context *, struct ubus_object *, struct ubus_request_data *req,
                         const char *, struct blob_attr *msg) {
    syslog(LOG_DEBUG, "Inside vt_set_config");
    const Arguments arguments(set_config_policy, msg);
    const NewSettings settings = settings_of(arguments);
    syslog(LOG_DEBUG, "remoteLog in vt_set_config: %d", settings.remote_log);
    auto *request = allocate<ConfigRequest>();
    if (!request)
        return UBUS_STATUS_NO_MEMORY;
    request->call.status = store_settings(settings);
    if (request->call.status == 0)
        apply_settings(settings, request);
    syslog(LOG_DEBUG, "Set DNS");
    for (int slot = 0; slot < UPSTREAM_SLOTS; slot++)
        syslog(LOG_DEBUG, "Set DNS%d: %s, %s", slot + 1, settings.dns[slot], request->dns[slot]);
    syslog(LOG_DEBUG, "Set Loglevel: %d", settings.log_level);
    syslog(LOG_DEBUG, "Set Disabled: %d", settings.disabled);
    syslog(LOG_DEBUG, "Set Track: %d", settings.track);
    defer(req, &request->call, Gated<set_config_reply>::call);
    syslog(LOG_DEBUG, "Done vt_set_config");
    return 0;
}

// The object and its thread

static const struct ubus_method vt_methods[] = {
    UBUS_METHOD("add", Gated<vt_list_add>::call, list_update_policy),
    UBUS_METHOD("remove", Gated<vt_list_remove>::call, list_update_policy),
    UBUS_METHOD("stats", Gated<vt_get_stats>::call, stats_policy),
    UBUS_METHOD("ping", Gated<vt_ping>::call, ping_policy),
    UBUS_METHOD("clients", Gated<vt_get_client_list>::call, get_arp_policy),
    UBUS_METHOD("get_config", Gated<vt_get_config>::call, get_config_policy),
    UBUS_METHOD("set_config", Gated<vt_set_config>::call, set_config_policy),
    UBUS_METHOD("list", Gated<vt_get_list>::call, list_edit_policy),
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

static void register_objects() {
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
    ctx = ubus_connect(nullptr);
    if (!ctx) {
        syslog(LOG_ERR, "Failed to connect to UBUS socket. Admin is disabled");
        uloop_done();
        return nullptr;
    }
    ubus_add_uloop(ctx);
    syslog(LOG_DEBUG, "Inside admin_ubus_main");
    register_objects();
    uloop_run();
    syslog(LOG_DEBUG, "server_main End");
    ubus_free(ctx);
    uloop_done();
    return nullptr;
}
