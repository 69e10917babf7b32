// What the datalink layer's files share: the handle's socket and error mapping.
#pragma once

#include <netlink/route/link.h>
#include <netlink/socket.h>

#include <string>

#include "wexo.h"

wexo_status_t wexo_from_nl(int err);
struct nl_sock *wexo_sock(wexo_handle_t h);
// The link numbered `id`; released by the caller with rtnl_link_put.
wexo_status_t wexo_get_link(wexo_handle_t h, datalink_id_t id, struct rtnl_link **link);
// The handle's network namespace: a descriptor (-1 for the opener's) and its name ("").
int wexo_netns_fd(wexo_handle_t h);
const std::string &wexo_netns_name(wexo_handle_t h);
// Drops what the link properties left for a link that is being removed.
void wexo_linkprop_forget(wexo_handle_t h, const char *ifname);
// Deletes link `linkid` of class `expected`, made on demand, under its link lock:
// WEXO_STATUS_LINKBUSY, deleting nothing, while a link in any namespace is made over it
// or enslaved to it (Linux would delete those with it).
wexo_status_t wexo_ondemand_delete(wexo_handle_t h, datalink_id_t linkid, uint32_t flags,
    datalink_class_t expected);
