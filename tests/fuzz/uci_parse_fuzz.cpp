// Reads hostile configuration files, delta files and keys with the configuration library. An input
// is a configuration file and, after a line "----", a text that serves as delta file, key and
// value.
#include "fuzz.h"
#include "internal.h"

namespace {

using uci::OwnedPackage;

OwnedPackage parse(uci::Context &ctx, std::string_view text) {
    OwnedPackage package = uci::new_package(ctx, "p", "/p", true);
    if (uci::parse_config(ctx, *package, text) != UCI_OK)
        package.reset();
    return package;
}

// Types are written without quotes; one with such a byte does not come back.
bool survives(const uci::Package &package) {
    uci_element *e;
    uci_foreach_element(&package.sections, e) {
        if (strpbrk(uci_to_section(e)->type, "'\"#;\\"))
            return false;
    }
    return true;
}

// What is written is read back as the same package, and so is a change from its delta line.
void round_trip(uci::Context &ctx, uci::Package &package, const std::string &value) {
    const std::string written = uci::export_package(package);
    const OwnedPackage again = parse(ctx, written);
    check(again && uci::export_package(*again) == written);

    uci_ptr ptr = {};
    ptr.p = &package;
    ptr.section = "@[0]";
    ptr.option = "changed";
    ptr.value = value.c_str();
    ptr.flags = uci_ptr::UCI_LOOKUP_EXTENDED;
    if (uci_list_empty(&package.sections) || !*ptr.value || !uci_validate_text(ptr.value))
        return;
    check(uci::set(ctx, ptr, true) == UCI_OK);
    check(uci::apply_delta(ctx, *again, package.pending) == !package.pending.empty());
    check(uci::export_package(*again) == uci::export_package(package));
}

void find(uci::Context &ctx, uci::Package &package, std::string key) {
    uci_ptr ptr;
    if (!uci::split_key(ptr, key.data()))
        return;
    ptr.p = &package;
    if (uci::lookup(ctx, ptr, true) == UCI_OK && (ptr.flags & uci_ptr::UCI_LOOKUP_COMPLETE))
        check(ptr.last && (!ptr.option || ptr.o) && (!ptr.section || ptr.s));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string_view input = text_of(data, size), line = "----\n";
    const size_t cut = std::min(input.find(line), size);
    const std::string config(input.substr(0, cut)),
        delta(input.substr(std::min(cut + line.size(), size)));
    uci_context *owner = uci_alloc_context();
    uci::Context &ctx = uci::own(owner);
    if (const OwnedPackage package = parse(ctx, config)) {
        find(ctx, *package, delta);
        if (survives(*package))
            round_trip(ctx, *package, delta);
        uci::apply_delta(ctx, *package, delta);
        uci::export_package(*package);
    }
    uci_free_context(owner);
    return 0;
}
