#include "internal.h"

#include <cstdlib>

using uci::own;

uci_context *uci_alloc_context(void) {
    auto *ctx = new uci::Context{};
    uci::clear(ctx->root);
    uci::clear(ctx->delta_path);
    ctx->flags = static_cast<uci_flags>(UCI_FLAG_STRICT | UCI_FLAG_SAVED_DELTA);
    ctx->confdir = uci::copy(UCI_CONFDIR);
    ctx->savedir = uci::copy(UCI_SAVEDIR);
    uci::add_element(ctx->delta_path, UCI_TYPE_PATH, UCI_SAVEDIR);
    return ctx;
}

void uci_free_context(uci_context *ctx) {
    if (!ctx)
        return;
    uci_element *e, *next;
    uci_foreach_element_safe(&ctx->root, next, e) {
        uci::free_package(own(uci_to_package(e)));
    }
    uci_foreach_element_safe(&ctx->delta_path, next, e) {
        uci::free_element(*e);
    }
    free(ctx->confdir);
    free(ctx->savedir);
    delete &own(ctx);
}

int uci_set_confdir(uci_context *ctx, const char *dir) {
    return uci::finish(ctx, dir, [&](uci::Context &own) {
        uci::assign(own.confdir, dir);
        return UCI_OK;
    });
}

int uci_set_savedir(uci_context *ctx, const char *dir) {
    return uci::finish(ctx, dir, [&](uci::Context &own) {
        uci::assign(own.savedir, dir);
        if (uci_element *e = uci_find_element(&own.delta_path, own.savedir))
            uci::free_element(*e);
        uci::add_element(own.delta_path, UCI_TYPE_PATH, own.savedir);
        return UCI_OK;
    });
}

static std::string error_text(uci_context *ctx, const char *prefix) {
    static constexpr const char *TEXTS[] = {
        "Success",   "Out of memory", "Invalid argument", "Entry not found",
        "I/O error", "Parse error",   "Duplicate entry",  "Unknown error",
    };
    const int err = ctx ? ctx->err : UCI_ERR_INVAL;
    std::string text = prefix ? std::string(prefix) + ": " : "";
    text += TEXTS[err >= 0 && err < UCI_ERR_LAST ? err : UCI_ERR_UNKNOWN];
    if (err == UCI_ERR_PARSE && own(ctx).parse_line > 0)
        text += " at line " + std::to_string(own(ctx).parse_line);
    return text;
}

void uci_perror(uci_context *ctx, const char *str) {
    fprintf(stderr, "%s\n", error_text(ctx, str).c_str());
}

void uci_get_errorstr(uci_context *ctx, char **dest, const char *str) {
    if (dest)
        *dest = uci::copy(error_text(ctx, str));
}
