// What docs/operations.md tells an owner to do: the program that converts lists, and the daemon
// beside a router's own dnsmasq, which keeps DHCP and the local names.
#include "database.h"
#include "harness.h"

using namespace harness;

namespace {

struct OperationsTest : SystemTest {};

// The converter as a program: its status, standard output, and the files WHITE and NEW. Each case
// begins with the same ones, the latter the output of an earlier run.
TEST_F(OperationsTest, ConvertsListsAsAWholeOrNotAtAll) {
    const std::string before = "==\nas it was\n==\n.a.example,1\na.example,4\n";
    const std::string after = "0\n~a.example\n~.a.example\nb.example,4\n.b.example,1\n"
                              "==\nw.example,4\n.w.example,1\n==\nb.example,4\n.b.example,1\n";
    const std::string both = "0\nb.example,4\n.b.example,1\nc.example,4\n.c.example,1\n" + before;
    const std::string failed = "1\n" + before;
    const std::pair<std::string, std::string> cases[] = {
        {"$C -w white -o new -n new list", after},
        {"$C -w white -o new -n new <list", after},
        {"$C -o none list other", both},
        {"$C -w white -o new -n new /dev/null", "0\n~a.example\n~.a.example\n==\n==\n"},
        {"$C -x other", failed},
        {"$C -w new -n new other", failed},
        // a web page, alone, with as many lines of a list, and with one less
        {"$C -w white -o new -n new page", "2\n" + before},
        {"$C -f -n new page", "0\n==\nas it was\n==\n"},
        {"head -n 2 page | $C list other /dev/fd/0", both},
        {"head -n 3 page | $C list /dev/fd/0", "2\n" + before},
        // what cannot be read
        {"$C -w white -n new other none", failed},
        {"$C -w white -n new other .", failed},
        {"$C -w white -n new <&-", failed},
        {"$C -o page -n new other", failed},
        {"$C -o . -n new other", failed},
        // what cannot be written
        {"$C -w white -n new other >/dev/full", failed},
        {"$C -w white -n new other >&-", failed},
        {"{ sleep 0.3; $C -w white -n new other; echo $? >status; } | true; exit $(cat status)",
         failed},
        {"mount -t tmpfs -o size=4k none full; $C -w white -n full/new long; status=$?; "
         "ls full; umount full; exit $status",
         failed},
        {"$C -w white -n none/new other", failed},
        {"$C -w white -n full other", failed},
        {"$C -w white -n /dev/null other; status=$?; [ -c /dev/null ] && exit $status", failed},
    };
    run("mkdir -p /tmp/c/full");
    write_file("/tmp/c/list", "0.0.0.0 localhost b.example\n@@||w.example^\n");
    write_file("/tmp/c/other", "c.example");
    write_file("/tmp/c/page", "<html>\n<p>\nnot found\n</html>\n");
    write_file("/tmp/c/old", ".a.example,1\na.example,4\n");
    run("seq -f %g.example 1000 >/tmp/c/long");
    for (const auto &[command, expected] : cases) {
        Process shell("/bin/sh",
                      {"-c", "cd /tmp/c; cp old new; echo as it was >white; C=" CONVERTER "; (" +
                                 command +
                                 ") >out 2>/dev/null; echo $?; cat out; "
                                 "echo ==; cat white; echo ==; cat new; ls | grep tmp"});
        shell.wait();
        EXPECT_EQ(shell.output(), expected) << command;
    }
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
