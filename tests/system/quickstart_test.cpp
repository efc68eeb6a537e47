// docs/quickstart.md on a router: its commands as they are printed, and what one should see then.
// The router's dnsmasq, the provider's resolver and web server and the device are real programs,
// each of the last two in a network of its own.
#include "router.h"

#include <sstream>

#include <fnmatch.h>

using namespace harness;

namespace {

struct Block {
    std::string mark;     // a comment in front of it
    std::string commands; // what is indented
    std::string expected; // what is shown behind it, "..." for anything
};

std::vector<Block> read_page() {
    std::vector<Block> blocks(1);
    std::istringstream page(read_file(DOCUMENTS "/quickstart.md"));
    bool showing = false, open = false;
    for (std::string line; std::getline(page, line);) {
        if (line.starts_with("```"))
            showing = !showing;
        else if (showing)
            blocks.back().expected += line + "\n";
        else if (line.starts_with("<!-- "))
            blocks.push_back({line, "", ""}), open = true;
        else if (line.starts_with("    ")) {
            if (!open)
                blocks.emplace_back(), open = true;
            blocks.back().commands += line.substr(4) + "\n";
        } else if (!line.empty() && !blocks.back().commands.empty())
            open = false;
    }
    return blocks;
}

// Texts for patterns of fnmatch().
std::string pattern_of(const std::string &text) {
    std::string pattern;
    for (size_t i = 0; i < text.size(); i++)
        if (text.compare(i, 3, "...") == 0)
            pattern += "*", i += 2;
        else
            pattern.append(strchr("[?*\\", text[i]) ? "\\" : "").append(1, text[i]);
    return pattern;
}

constexpr char PROVIDER[] = R"(
    ip link add wan1 type veth peer name wan0 netns 1 && ip addr add 10.54.0.1/24 dev wan1
    ip link set wan1 up
    nsenter -t 1 -n sh -c 'ip addr add 10.54.0.2/24 dev wan0 && ip link set wan0 up'
    mkdir -p /tmp/www && printf '0.0.0.0 ads.example\n0.0.0.0 track.example\n' >/tmp/www/hosts.txt
    busybox httpd -p 80 -h /tmp/www
    exec dnsmasq --no-daemon --conf-file=/dev/null --user=root --no-hosts --no-resolv \
        --address=/lists.example/10.54.0.1 --address=/#/203.0.113.7
)";

// Knows nothing but what DHCP tells it; does what is in the file.
constexpr char DEVICE[] = R"(
    cat >/tmp/lease <<'END' && chmod +x /tmp/lease
#!/bin/sh
[ "$1" = bound ] || exit 0
ip addr add "$ip/$mask" dev "$interface" && ip route add default via "$router"
echo "nameserver $dns" >/tmp/resolv.conf
END
    nsenter -t 1 -n ip link del lan0 2>/dev/null # of one whose network is not gone yet
    ip link add eth0 address 02:00:00:00:00:64 type veth peer name lan0 netns 1 && ip link set eth0 up
    nsenter -t 1 -n sh -c 'ip link set lan0 master br-lan && ip link set lan0 up'
    udhcpc -fnq -i eth0 -s /tmp/lease -x hostname:laptop >/dev/null 2>&1
    mount --bind /tmp/resolv.conf /etc/resolv.conf
    . /tmp/commands
)";

struct Quickstart : Router {
    std::optional<Process> bus, provider;

    void SetUp() override {
        Router::SetUp();
        run("ip link add br-lan type bridge && ip addr add 192.168.1.1/24 dev br-lan && "
            "ip link set br-lan up && mkdir -p /var/run/ubus /etc/crontabs && "
            "printf '#!/bin/sh\\nfor url; do :; done\\nexec wget -q -O - http${url#https}\\n' "
            ">/tmp/router/uclient-fetch && chmod +x /tmp/router/uclient-fetch");
        write_file("/etc/config/system", "config system\n\toption log_remote '0'\n");
        write_file("/etc/config/network",
                   "\nconfig interface 'lan'\n\toption ipaddr '192.168.1.1'\n\n");
        write_file("/etc/config/dhcp", "\nconfig dnsmasq\n\toption nonwildcard '1'\n\nconfig dhcp "
                                       "'lan'\n\toption start '100'\n\n");
        write_file("/etc/config/firewall", "\nconfig zone\n\toption name 'lan'\n\n");
        bus.emplace("ubusd", std::vector<std::string>{});
        provider.emplace("unshare", std::vector<std::string>{"-n", "/bin/sh", "-c", PROVIDER});
        run("ubus -t 10 wait_for nothing 2>/dev/null; /etc/init.d/dnsmasq restart");
    }

    static std::string settings() {
        std::string all;
        for (const char *package : {"network", "dhcp", "firewall"})
            all += read_file("/etc/config/"s + package);
        return all;
    }
    static std::string on_device(const std::string &commands) {
        write_file("/tmp/commands", commands);
        Process device("unshare", {"-n", "-m", "/bin/sh", "-c", DEVICE});
        device.wait();
        return device.output();
    }
};

TEST_F(Quickstart, IsTrue) {
    const std::string before = settings();
    run("sh /etc/uci-defaults/90_vantrelle"); // with the installation
    size_t shown = 0;
    for (const Block &block : read_page()) {
        if (block.commands.empty() || block.mark.find("installation") != std::string::npos)
            continue;
        SCOPED_TRACE(block.commands);
        std::string output;
        if (block.mark.find("device") != std::string::npos) {
            output = on_device(block.commands);
            EXPECT_NE(on_device("nslookup laptop.lan").find("192.168.1.100"), std::string::npos)
                << "dnsmasq's local names";
        } else {
            Process shell("/bin/sh", {"-c", block.commands});
            shell.wait(60'000);
            output = shell.output();
        }
        if (!block.expected.empty()) {
            shown++;
            EXPECT_EQ(fnmatch(pattern_of(block.expected).c_str(), output.c_str(), 0), 0) << output;
        }
        // The line for every night, as its program would run it.
        if (block.commands.starts_with("echo")) {
            run("echo new.example >>/tmp/www/hosts.txt; sh -c \"$(cut -d ' ' -f 6- "
                "/etc/crontabs/root)\"");
            EXPECT_TRUE(eventually([] {
                return system("vantrelle why NEW.example | grep -q 'new.example is blocked'") == 0;
            }));
        }
    }
    EXPECT_EQ(shown, 11U) << "ten steps, each with what one should see";
    EXPECT_EQ(settings(), before) << "taken back";
    EXPECT_FALSE(fs::exists("/etc/config/vantrelle"));
    EXPECT_NE(on_device("nslookup www.ads.example").find("203.0.113.7"), std::string::npos);
}

} // namespace
