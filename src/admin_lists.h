// The methods of the bus object that edit and read lists: "add", "remove" and "list".
//
// Handlers as libubus calls them, on the bus thread: they return a status of the bus. The policies
// name the arguments; all numbers are texts.
#pragma once

#include "admin_reply.h"

inline constexpr struct blobmsg_policy list_update_policy[] = {
    {.name = "id", .type = BLOBMSG_TYPE_INT32},
    {.name = "list", .type = BLOBMSG_TYPE_STRING},
    {.name = "pattern", .type = BLOBMSG_TYPE_STRING},
    {.name = "option", .type = BLOBMSG_TYPE_STRING},
};
inline constexpr struct blobmsg_policy list_edit_policy[] = {
    {.name = "id", .type = BLOBMSG_TYPE_INT32},
    {.name = "list", .type = BLOBMSG_TYPE_STRING},
    {.name = "start", .type = BLOBMSG_TYPE_STRING},
    {.name = "count", .type = BLOBMSG_TYPE_STRING},
};

int vt_list_add(struct ubus_context *ctx, struct ubus_object *, struct ubus_request_data *req,
                const char *, struct blob_attr *msg);
int vt_list_remove(struct ubus_context *ctx, struct ubus_object *, struct ubus_request_data *req,
                   const char *, struct blob_attr *msg);
int vt_get_list(struct ubus_context *ctx, struct ubus_object *, struct ubus_request_data *req,
                const char *, struct blob_attr *msg);

// "Black", "White" and "Device" for the list ids 0, 1 and 2, "Unknown" for any other: the list of
// blocked devices, id 3, has no name on the bus.
const char *get_list_name(int id);
