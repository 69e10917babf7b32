// Links made on demand for VNICs (VXLAN and VLAN links): removed only while nothing
// is made over them, in any namespace.
#include <fcntl.h>
#include <linux/net_namespace.h>
#include <net/if.h>
#include <netlink/cache.h>
#include <netlink/msg.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "fabric_links.h"
#include "link_filter.h"
#include "link_internal.h"
#include "link_lock.h"
#include "nft.h"
#include "unique_fd.h"

namespace {

// Whether a link of `h`'s namespace is made over `id` or enslaved to it: in `home`'s
// namespace itself (h == home), or from another one, which knows home's as `homeid`.
wexo_status_t uppers_in(wexo_handle_t h, wexo_handle_t home, int32_t homeid, datalink_id_t id, bool *busy)
{
	struct nl_cache *cache = nullptr;
	const int err = rtnl_link_alloc_cache(wexo_sock(h), AF_UNSPEC, &cache);
	if (err < 0)
		return wexo_from_nl(err);
	for (struct nl_object *o = nl_cache_get_first(cache); o != nullptr && !*busy; o = nl_cache_get_next(o)) {
		auto *link = reinterpret_cast<struct rtnl_link *>(o);
		int32_t nsid = -1;
		// A lower link in another namespace is that namespace's ifindex.
		const bool elsewhere = rtnl_link_get_link_netnsid(link, &nsid) == 0 && nsid >= 0;
		if (h == home)
			*busy = (!elsewhere && rtnl_link_get_link(link) == static_cast<int>(id) &&
			            rtnl_link_get_ifindex(link) != static_cast<int>(id)) ||
			    rtnl_link_get_master(link) == static_cast<int>(id);
		else
			*busy = elsewhere && nsid == homeid && rtnl_link_get_link(link) == static_cast<int>(id);
	}
	nl_cache_free(cache);
	return WEXO_STATUS_OK;
}

}  // namespace

wexo_status_t wexo_has_uppers(wexo_handle_t h, datalink_id_t id, bool *busy)
{
	*busy = false;
	wexo_status_t st = uppers_in(h, h, -1, id, busy);
	// The handle's namespace, as a descriptor the other namespaces can be asked about.
	const int own = wexo_netns_fd(h);
	const kel::UniqueFd opened(own != -1 ? -1 : open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
	const int home = own != -1 ? own : opened.get();
	std::error_code ec;
	for (const auto &entry : std::filesystem::directory_iterator("/run/netns", ec)) {
		if (st != WEXO_STATUS_OK || *busy)
			break;
		const std::string name = entry.path().filename();
		wexo_handle_t ask = nullptr, other = nullptr;
		// A namespace that goes away meanwhile holds nothing.
		const int32_t homeid = home != -1 && wexo_open_netns(name.c_str(), &ask) == WEXO_STATUS_OK
		    ? wexo_peer_nsid(ask, home)
		    : -1;
		wexo_close(ask);
		if (homeid >= 0 && wexo_open_netns(name.c_str(), &other) == WEXO_STATUS_OK)
			st = uppers_in(other, h, homeid, id, busy);
		wexo_close(other);
	}
	return st;
}

wexo_status_t wexo_ondemand_made(wexo_handle_t h, const char *name, datalink_id_t *id, uint32_t flags)
{
	if (!(flags & WEXO_OPT_ONDEMAND) || wexo::fabric::record_lower(name, static_cast<int>(*id)))
		return WEXO_STATUS_OK;
	struct rtnl_link *made = nullptr;
	if (wexo_get_link(h, *id, &made) == WEXO_STATUS_OK) {
		(void)rtnl_link_delete(wexo_sock(h), made);
		rtnl_link_put(made);
	}
	*id = DATALINK_INVALID_LINKID;
	return WEXO_STATUS_FAILED;
}

wexo_status_t wexo_ondemand_delete(wexo_handle_t h, datalink_id_t linkid, uint32_t flags, datalink_class_t expected)
{
	if (h == nullptr || linkid == DATALINK_INVALID_LINKID)
		return WEXO_STATUS_BADARG;
	if (!(flags & WEXO_OPT_ACTIVE))
		return WEXO_STATUS_NOTSUP;
	char name[IFNAMSIZ];
	datalink_class_t cls;
	wexo_status_t st = wexo_datalink_id2info(h, linkid, nullptr, &cls, nullptr, name, sizeof(name));
	if (st != WEXO_STATUS_OK)
		return st;
	if (cls != expected)
		return WEXO_STATUS_BADARG;
	wexo::LinkLock lock(name);
	if (!lock.held())
		return WEXO_STATUS_DENIED;
	// Looked up again under the lock: the ID must still be that link.
	struct rtnl_link *link = nullptr;
	if ((st = wexo_get_link(h, linkid, &link)) != WEXO_STATUS_OK)
		return st;
	bool busy = false;
	if (std::strcmp(rtnl_link_get_name(link), name) != 0)
		st = WEXO_STATUS_NOTFOUND;
	else if (wexo::fabric::in_use(name) || ((st = wexo_has_uppers(h, linkid, &busy)) == WEXO_STATUS_OK && busy))
		st = WEXO_STATUS_LINKBUSY;
	if (st == WEXO_STATUS_OK)
		st = wexo_from_nl(rtnl_link_delete(wexo_sock(h), link));
	rtnl_link_put(link);
	if (st == WEXO_STATUS_OK) {
		wexo::fabric::forget_lower(name);
		(void)wexo::nft::run(wexo_netns_fd(h), wexo::filter::removal(wexo::filter::lower_table(name)));
	}
	return st;
}
