// A router for tests: its shell and tools (busybox) and no others, the package as the build
// installs it, and stand-ins for those of its programs that only a router has
// (tests/support/router).
#pragma once

#include "harness.h"

namespace harness {

struct Router : SystemTest {
    // The programs that tests themselves need from here on are next to busybox's, by their names.
    void SetUp() override {
        SystemTest::SetUp();
        ASSERT_EQ(system("command -v busybox >/dev/null"), 0) << "needs Debian's package busybox";
        if (!fs::exists("/tmp/router"))
            run("mkdir /tmp/router && busybox --install -s /tmp/router && "
                "for program in busybox flock sqlite3; do ln -s $(command -v $program) "
                "/tmp/router; done; "
                "for program in ip dnsmasq; do rm -f /tmp/router/$program; "
                "cp $(command -v $program) /tmp/router; done; "
                "for program in ubus ubusd uci; do ln -s " BUILT_PROGRAMS "/$program /tmp/router; "
                "done; cp " ROUTER_FILES "/rc.common /etc && rm -f /etc/init.d && "
                "DESTDIR=/tmp/root cmake --install " BUILD_TREE " && "
                "ln -s /tmp/root/usr/bin/vantrelle-convert /tmp/router && "
                "rm /tmp/router/sync && printf '#!/bin/sh\n' >/tmp/router/sync && " // the whole
                                                                                    // machine
                "chmod +x /tmp/router/sync && mount --bind /tmp/root/usr/sbin /usr/sbin && "
                "mount --bind \"$(command -v busybox)\" \"$(readlink -f /bin/sh)\"");
        setenv("PATH", "/tmp/router:/usr/sbin", 1);
        run("cp -r /tmp/root/etc/* " ROUTER_FILES "/init.d /etc");
    }
};

} // namespace harness
