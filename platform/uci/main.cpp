// uci [-q] COMMAND [ARGUMENT]: the configuration library's command line, as far as the router's
// scripts and documents use it. Changes wait in the save directory until they are committed.
#include <uci.h>

#include <cstdio>
#include <cstring>
#include <glob.h>
#include <memory>
#include <string>
#include <string_view>
#include <unistd.h>

namespace {

struct FreeContext {
    void operator()(uci_context *ctx) const { uci_free_context(ctx); }
};

// A command on the object that its argument names; gives a result code of the library.
using Command = int (*)(uci_context *ctx, uci_ptr &ptr);

struct NamedCommand {
    std::string_view name;
    Command run;
    bool has_value; // KEY=VALUE, otherwise KEY
};

} // namespace

// The items of a list stand in one line, separated by blanks.
static void print_option(const uci_option &option) {
    if (option.type == UCI_TYPE_STRING) {
        puts(option.v.string);
        return;
    }
    const char *separator = "";
    uci_element *item;
    uci_foreach_element(&option.v.list, item) {
        printf("%s%s", separator, item->name);
        separator = " ";
    }
    putchar('\n');
}

static int get(uci_context *, uci_ptr &ptr) {
    if (!(ptr.flags & uci_ptr::UCI_LOOKUP_COMPLETE) || !ptr.s)
        return UCI_ERR_NOTFOUND;
    if (ptr.o)
        print_option(*ptr.o);
    else
        puts(ptr.s->type);
    return UCI_OK;
}

static int saved(uci_context *ctx, const uci_ptr &ptr, int result) {
    return result == UCI_OK ? uci_save(ctx, ptr.p) : result;
}

static int set(uci_context *ctx, uci_ptr &ptr) {
    return saved(ctx, ptr, uci_set(ctx, &ptr));
}

static int add_list(uci_context *ctx, uci_ptr &ptr) {
    return saved(ctx, ptr, uci_add_list(ctx, &ptr));
}

static int del_list(uci_context *ctx, uci_ptr &ptr) {
    return saved(ctx, ptr, uci_del_list(ctx, &ptr));
}

static int remove(uci_context *ctx, uci_ptr &ptr) {
    return saved(ctx, ptr, uci_delete(ctx, &ptr));
}

static int commit(uci_context *ctx, uci_ptr &ptr) {
    return uci_commit(ctx, &ptr.p, false);
}

static constexpr NamedCommand COMMANDS[] = {
    {"get", get, false},          {"set", set, true},        {"add_list", add_list, true},
    {"del_list", del_list, true}, {"delete", remove, false}, {"commit", commit, false},
};

static int run_command(uci_context *ctx, const NamedCommand &command, char *argument) {
    uci_ptr ptr = {};
    if (const int result = uci_lookup_ptr(ctx, &ptr, argument, true))
        return result;
    if (command.has_value != (ptr.value != nullptr))
        return UCI_ERR_INVAL;
    return command.run(ctx, ptr);
}

// Every package that has a file.
static int commit_all(uci_context *ctx) {
    glob_t files = {};
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the program has one thread
    glob((std::string(ctx->confdir) + "/*").c_str(), 0, nullptr, &files);
    int result = UCI_OK;
    for (size_t i = 0; i < files.gl_pathc; i++) {
        uci_package *package = nullptr;
        if (uci_load(ctx, strrchr(files.gl_pathv[i], '/') + 1, &package) != UCI_OK)
            continue;
        if (const int failure = uci_commit(ctx, &package, false))
            result = failure;
    }
    globfree(&files);
    return result;
}

int main(int argc, char **argv) {
    bool quiet = false;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the program has one thread
    for (int option; (option = getopt(argc, argv, "+q")) != -1;) {
        if (option != 'q')
            return 1;
        quiet = true;
    }
    const std::unique_ptr<uci_context, FreeContext> ctx(uci_alloc_context());
    const int arguments = argc - optind;
    for (const NamedCommand &command : COMMANDS) {
        const bool all = arguments == 1 && command.run == commit;
        if (arguments < 1 || command.name != argv[optind] || (arguments != 2 && !all))
            continue;
        const int result =
            all ? commit_all(ctx.get()) : run_command(ctx.get(), command, argv[optind + 1]);
        ctx->err = result;
        if (result != UCI_OK && !quiet)
            uci_perror(ctx.get(), "uci");
        return result != UCI_OK;
    }
    fputs("Usage: uci [-q] get|delete KEY, set|add_list|del_list KEY=VALUE, commit [PACKAGE]\n",
          stderr);
    return 255;
}
