// VLAN links made on demand for the VNICs of a VLAN kel: a tagged link on the uplink,
// shared by every VNIC of that VLAN ID on the host.
#include <net/if.h>
#include <netlink/route/link.h>
#include <netlink/route/link/vlan.h>

#include <cstring>

#include "link_internal.h"
#include "link_lock.h"
#include "wexo.h"

wexo_status_t wexo_vlan_create(wexo_handle_t h, const char *name, datalink_id_t uplink, uint16_t vid, uint32_t flags,
    datalink_id_t *linkidp)
{
	if (linkidp != nullptr)
		*linkidp = DATALINK_INVALID_LINKID;
	if (h == nullptr || name == nullptr || linkidp == nullptr || std::strlen(name) >= IFNAMSIZ ||
	    uplink == DATALINK_INVALID_LINKID || vid < 1 || vid > 4094)
		return WEXO_STATUS_BADARG;
	if (!(flags & WEXO_OPT_ACTIVE))
		return WEXO_STATUS_NOTSUP;
	wexo::LinkLock lock(name);
	if (!lock.held())
		return WEXO_STATUS_DENIED;
	struct rtnl_link *link = rtnl_link_vlan_alloc();
	if (link == nullptr)
		return WEXO_STATUS_NOMEM;
	rtnl_link_set_name(link, name);
	rtnl_link_set_link(link, static_cast<int>(uplink));
	rtnl_link_set_flags(link, IFF_UP);
	int err = rtnl_link_vlan_set_id(link, vid);
	// Exclusive: an existing link of that name is left exactly as it is. A kernel
	// without VLAN links answers NOTSUP.
	if (err == 0)
		err = rtnl_link_add(wexo_sock(h), link, NLM_F_CREATE | NLM_F_EXCL);
	rtnl_link_put(link);
	wexo_status_t st = wexo_from_nl(err);
	if (st == WEXO_STATUS_OK)
		st = wexo_name2info(h, name, linkidp, nullptr);
	if (st == WEXO_STATUS_OK)
		st = wexo_ondemand_made(h, name, linkidp, flags);
	return st;
}

wexo_status_t wexo_vlan_delete(wexo_handle_t h, datalink_id_t linkid, uint32_t flags)
{
	return wexo_ondemand_delete(h, linkid, flags, DATALINK_CLASS_VLAN);
}
