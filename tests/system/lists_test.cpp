// vantrelle-lists: sources of all kinds, and what a cut at any moment leaves. A model stands for
// the daemon: it takes list files in as the daemon does.
#include "router.h"

#include <set>
#include <sstream>

#include <fnmatch.h>
#include <sys/mount.h>

using namespace harness;

namespace {

using Patterns = std::set<std::string>;

constexpr char HTTP[] = "http://127.0.0.1:8080/";

struct Lists : Router {
    std::optional<Process> server;
    Patterns black, white;

    void SetUp() override {
        Router::SetUp();
        run("mkdir -p /tmp/www/cgi-bin /etc/vantrelle && rm -f /tmp/restarts && "
            "sed -i 's/^TIME_LIMIT=300/TIME_LIMIT=3/' /usr/sbin/vantrelle-lists && "
            "printf '#!/bin/sh\\necho $1 >>/tmp/restarts\\n' >/etc/init.d/vantrelle");
        server.emplace("busybox", std::vector<std::string>{"httpd", "-f", "-p", "127.0.0.1:8080",
                                                           "-h", "/tmp/www"});
        configure();
    }

    static void add_source(const std::string &name, const std::string &url,
                           const std::string &list = "black") {
        std::ofstream("/etc/config/vantrelle", std::ios::app)
            << "config source\n\toption name '" << name << "'\n\toption url '" << url
            << "'\n\toption list '" << list << "'\n\toption enabled '1'\n";
    }
    static void publish(const std::string &file, const std::string &text) {
        write_file("/tmp/www/" + file, text);
    }
    static int update() { return Process("vantrelle-lists", {"update"}).wait(60'000); }

    // What the daemon does with a list file.
    static void import(const std::string &file, Patterns &patterns) {
        std::istringstream lines(read_file(file));
        for (std::string line; std::getline(lines, line);)
            if (line.starts_with('~'))
                patterns.erase(line.substr(1));
            else
                patterns.insert(line.substr(0, line.find(',')));
        unlink(file.c_str());
    }
    void import() {
        import("/etc/vantrelle/black.lst", black);
        import("/etc/vantrelle/white.lst", white);
    }
};

// The two patterns of each name.
Patterns of(std::initializer_list<std::string> names) {
    Patterns patterns;
    for (const std::string &name : names)
        patterns.insert({name, "." + name});
    return patterns;
}

std::string many(int from, int to) {
    std::string text;
    for (int i = from; i < to; i++)
        text += "n" + std::to_string(i) + ".example\n";
    return text;
}

TEST_F(Lists, FollowTheirSources) {
    run("printf '#!/bin/sh\nwhile :; do sleep 1; done' >/tmp/vantrelled; chmod +x /tmp/vantrelled");
    const Process daemon("/tmp/vantrelled", {});
    add_source("hosts", HTTP + "hosts"s);
    add_source("rules", "file:///tmp/www/rules");
    add_source("good", HTTP + "good"s, "white");
    publish("hosts", "127.0.0.1 localhost\r\n0.0.0.0 Both.example one.example # two\r\n");
    publish("rules", "! rules\n||both.example^\n||three.example^\n@@||no.example^\n");
    publish("good", "\xef\xbb\xbf @@||shop.example^\n");
    write_file("/etc/vantrelle/black.lst", "owner.example"); // pending, and without a line end
    EXPECT_EQ(update(), 0);
    EXPECT_TRUE(read_file("/etc/vantrelle/black.lst").starts_with("owner.example\n"));
    import();
    black.erase("owner.example");
    EXPECT_EQ(black, of({"both.example", "one.example", "three.example"}));
    EXPECT_EQ(white, of({"shop.example"}));

    EXPECT_EQ(update(), 0); // nothing new
    EXPECT_FALSE(fs::exists("/etc/vantrelle/black.lst"));
    EXPECT_EQ(read_file("/tmp/restarts"), "restart\n") << "one for all, and none for nothing";

    // Changed: two names less, of which one is still in another source.
    publish("hosts", "0.0.0.0 four.example\n");
    EXPECT_EQ(update(), 0);
    import();
    EXPECT_EQ(black, of({"both.example", "three.example", "four.example"}));

    // Disabled, a source stays as it is until it is removed; so does one that changed its list.
    run("uci set vantrelle.@source[1].enabled=0 && uci set vantrelle.@source[0].list=white && "
        "uci commit vantrelle");
    publish("rules", "||new.example^\n");
    EXPECT_EQ(update(), 0);
    import();
    EXPECT_EQ(black, of({"both.example", "three.example"}));
    EXPECT_EQ(white, of({"shop.example", "four.example"}));
    run("vantrelle-lists remove rules");
    import();
    EXPECT_EQ(black, Patterns());
    EXPECT_EQ(Process("vantrelle-lists", {"remove", "../hosts"}).wait(), 1);
    write_file("/etc/config/vantrelle", "config main\n\toption path 'an owner's'\n");
    EXPECT_EQ(update(), 1);
}

// Each source fails in its own way, and none takes another with it or loses what it had.
TEST_F(Lists, SurviveTheirSources) {
    const struct {
        const char *name, *url, *bad, *error;
    } sources[] = {
        {"page", "file:///tmp/www/page", "<html>\n<body>\nlogin\n</html>\n",
         "cannot be used: no list: 1 of 4 lines have a known form\n"},
        {"shrunk", "file:///tmp/www/shrunk", "one.example\n", "1 names instead of 20"},
        {"large", "file:///tmp/www/large", nullptr, "larger than 64 MiB"},
        {"cut", "http://127.0.0.1:8080/cgi-bin/cut",
         "printf 'Content-Length: 99\\r\\n\\r\\nx.example\\n'", "fetching failed"},
        {"slow", "http://127.0.0.1:8080/cgi-bin/slow", "printf '\\r\\n'; sleep 60",
         "more than 3 seconds"},
        {"gone", "http://127.0.0.1:8080/gone", nullptr, "404"},
        {"good", "file:///tmp/www/good", "good.example\n", nullptr},
    };
    const auto publish_at = [](const std::string &url, const std::string &text) {
        const size_t script = url.find("cgi-bin");
        const std::string file =
            url.substr(script == std::string::npos ? url.rfind('/') + 1 : script);
        publish(file, script == std::string::npos ? text : "#!/bin/sh\n" + text + "\n");
        run("chmod +x /tmp/www/" + file);
    };
    int number = 0;
    for (const auto &[name, url, bad, error] : sources) {
        add_source(name, url);
        const std::string names = many(number, number + 20);
        publish_at(url, url == strstr(url, "http") && strstr(url, "cgi")
                            ? "printf '\\r\\n'; cat <<'END'\n" + names + "END"
                            : names);
        number += 20;
    }
    EXPECT_EQ(update(), 0);
    import();
    EXPECT_EQ(black.size(), 2U * 7 * 20);

    for (const auto &[name, url, bad, error] : sources)
        if (bad)
            publish_at(url, bad);
    run("rm /tmp/www/gone && truncate -s 67108865 /tmp/www/large");
    write_file("/tmp/www/good", many(120, 139) + "new.example\n");
    Process first("vantrelle-lists", {"update"});
    ASSERT_TRUE(eventually([] { return fs::exists("/tmp/vantrelle-lists"); }));
    EXPECT_EQ(update(), 2) << "two at once";
    EXPECT_EQ(first.wait(60'000), 3);
    Patterns expected = black;
    import();
    for (const char *gone : {"n139.example", ".n139.example"})
        expected.erase(gone);
    expected.merge(of({"new.example"}));
    EXPECT_EQ(black, expected);
    const Process status("vantrelle-lists", {"status"});
    EXPECT_TRUE(eventually([&] { return status.output().find("good ") != std::string::npos; }));
    for (const auto &[name, url, bad, error] : sources)
        EXPECT_EQ(fnmatch(("*\n"s + name + " *black *20 *" + (error ? error : "\n") + "*").c_str(),
                          status.output().c_str(), 0),
                  0)
            << name << status.output();
}

// Killed before each of the steps that put a file in its place, and the source changes before the
// next update: nothing is lost, and nothing stays.
TEST_F(Lists, SurviveCuts) {
    add_source("one", "file:///tmp/www/one");
    publish("one", many(0, 10));
    EXPECT_EQ(update(), 0);
    import();
    run("rm /tmp/router/mv && cat >/tmp/router/mv <<'END' && chmod +x /tmp/router/mv\n"
        "#!/bin/sh\necho >>/tmp/steps\n"
        "[ $(wc -l </tmp/steps) != $(cat /tmp/cut) ] || { kill -9 $PPID; exit; }\n"
        "exec busybox mv \"$@\"\nEND\n");
    int version = 2, steps = 0;
    for (int cut = 1; cut <= 6; cut++) {
        SCOPED_TRACE(cut);
        // Two others than before, and one that the next version has no longer.
        publish("one", many(version, version + 10) + "once.v" + std::to_string(cut) + "\n");
        write_file("/tmp/steps", "");
        write_file("/tmp/cut", std::to_string(cut));
        steps += update() != 0;
        if (cut % 2)
            import();
        write_file("/tmp/cut", "0");
        publish("one", many(version + 2, version + 12));
        EXPECT_EQ(update(), 0);
        import();
        Patterns expected;
        for (int i = version + 2; i < version + 12; i++)
            expected.merge(of({"n" + std::to_string(i) + ".example"}));
        EXPECT_EQ(black, expected);
        version += 4;
    }
    EXPECT_EQ(steps, 5) << "the steps of an update";
}

TEST_F(Lists, SurviveAFullDisk) {
    ASSERT_EQ(mount("disk", "/etc/vantrelle", "tmpfs", 0, "size=512k"), 0);
    add_source("one", "file:///tmp/www/one");
    publish("one", many(0, 100));
    EXPECT_EQ(update(), 0);
    import();
    publish("one", many(50, 3000));
    int failures = 0;
    for (size_t room = 0; room < 144;
         room += 16) { // KiB, in which more and more files have a place
        run("head -c 999999 /dev/zero >/etc/vantrelle/filler 2>/dev/null || true");
        fs::resize_file("/etc/vantrelle/filler",
                        fs::file_size("/etc/vantrelle/filler") - 1024 * room);
        failures += update() != 0;
        run("rm /etc/vantrelle/filler");
        import();
    }
    EXPECT_GE(failures, 3);
    EXPECT_LT(failures, 9);
    EXPECT_EQ(update(), 0);
    import();
    EXPECT_EQ(black.size(), 2U * 2950);
    EXPECT_FALSE(black.contains("n49.example"));
    umount("/etc/vantrelle");
}

} // namespace
