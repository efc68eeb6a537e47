// What docs/operations.md tells of the program that converts lists.
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

} // namespace
