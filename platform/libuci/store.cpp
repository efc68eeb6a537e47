#include "internal.h"

#include "guards.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace uci {

// Opens a regular file and waits for its lock. Anything else gives no descriptor; a pipe that
// nobody writes to must not hold the caller up.
static UniqueFd open_locked(const char *path, int flags, int lock, mode_t mode = 0) {
    UniqueFd file(open(path, flags | O_CLOEXEC | O_NONBLOCK, mode));
    struct stat info;
    if (!file || fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode))
        return UniqueFd();
    while (flock(file.get(), lock) != 0) {
        if (errno != EINTR)
            return UniqueFd();
    }
    return file;
}

static bool read_all(const UniqueFd &file, std::string &text) {
    text.clear();
    for (char buffer[4096];;) {
        const ssize_t count = read(file.get(), buffer, sizeof buffer);
        if (count > 0)
            text.append(buffer, static_cast<size_t>(count));
        else if (count == 0)
            return true;
        else if (errno != EINTR)
            return false;
    }
}

static bool write_all(const UniqueFd &file, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = write(file.get(), text.data(), text.size());
        if (count > 0)
            text.remove_prefix(static_cast<size_t>(count));
        else if (count == 0 || errno != EINTR)
            return false;
    }
    return true;
}

static mode_t mode_of(const char *path, mode_t otherwise) {
    struct stat info;
    return stat(path, &info) == 0 ? info.st_mode & 07777 : otherwise;
}

static bool is_path(std::string_view name) {
    return name.starts_with('/') || name.starts_with("./");
}

// Applies the pending changes of everyone. With `flush`, those in the save directory are dropped
// afterwards if any of them all was accepted.
static int apply_pending(Context &ctx, Package &package, bool flush, size_t &applied) {
    applied = 0;
    if (!package.has_delta)
        return UCI_OK;
    UniqueFd saved;
    uci_element *dir;
    uci_foreach_element(&ctx.delta_path, dir) {
        const std::string path = std::string(dir->name) + '/' + package.e.name;
        const bool own_dir = flush && strcmp(dir->name, ctx.savedir) == 0;
        UniqueFd file =
            open_locked(path.c_str(), own_dir ? O_RDWR : O_RDONLY, own_dir ? LOCK_EX : LOCK_SH);
        std::string text;
        if (!file || !read_all(file, text))
            continue;
        applied += apply_delta(ctx, package, text);
        if (own_dir)
            saved = std::move(file);
    }
    if (applied > 0 && saved && ftruncate(saved.get(), 0) != 0)
        return UCI_ERR_IO;
    return UCI_OK;
}

// Reads the file alone, without pending changes.
static int read_package(Context &ctx, const UniqueFd &file, Package &package) {
    std::string text;
    return read_all(file, text) ? parse_config(ctx, package, text) : UCI_ERR_IO;
}

static uci_package *adopt(Context &ctx, OwnedPackage package) {
    insert_before(ctx.root, package->e.list);
    return package.release();
}

// Puts a new file in the place of the old one, whose mode it takes. A reader sees either whole.
static int replace_file(const Package &package, const UniqueFd &old) {
    const std::string path = package.path;
    const size_t slash = path.rfind('/') + 1;
    std::string temporary = path.substr(0, slash) + '.' + path.substr(slash) + ".uci-XXXXXX";
    const OwnedText target(realpath(package.path, nullptr)); // a link stays a link
    struct stat info;
    if (!target || fstat(old.get(), &info) != 0)
        return UCI_ERR_IO;
    const UniqueFd file(mkostemp(temporary.data(), O_CLOEXEC));
    if (!file)
        return UCI_ERR_IO;
    const bool done = write_all(file, export_package(package)) &&
                      fchmod(file.get(), info.st_mode & 07777) == 0 && fsync(file.get()) == 0 &&
                      rename(temporary.c_str(), target.get()) == 0;
    if (!done)
        unlink(temporary.c_str());
    return done ? UCI_OK : UCI_ERR_IO;
}

static int save(Context &ctx, Package &package) {
    if (package.pending.empty())
        return UCI_OK;
    mkdir(ctx.savedir, mode_of(ctx.confdir, UCI_DIRMODE));
    const std::string path = std::string(ctx.savedir) + '/' + package.e.name;
    const UniqueFd file = open_locked(path.c_str(), O_RDWR | O_CREAT | O_APPEND, LOCK_EX,
                                      mode_of(package.path, UCI_FILEMODE) & 0777);
    struct stat before;
    if (!file || fstat(file.get(), &before) != 0)
        return UCI_ERR_IO;
    if (!write_all(file, package.pending)) {
        // Half a line would spoil those that come after it.
        (void)!ftruncate(file.get(), before.st_size);
        return UCI_ERR_IO;
    }
    package.pending.clear();
    return UCI_OK;
}

static int commit(Context &ctx, uci_package *&package, bool overwrite) {
    // The lock is on the file that the rename replaces: a second writer that waits here reads the
    // old file, and its commit undoes the first one's. All programs on a router do it this way.
    const UniqueFd file = open_locked(package->path, O_RDWR | O_CREAT, LOCK_EX, UCI_FILEMODE);
    if (!file)
        return UCI_ERR_IO;
    if (package->has_delta) {
        if (!overwrite) {
            if (const int rc = save(ctx, own(package)))
                return rc;
            OwnedPackage fresh = new_package(ctx, package->e.name, package->path, true);
            free_package(own(package));
            package = nullptr;
            if (const int rc = read_package(ctx, file, *fresh))
                return rc;
            package = adopt(ctx, std::move(fresh));
        }
        size_t applied;
        if (const int rc = apply_pending(ctx, own(package), true, applied))
            return rc;
        if (applied == 0)
            return UCI_OK; // the file keeps its bytes, comments and layout included
    }
    return replace_file(own(package), file);
}

uci_package *find_loaded(Context &ctx, const char *name) {
    if (!is_path(name))
        return uci_lookup_package(&ctx, name);
    uci_element *e;
    uci_foreach_element(&ctx.root, e) {
        uci_package *package = uci_to_package(e);
        if (!package->has_delta && strcmp(package->path, name) == 0)
            return package;
    }
    return nullptr;
}

int load(Context &ctx, const char *name, uci_package *&package) {
    package = nullptr;
    if (!is_printable(name))
        return UCI_ERR_INVAL;
    const bool by_path = is_path(name);
    if (name[0] == '.' && !by_path)
        return UCI_ERR_NOTFOUND;
    const std::string path = by_path ? name : std::string(ctx.confdir) + '/' + name;
    const std::string own_name = by_path ? path.substr(path.rfind('/') + 1) : name;
    if (uci_lookup_package(&ctx, own_name.c_str()))
        return UCI_ERR_DUPLICATE;
    struct stat info;
    if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode))
        return UCI_ERR_NOTFOUND;
    const UniqueFd file = open_locked(path.c_str(), O_RDONLY, LOCK_SH);
    if (!file)
        return UCI_ERR_IO;
    OwnedPackage fresh = new_package(ctx, own_name, path, !by_path);
    if (const int rc = read_package(ctx, file, *fresh))
        return rc;
    size_t applied;
    apply_pending(ctx, *fresh, false, applied); // a bad line never makes a load fail
    package = adopt(ctx, std::move(fresh));
    return UCI_OK;
}

} // namespace uci

int uci_load(uci_context *ctx, const char *name, uci_package **package) {
    uci_package *loaded = nullptr;
    const int rc =
        uci::finish(ctx, name, [&](uci::Context &own) { return uci::load(own, name, loaded); });
    if (package)
        *package = loaded;
    return rc;
}

int uci_unload(uci_context *ctx, uci_package *p) {
    return uci::finish(ctx, p, [&](uci::Context &) {
        uci::free_package(uci::own(p));
        return UCI_OK;
    });
}

int uci_save(uci_context *ctx, uci_package *p) {
    return uci::finish(ctx, p, [&](uci::Context &own) {
        return p->has_delta ? uci::save(own, uci::own(p)) : uci::commit(own, p, false);
    });
}

int uci_commit(uci_context *ctx, uci_package **p, bool overwrite) {
    return uci::finish(ctx, p && *p,
                       [&](uci::Context &own) { return uci::commit(own, *p, overwrite); });
}
