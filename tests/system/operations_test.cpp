// What docs/operations.md tells an owner to do: the command that converts lists, and the daemon
// beside a router's own dnsmasq, which keeps DHCP and the local names.
#include "database.h"
#include "harness.h"

using namespace harness;

namespace {

struct OperationsTest : SystemTest {};

TEST_F(OperationsTest, ConvertsOtherKindsOfLists) {
    const std::string page = read_file(DOCUMENTS "/operations.md");
    const size_t begin = page.find("    awk '"), end = page.find(" blocklist.txt", begin);
    ASSERT_NE(end, std::string::npos);
    write_file("/tmp/list",
               "# hosts\n127.0.0.1\tlocalhost\n::1 ip6-localhost\n0.0.0.0 0.0.0.0\n"
               "0.0.0.0 one.example Two.example # not no.example\n"
               "[Adblock Plus]\n! not no.example\n||three.example^\n||no.example^$popup\n"
               "@@||no.example^\nno.example##.banner\n||no.example/path\n"
               "*.four.example\n*no.example\n.five.example\n||six.example^\r\n");
    const Process awk("/bin/sh",
                      {"-c", "busybox " + page.substr(begin, end - begin) + " /tmp/list"});
    std::string patterns;
    for (const std::string name : {"one", "two", "three", "four", "five", "six"})
        patterns.append(name).append(".example,4\n.").append(name).append(".example,1\n");
    EXPECT_TRUE(eventually([&] { return awk.output() == patterns; }, 3000)) << awk.output();
}

// A query answered with 203.0.113.7; what follows the question is cut off.
Bytes found(const Bytes &message) {
    Bytes answer = message.substr(0, message.find('\0', 12) + 5);
    answer.replace(2, 10, "\x81\x80\0\1\0\1\0\0\0\0"s);
    return answer + "\xC0\x0C\0\1\0\1\0\0\0\x3C\0\4\xCB\0\x71\7"s;
}

// A device in a network namespace of its own, joined to the router's lan0: gets its address by
// DHCP, and then asks the resolver that it was told.
constexpr char device[] = R"(
    cat >/tmp/lease <<'END' && chmod +x /tmp/lease
#!/bin/sh
[ "$1" = bound ] || exit 0
ip addr add "$ip/$mask" dev "$interface" && ip route add default via "$router"
echo "$dns" >/tmp/dns
END
    ip link add lan1 type veth peer name lan0 netns 1 && ip link set lan1 up
    nsenter -t 1 -n sh -c 'ip addr add 192.168.9.1/24 dev lan0 && ip link set lan0 up'
    busybox udhcpc -fnq -i lan1 -s /tmp/lease -x hostname:laptop >/dev/null 2>&1
    cat /tmp/dns
    for name in laptop.lan www.example x.ads.example "-x 192.168.9.100"; do
        dig +short +noedns +tries=1 @$(cat /tmp/dns) $name
    done
)";

TEST_F(OperationsTest, SharesARouterWithDnsmasq) {
    const Upstream provider(1, found);
    run("ip link add dns0 type dummy || ip link add dns0 type bridge; "
        "ip addr add 10.0.0.53/32 dev dns0 && ip link set dns0 up");
    // It would take the provider's address as well if it were not kept from lo.
    const Process dnsmasq("dnsmasq", {"-dhRC/dev/null", "--bind-dynamic", "--except-interface=dns0",
                                      "--except-interface=lo", "--server=10.53.0.1", "--domain=lan",
                                      "--local=/lan/", "--no-ping",
                                      "--dhcp-range=192.168.9.100,192.168.9.100,5m",
                                      "--dhcp-option=6,10.0.0.53", "--dhcp-leasefile=/tmp/leases"});
    const Client client(29);
    ASSERT_TRUE(eventually([&] {
        client.send(query("up.example"), sandbox::ROUTER);
        return client.receive(100).has_value();
    }));
    fs::create_directory("/etc/vantrelle");
    write_file("/etc/vantrelle/black.lst", ".ads.example,1\n");
    configure({{"interface", "dns0"},
               {"stats_db_path", "/etc/vantrelle"},
               {"upstream_dns", sandbox::ROUTER}});
    const Daemon daemon;
    client.send(query("first.example"), "10.0.0.53"); // whose sender is never answered
    Process asking("unshare", {"-n", "/bin/sh", "-c", device});
    asking.wait();
    EXPECT_EQ(asking.output(),
              "10.0.0.53\n192.168.9.100\n203.0.113.7\n255.255.255.255\nlaptop.lan.\n");
    EXPECT_EQ(read_rows("/etc/vantrelle/vantrelle.db",
                        "select fqdn, ip from dns_traffic where id > 1 union all "
                        "select frag, ip from black_stats s join black b on b.id = s.frag_id"),
              "laptop.lan|192.168.9.100\nwww.example|192.168.9.100\n"
              ".ads.example|192.168.9.100\n");
    run("ip link del dns0");
}

} // namespace
