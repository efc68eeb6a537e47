// What reaches the handlers of the bus object, called in process: messages of any shape. The source
// is taken in for its table of methods; the functions at the end stand in for the bus, the log and
// the configuration store.
#include "admin_ubus.cpp"

#include "blockedlist.h"
#include "fuzz.h"
#include "statsdb.h"

#include <arpa/inet.h>
#include <cstdarg>
#include <numeric>
#include <sqlite3.h>
#include <vector>

extern "C" {
#include <libubox/blobmsg_json.h>
#include <uci.h>
}

namespace {

constexpr size_t LARGEST = 1048576; // message that the bus takes
constexpr size_t ENVELOPE = 128;    // more than a message has besides arguments or reply

std::vector<uloop_timeout *> timers;
int replies, completed;

bool set_up() {
    static char name[] = "Vantrelle-0A1B2C3D", no_directory[] = "/dev/null";
    oDNS.path = no_directory;
    oDNS.hostname = oDNS.interface = oDNS.board = name;
    oDNS.pool = thpool_init(0);
    return sqlite3_config(SQLITE_CONFIG_SINGLETHREAD) == SQLITE_OK &&
           pthread_mutex_init(&lock, nullptr) == 0;
}

// A state that does not depend on the inputs before.
void begin() {
    black_list_cleanup();
    white_list_cleanup();
    blocked_device_list_cleanup();
    close_database();
    check(open_database(":memory:", &oDNS.db) == SQLITE_OK);
    static const char *const none[] = {"", "", "", ""};
    replace_upstreams(none);
    oDNS.log_level = oDNS.disabled = 0;
}

// An argument: missing, of any type, a text that means something, or any text.
void add_argument(blob_buf *message, const char *name, Input &input) {
    static constexpr const char *words[] = {"bl",  "wl", "ad",         "bd",  "1",
                                            "100", "-1", "2147483647", "~bl", "192.0.2.1"};
    static constexpr size_t sizes[] = {0, 8, 8, 8, 8, 4, 2, 1, 8}; // of the types
    const unsigned kind = input.byte();
    if (kind >= 240) {
        const unsigned type = kind % std::size(sizes);
        const std::string_view value = input.piece(sizes[type]);
        blobmsg_add_field(message, static_cast<int>(type), name, value.data(),
                          static_cast<unsigned>(value.size()));
    } else if (kind >= 16) {
        blobmsg_add_string(message, name,
                           kind < 128 ? words[kind % std::size(words)] : input.text(16).c_str());
    }
}

// The library looks at the length of the arguments and at nothing within.
void call(Input &input) {
    const ubus_method &method = vt_methods[input.byte() % std::size(vt_methods)];
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
    std::vector<uint32_t> block((size + 3) / 4); // of just this size
    auto *message = reinterpret_cast<blob_attr *>(block.data());
    message->id_len = htonl(static_cast<uint32_t>(UBUS_ATTR_DATA << BLOB_ATTR_ID_SHIFT | size));
    std::memcpy(message->data, arguments.data(), arguments.size());
    ubus_request_data request = {};
    const size_t waiting = timers.size();
    replies = 0;
    method.handler(nullptr, nullptr, &request, method.name, message);
    check(request.deferred ? replies == 0 && timers.size() == waiting + 1
                           : replies <= 1 && timers.size() == waiting);
}

void answer_first() {
    if (timers.empty())
        return;
    uloop_timeout *timer = timers.front();
    timers.erase(timers.begin());
    replies = completed = 0;
    timer->cb(timer);
    check(replies == 1 && completed == 1);
}

} // namespace

// The linker puts these three in the place of the library's.
extern "C" {
int __wrap_uloop_timeout_set(uloop_timeout *timer, int) {
    timers.push_back(timer);
    return 0;
}
int __wrap_ubus_send_reply(ubus_context *, ubus_request_data *, blob_attr *reply) {
    replies++;
    check(blob_len(reply) <= LARGEST - ENVELOPE);
    check(OwnedText(blobmsg_format_json(reply, false)) != nullptr);
    return 0;
}
void __wrap_ubus_complete_deferred_request(ubus_context *, ubus_request_data *, int) {
    completed++;
}

// The system log: lines are formatted, so that a sanitizer sees what they read, and dropped.
void vsyslog(int, const char *format, va_list values) {
    char line[1024];
    std::vsnprintf(line, sizeof line, format, values);
}
void syslog(int, const char *format, ...) {
    va_list values;
    va_start(values, format);
    vsyslog(0, format, values);
    va_end(values);
}

// The configuration store takes everything and holds one option.
uci_context *uci_alloc_context() {
    static uci_context context;
    return &context;
}
void uci_free_context(uci_context *) {}
int uci_lookup_ptr(uci_context *, uci_ptr *ptr, char *, bool) {
    static uci_section section;
    static uci_option option;
    static char text[] = "1";
    option.type = UCI_TYPE_STRING;
    option.v.string = text;
    ptr->s = &section;
    ptr->o = &option;
    return UCI_OK;
}
int uci_set(uci_context *, uci_ptr *) {
    return UCI_OK;
}
int uci_commit(uci_context *, uci_package **, bool) {
    return UCI_OK;
}
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const bool ready = set_up();
    check(ready);
    begin();
    // The longest texts take time: one input in 256 may have them.
    const bool is_chosen = std::accumulate(data, data + size, uint8_t{}) == 0;
    Input input(data, size, is_chosen ? 2 << 20 : 4096);
    for (int count = 0; count < 24 && !input.empty(); count++)
        if (input.byte() % 8 == 7)
            answer_first();
        else
            call(input);
    while (!timers.empty())
        answer_first();
    return 0;
}
