// ubus [options] COMMAND [arguments]: the bus's command line.
#include "commands.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>
#include <string_view>
#include <unistd.h>

namespace {

struct NamedCommand {
    std::string_view name;
    Command run;
};

} // namespace

static constexpr std::array COMMANDS{
    NamedCommand{"list", list_objects},           NamedCommand{"call", call_method},
    NamedCommand{"subscribe", subscribe_objects}, NamedCommand{"listen", listen_events},
    NamedCommand{"send", send_one_event},         NamedCommand{"wait_for", wait_for_objects},
};

static void print_usage() {
    fputs("Usage: ubus [<options>] <command> [arguments...]\n"
          "Options:\n"
          " -s <socket>:\t\tUnix socket of the bus\n"
          " -t <seconds>:\t\tHow long to wait for a command to complete (30)\n"
          " -S:\t\t\tSimple output, for scripts\n"
          " -v:\t\t\tVerbose output\n"
          "\n"
          "Commands:\n"
          " - list [<path>]\t\t\tList objects\n"
          " - call <path> <method> [<message>]\tCall an object's method\n"
          " - subscribe <path> [<path>...]\t\tPrint the notifications of objects\n"
          " - listen [<pattern>...]\t\tPrint events\n"
          " - send <name> [<message>]\t\tSend an event\n"
          " - wait_for <path> [<path>...]\t\tWait until objects are there\n",
          stderr);
}

static int run_command(ubus_context *ctx, const Options &options, Arguments arguments) {
    for (const NamedCommand &command : COMMANDS) {
        if (command.name == arguments[0])
            return command.run(ctx, options, arguments.subspan(1));
    }
    return WRONG_USAGE;
}

int main(int argc, char **argv) {
    Options options;
    const char *path = nullptr;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the program has one thread
    for (int option; (option = getopt(argc, argv, "vs:t:Sm:M:")) != -1;) {
        switch (option) {
        case 's':
            path = optarg;
            break;
        case 't':
            options.seconds = std::clamp(atoi(optarg), 0, INT_MAX / 1000);
            options.limited = true;
            break;
        case 'S':
            options.simple = true;
            break;
        case 'v':
            options.verbose = true;
            break;
        case 'm': // only monitor uses these
        case 'M':
            break;
        default:
            print_usage();
            return 1;
        }
    }
    if (optind >= argc) {
        print_usage();
        return 1;
    }
    ubus_context *ctx = ubus_connect(path);
    if (!ctx) {
        if (!options.simple)
            fputs("Failed to connect to ubus\n", stderr);
        return -1;
    }
    int result = run_command(ctx, options, {argv + optind, (size_t)(argc - optind)});
    fflush(stdout);
    if (result > 0 && !options.simple)
        fprintf(stderr, "Command failed: %s\n", ubus_strerror(result));
    else if (result == WRONG_USAGE)
        print_usage();
    ubus_free(ctx);
    uloop_done();
    return result;
}
