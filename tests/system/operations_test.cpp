// What docs/operations.md tells an owner to do.
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

} // namespace
