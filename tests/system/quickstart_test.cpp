// docs/quickstart.md on a router: its commands as they are printed, and what one should see then.
// The router's dnsmasq, the provider's resolver and web server and the device are real programs,
// each of the last two in a network of its own.
#include "router.h"
#include "transcript.h"

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

struct Quickstart : Router {
    std::optional<Process> provider;

    void SetUp() override {
        Router::SetUp();
        run(". " ROUTER_FILES "/lan.sh");
        start_bus();
        provider.emplace("unshare", std::vector<std::string>{"-n", ROUTER_FILES "/provider"});
        run("ubus -t 10 wait_for nothing 2>/dev/null; /etc/init.d/dnsmasq restart");
    }
    static std::string on_device(const std::string &commands) {
        write_file("/tmp/commands", commands);
        return shell("unshare -n -m " ROUTER_FILES "/device /tmp/commands");
    }
};

TEST_F(Quickstart, IsTrue) {
    const std::string all = "cat /etc/config/network /etc/config/dhcp /etc/config/firewall";
    const std::string before = shell(all);
    run("sh /etc/uci-defaults/90_vantrelle"); // with the installation
    size_t shown = 0;
    for (const Block &block : read_page()) {
        if (block.commands.empty() || block.mark.find("installation") != std::string::npos)
            continue;
        SCOPED_TRACE(block.commands);
        std::string output;
        if (block.mark.find("device") != std::string::npos) {
            output = on_device(block.commands);
            expect_like(on_device("nslookup laptop.lan"), "...192.168.1.100..."); // local names
        } else {
            output = shell(block.commands + "true");
        }
        if (!block.expected.empty()) {
            shown++;
            expect_like(output, block.expected);
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
    EXPECT_EQ(shell(all), before) << "taken back";
    EXPECT_FALSE(fs::exists("/etc/config/vantrelle"));
    expect_like(on_device("nslookup www.ads.example"), "...203.0.113.7...");
}

} // namespace
