#include "internal.h"

#include <cstdlib>
#include <cstring>

namespace uci {

// Looks the pointer up unless that was done, and fills its missing names.
static int complete(Context &ctx, uci_ptr &ptr) {
    if (!(ptr.flags & uci_ptr::UCI_LOOKUP_DONE)) {
        if (const int rc = lookup(ctx, ptr, true))
            return rc;
    }
    if (ptr.s && !ptr.section)
        ptr.section = ptr.s->e.name;
    if (ptr.o && !ptr.option)
        ptr.option = ptr.o->e.name;
    return UCI_OK;
}

static void note_change(const uci_ptr &ptr, char prefix, const char *value, bool noted) {
    if (noted && ptr.p->has_delta)
        note(own(ptr.p), prefix, ptr.section, ptr.option, value);
}

// Gives the option a new value at its old place. It takes the name that was asked for only if the
// length of its text changes; otherwise it keeps its own, also where the pointer asks for another.
static void update_option(uci_ptr &ptr) {
    uci_option &o = *ptr.o;
    const bool in_place = o.type == UCI_TYPE_STRING && strlen(o.v.string) == strlen(ptr.value);
    const bool renamed = !in_place && ptr.option != o.e.name;
    set_string(o, ptr.value);
    if (renamed)
        assign(o.e.name, ptr.option);
}

static void update_type(uci_section &s, const char *type) {
    // A type of another length makes an anonymous section a named one, under its generated name.
    if (strlen(s.type) != strlen(type))
        s.anonymous = false;
    assign(s.type, type);
}

int set(Context &ctx, uci_ptr &ptr, bool noted) {
    if (const int rc = complete(ctx, ptr))
        return rc;
    if (!ptr.p || !ptr.value || (!ptr.s && (ptr.option || !ptr.section)))
        return UCI_ERR_INVAL;
    if (!ptr.option && *ptr.value && !is_printable(ptr.value))
        return UCI_ERR_INVAL;
    // An option from an earlier call is used as it is, whatever its name.
    if (!ptr.o && ptr.s && ptr.option)
        ptr.o = uci_lookup_option(&ctx, ptr.s, ptr.option);
    if (!*ptr.value) {
        // Removals are noted even when they come from a delta file.
        return ptr.flags & uci_ptr::UCI_LOOKUP_COMPLETE ? remove(ctx, ptr, true) : UCI_OK;
    }

    if (ptr.o) {
        if (ptr.o->type == UCI_TYPE_STRING && strcmp(ptr.o->v.string, ptr.value) == 0)
            return UCI_OK;
    } else if (ptr.s && !ptr.option && strcmp(ptr.s->type, ptr.value) == 0) {
        return UCI_OK;
    }
    note_change(ptr, 0, ptr.value, noted); // first: the value may lie in what is replaced
    if (ptr.o)
        update_option(ptr);
    else if (ptr.option)
        set_string(*(ptr.o = &add_option(*ptr.s, ptr.option)), ptr.value);
    else if (ptr.s)
        update_type(*ptr.s, ptr.value);
    else
        ptr.s = &add_section(own(ptr.p), ptr.value, ptr.section);
    return UCI_OK;
}

int remove(Context &ctx, uci_ptr &ptr, bool noted) {
    if (const int rc = complete(ctx, ptr))
        return rc;
    if (!(ptr.flags & uci_ptr::UCI_LOOKUP_COMPLETE))
        return UCI_ERR_NOTFOUND;
    const bool by_index = ptr.o && ptr.o->type == UCI_TYPE_LIST && ptr.value && *ptr.value;
    if (!ptr.p || !ptr.s || by_index)
        return UCI_ERR_INVAL;

    note_change(ptr, '-', nullptr, noted);
    // Nothing in the pointer may outlive what it points into.
    ptr.last = &ptr.p->e;
    if (ptr.o) {
        if (ptr.option == ptr.o->e.name)
            ptr.option = nullptr;
        free_option(*ptr.o);
        ptr.o = nullptr;
        ptr.last = &ptr.s->e;
    } else {
        // With an option asked for that does not exist, the section goes, although the note names
        // the option: a commit brings it back.
        if (ptr.section == ptr.s->e.name)
            ptr.section = nullptr;
        free_section(*ptr.s);
        ptr.s = nullptr;
    }
    return UCI_OK;
}

int add_list(Context &ctx, uci_ptr &ptr, bool noted) {
    if (const int rc = complete(ctx, ptr))
        return rc;
    if (!ptr.p || !ptr.s || !ptr.option || !ptr.value)
        return UCI_ERR_INVAL;
    if (!ptr.o)
        ptr.o = uci_lookup_option(&ctx, ptr.s, ptr.option);
    if (!ptr.o)
        ptr.o = &add_option(*ptr.s, ptr.option);
    note_change(ptr, '|', ptr.value, noted);
    append_item(*ptr.o, ptr.value);
    return UCI_OK;
}

int del_list(Context &ctx, uci_ptr &ptr, bool noted) {
    if (const int rc = complete(ctx, ptr))
        return rc;
    if (!ptr.s || !ptr.option || !ptr.value)
        return UCI_ERR_INVAL;
    if (!ptr.o || ptr.o->type != UCI_TYPE_LIST)
        return UCI_OK;
    note_change(ptr, '~', ptr.value, noted);
    uci_element *e, *next;
    uci_foreach_element_safe(&ptr.o->v.list, next, e) {
        if (strcmp(e->name, ptr.value) == 0)
            free_element(*e);
    }
    return UCI_OK;
}

} // namespace uci

int uci_set(uci_context *ctx, uci_ptr *ptr) {
    return uci::finish(ctx, ptr, [&](uci::Context &own) { return uci::set(own, *ptr, true); });
}

int uci_delete(uci_context *ctx, uci_ptr *ptr) {
    return uci::finish(ctx, ptr, [&](uci::Context &own) { return uci::remove(own, *ptr, true); });
}

int uci_add_list(uci_context *ctx, uci_ptr *ptr) {
    return uci::finish(ctx, ptr, [&](uci::Context &own) { return uci::add_list(own, *ptr, true); });
}

int uci_del_list(uci_context *ctx, uci_ptr *ptr) {
    return uci::finish(ctx, ptr, [&](uci::Context &own) { return uci::del_list(own, *ptr, true); });
}

int uci_add_section(uci_context *ctx, uci_package *p, const char *type, uci_section **res) {
    return uci::finish(ctx, p && type, [&](uci::Context &) {
        uci_section &section = uci::add_section(uci::own(p), type, nullptr);
        if (p->has_delta)
            uci::note(uci::own(p), '+', section.e.name, nullptr, type);
        if (res)
            *res = &section;
        return UCI_OK;
    });
}
