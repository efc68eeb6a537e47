// Arbitrary bytes as what two clients send to the bus, and as what a bus sends to a client.
#include "bus.h"
#include "fuzz.h"

extern "C" {
#include <libubus.h>
}
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

uint32_t next_id;
std::string_view from_bus;
int far_end;

// Bytes change hands between the two clients at each marker. Neither reads, so that answers pile
// up.
void feed_bus(std::string_view input) {
    static constexpr std::string_view marker = "\xff\xff\xff\xff";
    int first[2], second[2];
    check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, first) == 0 &&
          socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, second) == 0);
    accept_client(first[0]);
    accept_client(second[0]);
    for (bool turn = false; !input.empty(); turn = !turn) {
        std::string_view piece = input.substr(0, input.find(marker));
        send((turn ? second : first)[1], piece.data(), piece.size(), MSG_NOSIGNAL);
        uloop_run_timeout(0);
        input.remove_prefix(std::min(input.size(), piece.size() + marker.size()));
    }
    close(first[1]);
    uloop_run_timeout(0);
    close_clients();
    close(second[1]);
    check(bus.objects.empty() && bus.paths.empty()); // of clients that have left
}

int answer_call(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *,
                blob_attr *msg) {
    return ubus_send_reply(ctx, req, msg);
}

// The bus greets, sends the input and ends its side, while the client registers an object and looks
// around.
void feed_client(std::string_view input) {
    static constexpr ubus_method methods[] = {{nullptr, answer_call, 0, 0, nullptr, 0}};
    ubus_object_type type = UBUS_OBJECT_TYPE("probe", methods);
    ubus_object object{{}, "probe", 0, nullptr, &type, nullptr, false, methods, 1};
    ubus_subscriber subscriber{};
    uint32_t id = 0;
    from_bus = input;
    ubus_context *ctx = ubus_connect("");
    ubus_add_object(ctx, &object);
    ubus_register_subscriber(ctx, &subscriber);
    ubus_lookup_id(ctx, nullptr, &id);
    ubus_notify(ctx, &object, "tick", nullptr, 0);
    ubus_handle_event(ctx);
    ubus_free(ctx);
    close(far_end);
}

} // namespace

// The far end of a connection is a socket that has sent everything already.
extern "C" int connect(int fd, const sockaddr *, socklen_t) {
    static constexpr std::string_view greeting{"\0\0\0\0\1\2\3\4\0\0\0\4", 12};
    int ends[2];
    check(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0 && dup2(ends[0], fd) == fd);
    close(ends[0]);
    far_end = ends[1];
    for (const std::string_view bytes : {greeting, from_bus})
        send(far_end, bytes.data(), bytes.size(), 0);
    return shutdown(far_end, SHUT_WR);
}

// Ids count up from the lowest, so that inputs can name them.
extern "C" ssize_t getrandom(void *buffer, size_t length, unsigned) {
    memcpy(buffer, &next_id, std::min(length, sizeof(next_id)));
    next_id++;
    return (ssize_t)length;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    uloop_init();
    next_id = UBUS_SYSTEM_OBJECT_MAX;
    if (size)
        (data[0] & 1 ? feed_client
                     : feed_bus)({reinterpret_cast<const char *>(data) + 1, size - 1});
    return 0;
}
