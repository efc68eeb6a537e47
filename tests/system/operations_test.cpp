// The converter as a program: its status, standard output, and the files that it writes.
#include "transcript.h"

using namespace harness;

namespace {

constexpr char TRY[] = "C=" CONVERTER R"(
    try() {
        rm -rf /tmp/c && mkdir /tmp/c && cd /tmp/c || exit
        printf '0.0.0.0 localhost b.example\n@@||w.example^\n' >list
        printf c.example >other
        printf '<html>\n<p>\nnot found\n</html>\n' >page
        seq -f %g.example 1000 >long
        echo as it was >white
        printf '.a.example,1\na.example,4\n' >new
        cksum white new >before
        (eval "$1") 2>/dev/null
        status=$?
        cksum white new | cmp -s before - && echo untouched || for file in white new; do
            echo "$file:" $(cat $file)
        done
        ls | grep tmp
        return $status
    }
)";

struct OperationsTest : SystemTest {};

TEST_F(OperationsTest, ConvertsListsAsAWholeOrNotAtAll) {
    expect_transcript("convert", TRY);
}

} // namespace
