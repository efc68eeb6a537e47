// What reaches the handlers of the bus object, called in process: messages of any shape, while
// another hand alters the database, lists are unloaded and asked, and the ARP table says anything.
// The functions at the end stand in for the bus, the configuration store and the ARP table.
#include "admin_ubus.h"
#include "blacklist.h"
#include "blockedlist.h"
#include "config.h"
#include "fuzz.h"
#include "log.h"
#include "server.h"
#include "sqlite_heap.h"
#include "statsdb.h"
#include "thpool.h"
#include "whitelist.h"

#include <arpa/inet.h>
#include <bit>
#include <memory>
#include <numeric>
#include <sys/mman.h>
#include <vector>

extern "C" {
#include <libubus.h>
#include <uci.h>
}

namespace {

constexpr size_t LARGEST = 1048576; // message that the bus takes
constexpr size_t ENVELOPE = 128;    // more than a message has besides arguments or reply

constexpr ListId LISTS[] = {ListId::BLACK, ListId::LOCAL_BLACK, ListId::BLOCKED_DEVICE,
                            ListId::WHITE, ListId::LOCAL_WHITE, ListId::LOCAL_DEVICE};

std::string arp;
sqlite3 *other; // the connection of another process
const ubus_object *object;
std::vector<uloop_timeout *> timers;
int replies, completed;
bool altered;    // the schema
int store_calls; // left until one fails

// Runs the statements that a statement gives.
void run_each(const char *sql) {
    std::string all = "begin;";
    const auto append = [](void *to, int, char **row, char **) {
        *static_cast<std::string *>(to) += row[0];
        return 0;
    };
    check(sqlite3_exec(other, sql, append, &all, nullptr) == SQLITE_OK &&
          sqlite3_exec(other, (all + "commit").c_str(), nullptr, nullptr, nullptr) == SQLITE_OK);
}

bool set_up() {
    constexpr char database[] = "file:/rows?vfs=memdb"; // in memory, the same for both connections
    take_own_heap();
    check(sqlite3_config(SQLITE_CONFIG_URI, 1) == SQLITE_OK &&
          sqlite3_config(SQLITE_CONFIG_SINGLETHREAD) == SQLITE_OK &&
          open_database(database, &oDNS.db) == SQLITE_OK &&
          sqlite3_open(database, &other) == SQLITE_OK);
    static char name[] = "Vantrelle-0A1B2C3D", no_directory[] = "/dev/null";
    oDNS.path = no_directory;
    oDNS.hostname = oDNS.interface = oDNS.board = name;
    oDNS.pool = thpool_init(0);
    pthread_mutex_init(&lock, nullptr);
    admin_ubus_main(nullptr);
    return object;
}

bool store_fails() {
    return store_calls-- == 0;
}

// A state that does not depend on the inputs before.
void begin() {
    for (const ListId id : LISTS)
        unload(id);
    if (altered)
        check(sqlite3_db_config(other, SQLITE_DBCONFIG_RESET_DATABASE, 1, nullptr) == SQLITE_OK &&
              sqlite3_exec(other, "vacuum", nullptr, nullptr, nullptr) == SQLITE_OK &&
              sqlite3_db_config(other, SQLITE_DBCONFIG_RESET_DATABASE, 0, nullptr) == SQLITE_OK);
    run_each("select 'delete from ' || name || ';' from sqlite_master where type = 'table'");
    altered = false;
    static const char *const none[] = {"", "", "", ""};
    replace_upstreams(none);
    oDNS.log_level = oDNS.disabled = oDNS.record_traffic = 0;
    set_traces(false, false);
    store_calls = -1;
    arp.clear();
}

// An argument: missing, of any type, a text that means something, or any text.
void add_argument(blob_buf *message, const char *name, Input &input) {
    static constexpr const char *words[] = {"bl",  "wl", "ad",         "bd",  "1",
                                            "100", "-1", "2147483647", "~bl", "192.0.2.1"};
    const unsigned kind = input.byte();
    if (kind < 16)
        return;
    if (kind < 128) {
        blobmsg_add_string(message, name, words[kind % std::size(words)]);
        return;
    }
    static constexpr size_t sizes[] = {0, 8, 8, 8, 8, 4, 2, 1, 8}; // of the types
    const unsigned type = kind < 240 ? unsigned{BLOBMSG_TYPE_STRING} : kind % std::size(sizes);
    const std::string value =
        kind < 240 ? input.text(16) + '\0' : std::string(input.piece(sizes[type]));
    blobmsg_add_field(message, static_cast<int>(type), name, value.data(),
                      static_cast<unsigned>(value.size()));
}

// The library looks at the length of the arguments and at nothing within.
void call(Input &input) {
    const ubus_method &method =
        object->methods[input.byte() % static_cast<unsigned>(object->n_methods)];
    std::string arguments;
    if (input.byte() & 1) {
        arguments = input.text(16);
    } else {
        blob_buf message = {};
        blob_buf_init(&message, 0);
        for (int i = 0; i < method.n_policy; i++)
            add_argument(&message, method.policy[i].name, input);
        arguments.assign(static_cast<char *>(blob_data(message.head)), blob_len(message.head));
        blob_buf_free(&message);
    }
    if (arguments.size() > LARGEST - ENVELOPE)
        return;
    const size_t size = sizeof(blob_attr) + arguments.size();
    const std::unique_ptr<blob_attr, decltype(&std::free)> message(
        static_cast<blob_attr *>(std::calloc(1, (size + 3) / 4 * 4)), &std::free);
    message->id_len = htonl(static_cast<uint32_t>(UBUS_ATTR_DATA << BLOB_ATTR_ID_SHIFT | size));
    std::memcpy(message->data, arguments.data(), arguments.size());
    ubus_request_data request = {};
    const size_t waiting = timers.size();
    replies = 0;
    method.handler(nullptr, const_cast<ubus_object *>(object), &request, method.name,
                   message.get());
    check(request.deferred ? replies == 0 && timers.size() == waiting + 1
                           : replies <= 1 && timers.size() == waiting);
}

void answer_first(Input &) {
    if (timers.empty())
        return;
    uloop_timeout *timer = timers.front();
    timers.erase(timers.begin());
    replies = completed = 0;
    timer->cb(timer);
    check(replies == 1 && completed == 1);
}

// A null, a blob, or a text, of which numeric columns make numbers.
void bind_any(sqlite3_stmt *statement, int at, Input &input) {
    const unsigned kind = input.byte() % 3;
    const std::string value = input.text(16);
    const int size = static_cast<int>(value.size());
    if (kind == 1)
        sqlite3_bind_blob(statement, at, value.data(), size, SQLITE_TRANSIENT);
    else if (kind == 2)
        sqlite3_bind_text(statement, at, value.data(), size, SQLITE_TRANSIENT);
}

void alter(Input &input) {
    static constexpr const char *tables[] = {"black",       "local_black",  "white",
                                             "local_white", "local_device", "blocked_device"};
    static constexpr const char *statements[] = {
        "insert or replace into %s (frag, opt, disabled) values(?1, ?2, ?3)",
        "update or replace %s set frag = ?1",
        "update %s set opt = ?1, disabled = ?2",
        "update or replace %s set id = ?1",
        "delete from %s where ?1",
        // What changes the schema.
        "drop table %s",
        "drop table %s_stats",
        "drop table %s_fqdn",
        "drop table %s_hit",
        "alter table %s rename column frag to other",
        "alter table %s_stats rename to other",
        "create table %s(id integer, frag, opt, disabled)",
        "create view %s as select 7 id, x'ff00' frag, 1e300 opt, 0 disabled",
        "create trigger %s_rejects before insert on %s begin select raise(abort, 'no'); end",
        "create trigger %s_empties after update on %s begin delete from %s; end",
    };
    const char *table = tables[input.byte() % std::size(tables)];
    constexpr unsigned rows_only = 5;
    const unsigned choice = input.byte(); // the schema costs time too
    const unsigned which = choice % (choice < 192 ? rows_only : std::size(statements));
    char sql[200];
    std::snprintf(sql, sizeof sql, statements[which], table, table, table);
    altered |= which >= rows_only;
    sqlite3_stmt *statement = nullptr;
    sqlite3_prepare_v2(other, sql, -1, &statement, nullptr); // fails without the table
    for (int at = 1; at <= sqlite3_bind_parameter_count(statement); at++)
        bind_any(statement, at, input);
    sqlite3_step(statement);
    sqlite3_finalize(statement);
}

void reload(Input &input) {
    const unsigned choice = input.byte();
    const ListId id = LISTS[choice % std::size(LISTS)];
    if (choice >= 192)
        reload_lists();
    else if (choice >= 128)
        unload(id);
    else
        load_filter_list(id);
}

void look_up(Input &input) {
    const std::string client = "192.0.2." + std::to_string(input.byte() % 4);
    const std::string name = input.text();
    const Query query{name.c_str(), client.c_str()};
    is_blocked_device(query) || is_whitelisted(query) || is_blacklisted(query);
}

void change_settings(Input &input) {
    const unsigned bits = input.byte();
    set_traces(bits & 1, bits & 2);
    oDNS.record_traffic = bits >> 2 & 1;
    store_calls = static_cast<int>(bits >> 3) - 1;
}

void check_list(const List *list) {
    uint32_t count = 0;
    for (const Node *node = list ? list->head : nullptr; node; node = node->next, count++)
        check(!node->next || std::strlen(node->frag) <= std::strlen(node->next->frag));
    check(!list || (count == list->nodes && list->size == count));
}

// Whether all fields are well-formed, and so on within tables.
bool are_valid(void *data, size_t size) {
    blob_attr *field;
    size_t rest = size;
    __blob_for_each_attr(field, data, rest) {
        if (!blobmsg_check_attr_len(field, true, rest) ||
            (blobmsg_type(field) == BLOBMSG_TYPE_TABLE &&
             !are_valid(blobmsg_data(field), blobmsg_data_len(field))))
            return false;
    }
    return rest == 0;
}

// A page has the records it says, but for those that did not fit, and no more than there are.
void check_page(blob_attr *reply) {
    static constexpr blobmsg_policy policy[] = {{"max_records", BLOBMSG_TYPE_STRING},
                                                {"records", BLOBMSG_TYPE_STRING},
                                                {"list_items", BLOBMSG_TYPE_TABLE}};
    blob_attr *found[3], *item;
    blobmsg_parse(policy, 3, found, blob_data(reply), static_cast<unsigned>(blob_len(reply)));
    if (!found[2])
        return;
    int items = 0;
    size_t rest;
    blobmsg_for_each_attr(item, found[2], rest)
        check(blobmsg_name(item) == std::to_string(++items));
    const int records = std::atoi(blobmsg_get_string(found[1]));
    check(items <= records && records <= std::atoi(blobmsg_get_string(found[0])));
}

} // namespace

extern "C" {
bool uloop_handle_sigchld;

ubus_context *ubus_connect(const char *) {
    static ubus_context connection;
    return &connection;
}
int ubus_add_object(ubus_context *, ubus_object *added) {
    object = added;
    return 0;
}
int ubus_register_subscriber(ubus_context *, ubus_subscriber *) {
    return 0;
}
const char *ubus_strerror(int) {
    return "";
}
void ubus_free(ubus_context *) {}
int uloop_init() {
    return 0;
}
int uloop_fd_add(uloop_fd *, unsigned) {
    return 0;
}
int uloop_run_timeout(int) {
    return 0;
}
void uloop_done() {}

int uloop_timeout_set(uloop_timeout *timer, int) {
    timers.push_back(timer);
    return 0;
}
int ubus_send_reply(ubus_context *, ubus_request_data *, blob_attr *reply) {
    replies++;
    check(blob_len(reply) <= LARGEST - ENVELOPE && are_valid(blob_data(reply), blob_len(reply)));
    check_page(reply);
    return 0;
}
void ubus_complete_deferred_request(ubus_context *, ubus_request_data *, int) {
    completed++;
}

// The configuration store holds one option.
uci_context *uci_alloc_context() {
    static uci_context context;
    return store_fails() ? nullptr : &context;
}
void uci_free_context(uci_context *) {}
int uci_lookup_ptr(uci_context *, uci_ptr *ptr, char *, bool) {
    static uci_section section;
    static uci_option option;
    static char text[] = "1";
    option.type = UCI_TYPE_STRING;
    option.v.string = text;
    ptr->s = store_fails() ? nullptr : &section;
    ptr->o = store_fails() ? nullptr : &option;
    return store_fails() ? UCI_ERR_NOTFOUND : UCI_OK;
}
int uci_set(uci_context *, uci_ptr *) {
    return store_fails() ? UCI_ERR_INVAL : UCI_OK;
}
int uci_commit(uci_context *, uci_package **, bool) {
    return store_fails() ? UCI_ERR_IO : UCI_OK;
}

FILE *__real_fopen(const char *path, const char *mode);
FILE *__wrap_fopen(const char *path, const char *mode) {
    if (std::strcmp(path, "/proc/net/arp") != 0)
        return __real_fopen(path, mode);
    const int file = memfd_create("arp", MFD_CLOEXEC);
    check(write(file, arp.data(), arp.size()) == static_cast<ssize_t>(arp.size()));
    lseek(file, 0, SEEK_SET);
    return fdopen(file, mode);
}
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const bool ready = set_up();
    check(ready);
    begin();
    static constexpr void (*steps[])(Input &) = {
        call,
        call,
        call,
        call,
        alter,
        reload,
        look_up,
        answer_first,
        change_settings,
        [](Input &from) { arp = from.text(); },
    };
    // The longest texts take time: one input in 256 may have them.
    const bool is_chosen = std::accumulate(data, data + size, uint8_t{}) == 0;
    Input input(data, size, is_chosen ? 2 << 20 : 4096);
    for (int count = 0; count < 24 && !input.empty(); count++)
        steps[input.byte() % std::size(steps)](input);
    while (!timers.empty())
        answer_first(input);
    for (const ListId id : LISTS)
        check_list(hold_list(id).get());
    return 0;
}
