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
// The ID under which the namespace of `h` knows the namespace `fd`; -1 when it has none
// (then none of its links is made over one of that namespace's). `h` is spent after.
int32_t wexo_peer_nsid(wexo_handle_t h, int fd);
// The link `link` (of h's namespace) is made over, as a link of the host's namespace (the
// opener's): its ID and name. WEXO_STATUS_NOTFOUND when it is made over none there: over
// nothing, over a link of its own namespace when that is not the host's, or over one of
// a third namespace (a veth's peer).
wexo_status_t wexo_host_lower(wexo_handle_t h, struct rtnl_link *link, datalink_id_t *id, std::string *name);
// Makes the guard of lower link `lower` (of h's namespace, the host's) let out only the
// addresses of the VNICs recorded over it, or removes it when none is; the caller holds
// the link's lock.
wexo_status_t wexo_lower_guard_sync(wexo_handle_t h, const std::string &lower);
// A default route of the family of `router` through it on link `id`: WEXO_STATUS_EXIST
// when the namespace has one already, unless `replace`, which takes its place.
wexo_status_t wexo_default_route(wexo_handle_t h, datalink_id_t id, const char *router, bool replace);
// Drops what the link properties left for a link that is being removed.
void wexo_linkprop_forget(wexo_handle_t h, const char *ifname);
// Whether any link is made over `id` or enslaved to it: in its own namespace, or, for a
// VNIC placed in a named namespace, there.
wexo_status_t wexo_has_uppers(wexo_handle_t h, datalink_id_t id, bool *busy);
// Records link `name`, just made as *id, as the fabric's own when `flags` say it was made on
// demand; the caller holds its lock. A link that cannot be recorded goes again (*id
// becomes DATALINK_INVALID_LINKID): nothing could ever remove it.
wexo_status_t wexo_ondemand_made(wexo_handle_t h, const char *name, datalink_id_t *id, uint32_t flags);
// Deletes link `linkid` of class `expected`, made on demand, under its link lock:
// WEXO_STATUS_LINKBUSY, deleting nothing, while a link in any namespace is made over it
// or enslaved to it (Linux would delete those with it), or a VNIC is recorded over it.
wexo_status_t wexo_ondemand_delete(wexo_handle_t h, datalink_id_t linkid, uint32_t flags, datalink_class_t expected);
