// The system bus for tests: its daemon beside ours, and a connection for many calls.
#pragma once

#include "harness.h"

#include <list>
#include <map>

#include <sys/stat.h>

extern "C" {
#include <libubox/blobmsg_json.h>
#include <libubus.h>
}

namespace harness {

// A bus daemon runs; once start() has returned, ours has a database, is on the bus and answers.
struct BusTest : SystemTest {
    std::optional<Upstream> upstream{std::in_place, 1};
    std::optional<Process> bus;
    std::optional<Daemon> daemon;

    void start_bus() {
        unlink("/var/run/ubus/ubus.sock");
        bus.emplace(BUS_PROGRAM, std::vector<std::string>{});
        ASSERT_TRUE(eventually([] { return access("/var/run/ubus/ubus.sock", F_OK) == 0; }));
    }
    void start_daemon() {
        daemon.emplace();
        run(BUS_CLIENT " -t 30 wait_for vantrelle");
        Daemon::prime();
    }
    void start(Options main = {}) {
        main.insert(main.begin(), {"stats_db_path", "/etc/vantrelle"});
        configure(main);
        start_daemon();
    }
    void SetUp() override {
        SystemTest::SetUp();
        mkdir("/var/run/ubus", 0755);
        write_file("/etc/config/system", "config system\n\toption log_remote '0'\n");
        start_bus();
    }
};

// A connection of the test's own.
class Connection {
  public:
    Connection() : context(ubus_connect(nullptr)) {
        ubus_add_uloop(context);
        EXPECT_EQ(ubus_lookup_id(context, "vantrelle", &object), 0);
    }
    ~Connection() {
        blob_buf_free(&arguments);
        ubus_free(context);
        uloop_done();
    }
    int call(const char *method, const char *json = "{}") {
        set(json);
        return ubus_invoke(context, object, method, arguments.head, nullptr, nullptr, 20000);
    }
    // Starts a call that takes its time; its status is counted while serve() runs.
    void start(const char *method, const std::string &json = "{}") {
        set(json.c_str());
        ubus_request *request = &requests.emplace_back();
        EXPECT_EQ(ubus_invoke_async(context, object, method, arguments.head, request), 0);
        request->priv = this;
        request->complete_cb = [](ubus_request *done, int status) {
            auto *self = static_cast<Connection *>(done->priv);
            self->statuses[status]++;
            self->pending--;
        };
        ubus_complete_request_async(context, request);
        pending++;
    }
    // Takes replies, until none is due or the time is over.
    void serve(int milliseconds) {
        eventually([this] { return uloop_run_timeout(0), pending == 0; }, milliseconds);
    }

    int pending = 0;
    std::map<int, int> statuses;

  private:
    void set(const char *json) {
        blob_buf_init(&arguments, 0);
        EXPECT_TRUE(blobmsg_add_json_from_string(&arguments, json));
    }
    ubus_context *context;
    std::list<ubus_request> requests; // some are never answered
    uint32_t object = 0;
    blob_buf arguments{};
};

} // namespace harness
