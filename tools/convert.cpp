// vantrelle-convert: published lists in, lines of a list file out. A filter, which vantrelle-lists
// and people call; docs/operations.md says what it understands and what its statuses mean.
//
// Everything is read before anything is written. The further files are written beside their places,
// then standard output, and only then do the files go to their places: whoever finds a new NEW
// knows that the difference to it was delivered.

#include "guards.h"
#include "listlines.h"
#include "patterns.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

static constexpr int STATUS_FAILED = 1;
static constexpr int STATUS_NO_LIST = 2;

namespace {

struct Options {
    bool is_forced = false;
    const char *white_file = nullptr;
    const char *old_file = nullptr;
    const char *new_file = nullptr;
};

} // namespace

// --- messages ------------------------------------------------------------------------------------

[[gnu::format(printf, 1, 2)]] static void say(const char *format, ...) {
    fputs("vantrelle-convert: ", stderr);
    va_list arguments;
    va_start(arguments, format);
    vfprintf(stderr, format, arguments);
    va_end(arguments);
    fputc('\n', stderr);
}

// False, for whoever returns it.
static bool fail(const char *what, const char *file) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the program has one thread
    say("cannot %s %s: %s", what, file, strerror(errno));
    return false;
}

static void say_count(uint32_t count, const char *what) {
    if (count > 0)
        say("left out: %u %s", count, what);
}

static void report(const Lists &lists) {
    say("%u names, %u white names, from %u lines", lists.black.count, lists.white.count,
        lists.lines);
    say_count(lists.black.merged + lists.white.merged, "named more than once");
    say_count(lists.black.covered + lists.white.covered, "below another name");
    for (int i = 0; i < LEFT_OUT_REASONS; i++)
        say_count(lists.left_out[i], REASONS[i]);
}

// --- input ---------------------------------------------------------------------------------------

static bool read_file(const char *path, Lists &lists) {
    const OwnedFile file(fopen(path, "re"));
    return (file && read_list(file.get(), lists)) || fail("read", path);
}

static bool read_inputs(char **files, Lists &lists) {
    if (!*files)
        return read_list(stdin, lists) || fail("read", "standard input");
    for (; *files; files++)
        if (!read_file(*files, lists))
            return false;
    return true;
}

// The output of an earlier run; none yet is an empty one.
static bool read_old(const char *path, Names &old) {
    if (!path)
        return true;
    const OwnedFile file(fopen(path, "re"));
    if (!file)
        return errno == ENOENT || fail("read", path);
    uint32_t bad_line = 0;
    if (read_patterns(file.get(), old, bad_line))
        return true;
    if (bad_line == 0)
        return fail("read", path);
    say("%s is no output of this program: line %u", path, bad_line);
    return false;
}

static bool arrange_all(Lists &lists, Names &old) {
    if (!arrange(lists.black) || !arrange(lists.white) || !arrange(old))
        return fail("sort", "the names");
    drop_covered(lists.black);
    drop_covered(lists.white);
    return true;
}

// --- output --------------------------------------------------------------------------------------

// Whether all that was written has arrived where it is kept, if it is kept.
static bool is_complete(FILE *file) {
    if (fflush(file) != 0 || ferror(file))
        return false;
    return fsync(fileno(file)) == 0 || errno == EINVAL || errno == ENOTSUP || errno == EROFS;
}

namespace {

// A file that is written beside its place, and removed again unless it is put there.
class Replacement {
    const char *const path_;
    OwnedText temporary_;

    bool can_replace() const {
        struct stat status;
        if (stat(path_, &status) != 0 || S_ISREG(status.st_mode))
            return true;
        say("cannot write %s: it is no regular file", path_);
        return false;
    }

  public:
    // A null path is none at all, and all succeeds.
    explicit Replacement(const char *path) : path_(path) {}
    ~Replacement() {
        if (temporary_)
            unlink(temporary_.get());
    }
    Replacement(const Replacement &) = delete;
    Replacement &operator=(const Replacement &) = delete;

    // What an earlier run left there when the power failed is overwritten, so that nothing piles
    // up.
    bool write(const Names &names) {
        if (!path_)
            return true;
        char *name = nullptr;
        if (!can_replace() || asprintf(&name, "%s.tmp", path_) < 0)
            return false;
        temporary_.reset(name);
        unlink(name);
        const OwnedFile file(fopen(name, "wxe"));
        if (!file)
            return fail("write", name);
        write_patterns(file.get(), names, Names(), LineKind::ADDED);
        return is_complete(file.get()) || fail("write", name);
    }

    bool put_in_place() {
        if (!temporary_)
            return true;
        if (rename(temporary_.get(), path_) != 0)
            return fail("write", path_);
        temporary_.reset();
        return true;
    }
};

} // namespace

static bool write_outputs(const Options &options, const Lists &lists, const Names &old) {
    Replacement white(options.white_file);
    Replacement whole(options.new_file);
    if (!white.write(lists.white) || !whole.write(lists.black))
        return false;
    write_patterns(stdout, old, lists.black, LineKind::REMOVED);
    write_patterns(stdout, lists.black, old, LineKind::ADDED);
    if (!is_complete(stdout))
        return fail("write", "standard output");
    return white.put_in_place() && whole.put_in_place();
}

// --- the program ---------------------------------------------------------------------------------

// A web page instead of a list would be an empty list.
static bool is_list(const Lists &lists, bool is_forced) {
    if (is_forced || lists.known >= lists.lines - lists.known)
        return true;
    say("no list: %u of %u lines have a known form (-f takes them all the same)", lists.known,
        lists.lines);
    return false;
}

static int convert(const Options &options, char **files) {
    Lists lists;
    Names old;
    lists.wants_white = options.white_file;
    if (!read_inputs(files, lists) || !read_old(options.old_file, old) || !arrange_all(lists, old))
        return STATUS_FAILED;
    if (!is_list(lists, options.is_forced)) {
        report(lists);
        return STATUS_NO_LIST;
    }
    if (!write_outputs(options, lists, old))
        return STATUS_FAILED;
    report(lists);
    return EXIT_SUCCESS;
}

static bool read_options(int argc, char **argv, Options &options) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the program has one thread
    for (int option; (option = getopt(argc, argv, "fw:o:n:")) != -1;)
        switch (option) {
        case 'f':
            options.is_forced = true;
            break;
        case 'w':
            options.white_file = optarg;
            break;
        case 'o':
            options.old_file = optarg;
            break;
        case 'n':
            options.new_file = optarg;
            break;
        default:
            return false;
        }
    const bool has_both = options.white_file && options.new_file;
    return !has_both || strcmp(options.white_file, options.new_file) != 0;
}

int main(int argc, char **argv) {
    signal(SIGPIPE, SIG_IGN); // a reader that ends is a write that fails
    Options options;
    if (!read_options(argc, argv, options)) {
        fputs("usage: vantrelle-convert [-f] [-w WHITEFILE] [-o OLD] [-n NEW] [FILE...]\n", stderr);
        return STATUS_FAILED;
    }
    return convert(options, argv + optind);
}
