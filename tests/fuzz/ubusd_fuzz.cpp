// Arbitrary bytes as what two clients send to the bus, and as what a bus sends to a client.
#include "bus.h"

extern "C" {
#include <libubus.h>
}
#include <filesystem>
#include <string_view>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

uint32_t next_id;

// Bytes change hands between the two clients at each marker. Neither reads, so that answers pile
// up.
void feed_bus(std::string_view input) {
    static constexpr std::string_view marker = "\xff\xff\xff\xff";
    int first[2], second[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, first) != 0 ||
        socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, second) != 0)
        return;
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
}

int answer_call(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *,
                blob_attr *msg) {
    return ubus_send_reply(ctx, req, msg);
}

// The bus greets, sends the input and ends its side, while the client registers an object and looks
// around.
void feed_client(std::string_view input) {
    static char directory[] = "/tmp/ubusd_fuzz.XXXXXX";
    static std::string path;
    static int listener = -1;
    if (listener < 0) {
        path = std::string(mkdtemp(directory)) + "/bus";
        atexit([] { std::filesystem::remove_all(directory); });
        sockaddr_un address{AF_UNIX, {}};
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        listener = socket(AF_UNIX, SOCK_STREAM, 0);
        if (bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof(address)) ||
            listen(listener, 1))
            abort();
    }
    std::thread server([input] {
        int fd = accept(listener, nullptr, nullptr);
        send(fd, "\0\0\0\0\1\2\3\4\0\0\0\4", 12, MSG_NOSIGNAL);
        send(fd, input.data(), input.size(), MSG_NOSIGNAL);
        shutdown(fd, SHUT_WR);
        for (char requests[512]; recv(fd, requests, sizeof(requests), 0) > 0;) {
        }
        close(fd);
    });
    static constexpr ubus_method methods[] = {{nullptr, answer_call, 0, 0, nullptr, 0}};
    ubus_object_type type = UBUS_OBJECT_TYPE("probe", methods);
    ubus_object object{{}, "probe", 0, nullptr, &type, nullptr, false, methods, 1};
    ubus_subscriber subscriber{};
    uint32_t id = 0;
    ubus_context *ctx = ubus_connect(path.c_str());
    ubus_add_object(ctx, &object);
    ubus_register_subscriber(ctx, &subscriber);
    ubus_lookup_id(ctx, nullptr, &id);
    ubus_notify(ctx, &object, "tick", nullptr, 0);
    ubus_handle_event(ctx);
    ubus_free(ctx);
    server.join();
}

} // namespace

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
