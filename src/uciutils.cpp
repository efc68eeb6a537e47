#include "uciutils.h"

#include "guards.h"
#include "log.h"
#include "strutils.h"

#include <cstdio>
#include <cstring>
#include <syslog.h>

extern "C" {
#include <uci.h>
}

// The address for a slot without one: a public recursive resolver.
static constexpr const char *DEFAULT_UPSTREAM_DNS = "9.9.9.9";

static constexpr const char *STATS_DB_PATH_KEY = "vantrelle.@main[0].stats_db_path";

namespace {

struct FreeContext {
    void operator()(uci_context *context) const { uci_free_context(context); }
};
using UciContext = std::unique_ptr<uci_context, FreeContext>;

// A lookup with all that must live as long as its result: the library splits the key in place and
// its pointers lead into that text and into the context.
struct Lookup {
    UciContext ctx;
    char key[100] = "";
    uci_ptr ptr = {};
    bool found = false; // the library read the package; section and option may still be missing
};

} // namespace

// Allocates a context; logs a failure.
static UciContext alloc_context() {
    UciContext ctx(uci_alloc_context());
    if (!ctx)
        syslog(LOG_ERR, "failed to alloc uci ctx");
    return ctx;
}

static void look_up_quietly(Lookup &lookup, const char *key) {
    snprintf(lookup.key, sizeof lookup.key, "%s", key);
    lookup.found = uci_lookup_ptr(lookup.ctx.get(), &lookup.ptr, lookup.key, true) == UCI_OK;
}

// Looks `key` up and logs a failure. A missing section or option is none: it shows in `ptr`.
static void look_up(Lookup &lookup, const char *key) {
    look_up_quietly(lookup, key);
    if (!lookup.found)
        syslog(LOG_ERR, "Failed to find the specified section: %s", key);
}

// The text of the option found, null when it is missing or a list.
static const char *option_text(const Lookup &lookup) {
    const uci_option *option = lookup.ptr.o;
    return lookup.found && option && option->type == UCI_TYPE_STRING ? option->v.string : nullptr;
}

char *get_uci_string(const char *key) {
    Lookup lookup = {.ctx = alloc_context()};
    if (!lookup.ctx)
        return nullptr;
    look_up(lookup, key);
    const char *text = option_text(lookup);
    if (text) {
        if (is_debug())
            syslog(LOG_DEBUG, "UCI Option %s is %s", key, text);
        return strdup(text);
    }
    syslog(LOG_WARNING, "Failed to get %s", key);
    return nullptr;
}

int get_uci_int(const char *key) {
    const OwnedText text(get_uci_string(key));
    return text ? decimal(text.get()) : -1;
}

int get_uci_int_with_default(const char *key, int fallback) {
    const int value = get_uci_int(key);
    return value == -1 ? fallback : value;
}

char *get_new_uci_string(const char *key) {
    Lookup lookup = {.ctx = alloc_context()};
    if (!lookup.ctx)
        return nullptr;
    look_up_quietly(lookup, key);
    const char *text = option_text(lookup);
    return text ? strdup(text) : nullptr;
}

int get_new_uci_int(const char *key, int fallback) {
    const OwnedText text(get_new_uci_string(key));
    return text ? decimal(text.get()) : fallback;
}

char *get_uci_string_with_default(const char *key, const char *fallback) {
    OwnedText text(get_uci_string(key));
    syslog(LOG_DEBUG, "ret: %s", shown(text.get()));
    if (!text || !*text)
        return strdup(fallback);
    // The message stands in the branch that does not use the default; log readers know it there.
    syslog(LOG_DEBUG, "Returning default: %s", fallback);
    return text.release();
}

char *get_upstream_dns(int n) {
    char key[40] = "vantrelle.@main[0].upstream_dns";
    if (n != 1) // the first one has no digit
        snprintf(key, sizeof key, "vantrelle.@main[0].upstream_dns%d", n);
    Lookup lookup = {.ctx = alloc_context()};
    if (!lookup.ctx)
        return strdup(DEFAULT_UPSTREAM_DNS);
    look_up(lookup, key);
    const char *text = option_text(lookup);
    if (text) {
        syslog(LOG_DEBUG, "Upstream DNS %d is %s", n, text);
        return strdup(text);
    }
    if (lookup.found)
        syslog(LOG_WARNING, "Failed to get Upstream DNS %i setting to default %s", n,
               DEFAULT_UPSTREAM_DNS);
    return strdup(DEFAULT_UPSTREAM_DNS);
}

char *get_stats_db_location() {
    Lookup lookup = {.ctx = alloc_context()};
    if (!lookup.ctx)
        return nullptr;
    look_up(lookup, STATS_DB_PATH_KEY);
    const char *text = option_text(lookup);
    if (text)
        return strdup(text);
    if (lookup.found)
        syslog(LOG_WARNING, "Failed to get Stats DB Path Value");
    return nullptr;
}

bool isRemoteLog() {
    return get_uci_int("system.@system[0].log_remote") == 1;
}

bool isFirstBoot() {
    return get_uci_int("vantrelle.@main[0].first_boot") == 1;
}

// Looks up the section that `key` names, or begins with; false when there is none, which is no
// error to the library.
static bool find_section(Lookup &lookup, const char *key) {
    snprintf(lookup.key, sizeof lookup.key, "%s", key);
    return uci_lookup_ptr(lookup.ctx.get(), &lookup.ptr, lookup.key, true) == UCI_OK &&
           lookup.ptr.s;
}

// Gives the option `name` of the section found its new value, in memory.
static bool set_option(Lookup &lookup, const char *name, const char *value) {
    lookup.ptr.option = name;
    lookup.ptr.value = value;
    return uci_set(lookup.ctx.get(), &lookup.ptr) == UCI_OK;
}

static bool commit(Lookup &lookup) {
    return uci_commit(lookup.ctx.get(), &lookup.ptr.p, false) == UCI_OK;
}

static constexpr const char *MAIN_SECTION = "vantrelle.@main[0]";

namespace {

struct NumberOption {
    const char *section;
    const char *name;
    const char *set_failed;
    const char *commit_failed;
};

} // namespace

// The common rest of the number writers.
static int write_number(Lookup &lookup, const NumberOption &option, int number) {
    constexpr int FAILED = 5;
    if (!lookup.ctx)
        return FAILED;
    if (!find_section(lookup, option.section)) {
        syslog(LOG_ERR, "failed to find the specified section: %s", option.section);
        return FAILED;
    }
    char value[20];
    snprintf(value, sizeof value, "%u", static_cast<unsigned>(number));
    if (!set_option(lookup, option.name, value)) {
        syslog(LOG_ERR, "%s", option.set_failed);
        return FAILED;
    }
    if (!commit(lookup)) {
        syslog(LOG_ERR, "%s", option.commit_failed);
        return FAILED;
    }
    return 0;
}

int set_loglevel(int level) {
    Lookup lookup = {.ctx = alloc_context()};
    return write_number(lookup,
                        {MAIN_SECTION, "log_level", "failed to set log_level",
                         "Failed to commit log_level changes"},
                        level);
}

int set_disabled_data(int flag) {
    Lookup lookup = {.ctx = alloc_context()};
    return write_number(lookup,
                        {MAIN_SECTION, "disabled", "failed to set Disabled option",
                         "Failed to commit Disabled option changes"},
                        flag);
}

int set_track_data(int flag) {
    Lookup lookup = {.ctx = alloc_context()};
    return write_number(lookup,
                        {MAIN_SECTION, "record_traffic", "failed to set record_traffic",
                         "Failed to commit record_traffic changes"},
                        flag);
}

int set_remote_log(int flag) {
    Lookup lookup = {.ctx = alloc_context()};
    if (lookup.ctx)
        syslog(LOG_DEBUG, "Remote Logging inside set: %d", flag);
    return write_number(lookup,
                        {"system.@system[0]", "log_remote", "failed to set log_remote",
                         "Failed to commit log_remote changes"},
                        flag);
}

int set_dns(int n, const char *address) {
    syslog(LOG_DEBUG, "Inside set_dns %d : %s", n, shown(address));
    Lookup lookup = {.ctx = UciContext(uci_alloc_context())}; // without one the lookup fails
    char option[24] = "upstream_dns";
    if (n != 1) // the first one has no digit
        snprintf(option, sizeof option, "upstream_dns%d", n);
    syslog(LOG_DEBUG, "sec: %s", MAIN_SECTION);
    syslog(LOG_DEBUG, "dns_option: %s", option);
    if (!find_section(lookup, MAIN_SECTION)) {
        syslog(LOG_ERR, "failed to find the specified section: %s 1", MAIN_SECTION);
        return 1;
    }
    syslog(LOG_DEBUG, "About to set option");
    syslog(LOG_DEBUG, "config.option/config.value: %s, %s", option, shown(address));
    // The failures name the database location, as log readers know them.
    if (!set_option(lookup, option, address)) {
        syslog(LOG_ERR, "failed to set new stats_db_location");
        return 2;
    }
    syslog(LOG_DEBUG, "About to commit");
    const bool committed = commit(lookup);
    if (!committed)
        syslog(LOG_ERR, "failed to commit stats_db_location changes");
    syslog(LOG_DEBUG, "Commit was OK"); // said in both cases
    return committed ? 0 : 3;
}

void set_stats_db_location(const char *directory) {
    Lookup lookup = {.ctx = alloc_context()};
    if (!lookup.ctx)
        return;
    if (!find_section(lookup, STATS_DB_PATH_KEY)) {
        syslog(LOG_ERR, "failed to find the specified section: %s 1", STATS_DB_PATH_KEY);
        return;
    }
    syslog(LOG_DEBUG, "Stats db location is:  %s", shown(directory));
    // The whole key is no option name: the library reports success and stores nothing, so that the
    // next start has no location either. Whoever wants a database configures its directory.
    if (!set_option(lookup, STATS_DB_PATH_KEY, directory))
        syslog(LOG_ERR, "failed to set new stats_db_location");
    if (!commit(lookup))
        syslog(LOG_ERR, "failed to commit stats_db_location changes");
}
