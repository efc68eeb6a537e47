#include "uciutils.h"

#include "config.h"
#include "guards.h"
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
    char key[100];
    uci_ptr ptr;
    bool found; // the library read the package; section and option may still be missing
};

} // namespace

// Allocates a context; logs a failure.
static UciContext alloc_context() {
    UciContext ctx(uci_alloc_context());
    if (!ctx)
        syslog(LOG_ERR, "failed to alloc uci ctx");
    return ctx;
}

// Looks `key` up and logs a failure. A missing section or option is none: it shows in `ptr`.
static void look_up(Lookup &lookup, const char *key) {
    std::snprintf(lookup.key, sizeof lookup.key, "%s", key);
    lookup.ptr = {};
    lookup.found = uci_lookup_ptr(lookup.ctx.get(), &lookup.ptr, lookup.key, true) == UCI_OK;
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
    if (lookup.found)
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

char *get_uci_string_with_default(const char *key, const char *fallback) {
    OwnedText text(get_uci_string(key));
    syslog(LOG_DEBUG, "ret: %s", text ? text.get() : "(null)");
    if (!text || !*text)
        return strdup(fallback);
    // The message stands in the branch that does not use the default; log readers know it there.
    syslog(LOG_DEBUG, "Returning default: %s", fallback);
    return text.release();
}

char *get_upstream_dns(int n) {
    char key[40] = "vantrelle.@main[0].upstream_dns";
    if (n != 1) // the first one has no digit
        std::snprintf(key, sizeof key, "vantrelle.@main[0].upstream_dns%d", n);
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

bool is_debug() {
    return oDNS.debug_sql != 0;
}

bool is_sql_debug() {
    return oDNS.debug != 0;
}
