// A router for tests: its shell and tools and no others, with the package as the build installs it
// (tests/support/router).
#pragma once

#include "harness.h"

namespace harness {

struct Router : SystemTest {
    std::optional<Process> bus;

    void SetUp() override {
        SystemTest::SetUp();
        if (!fs::exists("/tmp/router"))
            run(ROUTER_FILES "/set_up " BUILD_TREE);
        setenv("PATH", "/tmp/router:/usr/sbin", 1);
        run("cp -r /tmp/root/etc/* " ROUTER_FILES "/init.d /etc");
    }
    void start_bus() {
        write_file("/etc/config/system", "config system\n\toption log_remote '0'\n");
        run("mkdir -p /var/run/ubus && rm -f /var/run/ubus/ubus.sock");
        bus.emplace("ubusd", std::vector<std::string>{});
        ASSERT_TRUE(eventually([] { return fs::exists("/var/run/ubus/ubus.sock"); }));
    }
};

} // namespace harness
