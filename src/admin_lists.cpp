#include "admin_lists.h"

#include "blacklist.h"
#include "blockedlist.h"
#include "whitelist.h"

#include <cstdio>
#include <cstring>
#include <iterator>
#include <span>
#include <syslog.h>

// --- replies to edits ----------------------------------------------------------------------------

namespace {

struct ListRequest {
    DeferredCall call;
    int list_id;   // 0 when no code matched
    char *pattern; // behind the record, in the same block
};

} // namespace

const char *get_list_name(int id) {
    static constexpr const char *NAMES[] = {"Black", "White", "Device"};
    return id >= 0 && id < static_cast<int>(std::size(NAMES)) ? NAMES[id] : "Unknown";
}

// The answers to an edit by its ListResult. Each format takes pattern and list name, or only the
// pattern, or nothing. The bold markers are for the front end.
static constexpr const char *ADD_REPLIES[] = {
    // For an unknown list code, too, although nothing was added; front ends know it so.
    "Successfully added <B>%s</B> to <B>%s</B> list",
    "Error: list is NULL",
    "Error: <B>%s</B> already exists in <B>%s</B> list",
    "Error: Cannot add empty or NULL item to list",
    "Error: Failure inserting item in list. Contact developer",
    "Error: General failure",
    "Error: Failure writing list",
};
static constexpr const char *ADD_REPLY_OTHERWISE = "Successfully added <B>%s</B> to list";

static constexpr const char *REMOVED = "Successfully removed <B>%s</B> from <B>%s</B> list";
static constexpr const char *REMOVE_REPLIES[] = {
    REMOVED,
    "Error: list is NULL",
    REMOVED,
    "Error: Cannot remove empty or NULL item from list",
    REMOVED,
    "Error: General failure",
    "Error: Failure writing list",
    "Error: <B>%s</B> does not exist in <B>%s</B> list",
};

static void reply_to_edit(ListRequest *request, std::span<const char *const> replies,
                          const char *otherwise) {
    const auto status = static_cast<unsigned>(request->call.status);
    send_message(&request->call, status < replies.size() ? replies[status] : otherwise,
                 request->pattern, get_list_name(request->list_id));
}

static void vt_add_reply(struct uloop_timeout *timer) {
    const MutexGuard guard(admin_gate);
    syslog(LOG_DEBUG, "Inside vt_add_reply");
    const std::unique_ptr<ListRequest, FreeMemory> request(reinterpret_cast<ListRequest *>(timer));
    syslog(LOG_INFO, "Pattern: %s", request->pattern);
    reply_to_edit(request.get(), ADD_REPLIES, ADD_REPLY_OTHERWISE);
    syslog(LOG_DEBUG, "vt_add_reply done");
}

static void vt_remove_reply(struct uloop_timeout *timer) {
    const MutexGuard guard(admin_gate);
    syslog(LOG_DEBUG, "Inside vt_remove_reply");
    const std::unique_ptr<ListRequest, FreeMemory> request(reinterpret_cast<ListRequest *>(timer));
    reply_to_edit(request.get(), REMOVE_REPLIES, REMOVED);
    syslog(LOG_DEBUG, "vt_remove_reply done");
}

// --- edits ---------------------------------------------------------------------------------------

static int ubus_add_black_list(const char *item, int8_t mode) {
    syslog(LOG_DEBUG, "Add %s to local black list, Opt: %d", item, mode);
    return add_local_black_list(item, mode);
}

static int ubus_add_white_list(const char *item, int8_t mode) {
    syslog(LOG_DEBUG, "Add %s to local white list, Opt: %d", item, mode);
    return add_local_white_list(item, mode);
}

static int ubus_add_admin_list(const char *item, int8_t mode) {
    syslog(LOG_DEBUG, "Add %s to local admin list, Opt: %d", item, mode);
    return add_local_device_list(item, mode);
}

static int ubus_add_bad_list(const char *item, int8_t mode) {
    syslog(LOG_DEBUG, "Add %s to local device block list, Opt: %d", item, mode);
    return add_blocked_device_list(item, mode);
}

static int ubus_del_black_list(const char *item) {
    syslog(LOG_DEBUG, "Del %s from local black list", item);
    return del_local_black_list(item);
}

static int ubus_del_white_list(const char *item) {
    syslog(LOG_DEBUG, "Del %s from local white list", item);
    return del_local_white_list(item);
}

static int ubus_del_device_list(const char *item) {
    syslog(LOG_DEBUG, "Del %s from local admin list", item);
    return del_local_device_list(item);
}

static int ubus_del_bad_device_list(const char *item) {
    syslog(LOG_DEBUG, "Del %s from local blocked device list", item);
    return del_blocked_device_list(item);
}

namespace {

// The lists that the bus edits; a list's place here is its id.
struct EditableList {
    const char *code;
    int (*add)(const char *item, int8_t mode);
    int (*remove)(const char *item);
};

} // namespace

static constexpr EditableList EDITABLE_LISTS[] = {
    {"bl", ubus_add_black_list, ubus_del_black_list},
    {"wl", ubus_add_white_list, ubus_del_white_list},
    {"ad", ubus_add_admin_list, ubus_del_device_list},
    {"bd", ubus_add_bad_list, ubus_del_bad_device_list},
};

enum { UPDATE_ID, UPDATE_LIST, UPDATE_PATTERN, UPDATE_OPTION };

// Allocates the record of an edit, runs `edit` (list) for each list whose code is `code`, and
// defers the answer to `reply`. An unknown code leaves status and list id 0.
template <typename Edit>
static int edit_list(struct ubus_context *ctx, struct ubus_request_data *req, const char *code,
                     const char *pattern, uloop_timeout_handler reply, Edit edit) {
    const size_t room = strlen(pattern) + 1;
    auto *request = allocate<ListRequest>(room);
    if (!request)
        return UBUS_STATUS_NO_MEMORY;
    for (const EditableList &list : EDITABLE_LISTS) {
        if (strcmp(code, list.code) == 0) {
            request->list_id = static_cast<int>(&list - EDITABLE_LISTS);
            request->call.status = edit(list);
        }
    }
    request->pattern = reinterpret_cast<char *>(request + 1);
    expand_format(request->pattern, room, pattern); // the pattern is its own format text
    defer(ctx, req, &request->call, reply);
    return 0;
}

int vt_list_add(struct ubus_context *ctx, struct ubus_object *, struct ubus_request_data *req,
                const char *, struct blob_attr *msg) {
    const MutexGuard guard(admin_gate);
    syslog(LOG_DEBUG, "Inside vt_list_add");
    const Arguments arguments(list_update_policy, msg);
    const auto mode = static_cast<int8_t>(number_of(arguments[UPDATE_OPTION], -1));
    // A text that was taken is cut at its first line break, also in the answer.
    const OwnedText pattern(strdup(text_of(arguments[UPDATE_PATTERN], "(unknown)")));
    if (!pattern)
        return UBUS_STATUS_NO_MEMORY;
    const int result = edit_list(ctx, req, text_of(arguments[UPDATE_LIST], "(unknown)"),
                                 pattern.get(), vt_add_reply, [&](const EditableList &list) {
                                     const int status = list.add(pattern.get(), mode);
                                     if (status != LIST_EMPTY_ITEM)
                                         pattern.get()[strcspn(pattern.get(), "\n")] = '\0';
                                     return status;
                                 });
    syslog(LOG_DEBUG, "Done vt_list_add");
    return result;
}

int vt_list_remove(struct ubus_context *ctx, struct ubus_object *, struct ubus_request_data *req,
                   const char *, struct blob_attr *msg) {
    const MutexGuard guard(admin_gate);
    syslog(LOG_DEBUG, "Inside vt_list_remove");
    const Arguments arguments(list_update_policy, msg);
    const char *pattern = text_of(arguments[UPDATE_PATTERN], "(unknown)");
    const int result =
        edit_list(ctx, req, text_of(arguments[UPDATE_LIST], "(unknown)"), pattern, vt_remove_reply,
                  [&](const EditableList &list) { return list.remove(pattern); });
    syslog(LOG_DEBUG, "Done vt_list_remove");
    return result;
}

// --- pages ---------------------------------------------------------------------------------------

enum { EDIT_ID, EDIT_LIST, EDIT_START, EDIT_COUNT };

// The list with this code, empty when there is none to read: of the editable lists only the local
// black and white lists can be read.
static ListHold find_source(const char *code) {
    if (strcmp(code, "bl") == 0) {
        syslog(LOG_DEBUG, "Before checksize");
        if (get_local_black_list_size() != 0) {
            syslog(LOG_DEBUG, "Before get list");
            ListHold list = get_local_black_list();
            syslog(LOG_DEBUG, "After get list");
            return list;
        }
    } else if (strcmp(code, "wl") == 0 && get_local_white_list_size() != 0) {
        return get_local_white_list();
    }
    return {};
}

// The page to answer with, null when there is none; the caller frees it.
static List *get_page(List *source, int start, int count) {
    if (!source)
        return nullptr;
    syslog(LOG_DEBUG, "Before get sub list");
    List *page = get_sub_list(source, start, count);
    syslog(LOG_DEBUG, "after get sub list");
    return page;
}

static void add_number_text(const char *name, unsigned number) {
    char text[12];
    snprintf(text, sizeof text, "%u", number);
    blobmsg_add_string(&reply_buffer, name, text);
}

// How many of a page's records, at most `count`, fit into a reply.
static int count_fitting(const Node *node, int count) {
    size_t size = 0;
    int fitting = 0;
    for (; node && fitting < count; node = node->next, fitting++) {
        const int digits = snprintf(nullptr, 0, "%d", fitting + 1);
        size += sizeof(struct blob_attr) +
                static_cast<size_t>(blobmsg_hdrlen(static_cast<unsigned>(digits))) +
                BLOBMSG_PADDING(strlen(node->frag) + 1);
        if (size > MAX_REPLY) {
            syslog(LOG_WARNING, "List page cut to %d records, no more fit into a message", fitting);
            break;
        }
    }
    return fitting;
}

int vt_get_list(struct ubus_context *ctx, struct ubus_object *, struct ubus_request_data *req,
                const char *, struct blob_attr *msg) {
    const MutexGuard guard(admin_gate);
    const Arguments arguments(list_edit_policy, msg);
    const char *code = text_of(arguments[EDIT_LIST], "(unknown)");
    const int start = number_of(arguments[EDIT_START], 0);
    const int count = number_of(arguments[EDIT_COUNT], 0);
    syslog(LOG_INFO, "Params (new): %s, start: %d, count: %d", code, start, count);
    const ListHold source = find_source(code);
    List *page = get_page(source.get(), start, count);
    blob_buf_init(&reply_buffer, 0);
    add_number_text("max_records", page ? get_list_size(source.get()) : 0);
    const Node *node = page ? page->head : nullptr;
    const int records = count_fitting(node, count);
    add_number_text("records", static_cast<unsigned>(records));
    void *items = blobmsg_open_table(&reply_buffer, "list_items");
    for (int number = 1; number <= records; node = node->next, number++) {
        char key[12];
        snprintf(key, sizeof key, "%d", number);
        blobmsg_add_string(&reply_buffer, key, node->frag);
    }
    blobmsg_close_table(&reply_buffer, items);
    ubus_send_reply(ctx, req, reply_buffer.head);
    free_list(page);
    return 0;
}
