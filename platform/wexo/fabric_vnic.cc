// The VNICs the fabric binds on this host: recorded when their port is bound, each lower
// link's guard letting out only their addresses, and the check keld makes before it acts
// on a link.
#include <net/if.h>
#include <netlink/cache.h>
#include <netlink/route/link.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <set>

#include "c_boundary.h"
#include "fabric_links.h"
#include "kelnet.h"
#include "link_internal.h"
#include "link_lock.h"
#include "link_settings.h"
#include "nft.h"
#include "wexo.h"

namespace {

using wexo::filter::Mac;

struct CacheFree {
	void operator()(struct nl_cache *c) const { nl_cache_free(c); }
};

bool mac_of(struct rtnl_link *link, Mac *out)
{
	struct nl_addr *a = rtnl_link_get_addr(link);
	if (a == nullptr || nl_addr_get_len(a) != 6)
		return false;
	const auto *b = static_cast<const uint8_t *>(nl_addr_get_binary_addr(a));
	std::copy(b, b + 6, out->begin());
	return true;
}

bool is_vnic_kind(struct rtnl_link *link)
{
	const char *kind = rtnl_link_get_type(link);
	return kind != nullptr && (std::strcmp(kind, "macvlan") == 0 || std::strcmp(kind, "macvtap") == 0);
}

// The addresses a VNIC recorded over a lower link may send from: its port's, and the one
// its mac-nospoof was told to let through instead, which is noted for removals to find.
void add_vnic_macs(const wexo::fabric::Vnic &v, std::set<Mac> *macs)
{
	macs->insert(v.mac);
	const auto kept = wexo::settings::load(v.name);
	std::optional<Mac> allowed;
	if (auto it = kept.find("allowed-mac");
	    it != kept.end() && wexo::filter::parse_mac(it->second, &allowed.emplace()))
		macs->insert(*allowed);
	else
		allowed.reset();
	wexo::fabric::note_allowed_mac(v.name, allowed);
}

bool is_vlan(struct rtnl_link *link)
{
	const char *kind = rtnl_link_get_type(link);
	return kind != nullptr && std::strcmp(kind, "vlan") == 0;
}

// What may leave through lower link `link` (ID `id`) besides the VNICs' frames: its own,
// and those of the links of this namespace made over it (a VLAN link, a VM's VNIC), whose
// addresses only root here can change; and the names of all these links in *via, when
// asked for.
wexo_status_t link_macs(wexo_handle_t h, datalink_id_t id, struct rtnl_link *link, std::set<Mac> *macs,
    std::set<std::string> *via)
{
	Mac mac;
	if (mac_of(link, &mac))
		macs->insert(mac);
	if (via != nullptr)
		via->insert(rtnl_link_get_name(link));
	struct nl_cache *cache = nullptr;
	if (int err = rtnl_link_alloc_cache(wexo_sock(h), AF_UNSPEC, &cache); err < 0)
		return wexo_from_nl(err);
	const std::unique_ptr<struct nl_cache, CacheFree> owned_cache(cache);
	for (struct nl_object *o = nl_cache_get_first(cache); o != nullptr; o = nl_cache_get_next(o)) {
		auto *upper = reinterpret_cast<struct rtnl_link *>(o);
		int32_t nsid = -1;
		const bool elsewhere = rtnl_link_get_link_netnsid(upper, &nsid) == 0 && nsid >= 0;
		if (elsewhere || rtnl_link_get_link(upper) != static_cast<int>(id) ||
		    rtnl_link_get_ifindex(upper) == static_cast<int>(id))
			continue;
		if (mac_of(upper, &mac))
			macs->insert(mac);
		if (via != nullptr)
			via->insert(rtnl_link_get_name(upper));
	}
	return WEXO_STATUS_OK;
}

// Adds the addresses of `v`, just recorded, to its lower link's guard: what making the
// guard anew would add for it, without reading every other record over the link, which
// a host of many VNICs would pay on each. Only where the guard is there already, and the
// lower link is no VLAN link (whose uplink's guard holds its VNICs' addresses too);
// false where the guard must be made anew instead.
bool add_to_guard(wexo_handle_t h, datalink_id_t lower, const wexo::fabric::Vnic &v)
{
	struct rtnl_link *raw = nullptr;
	if (wexo_get_link(h, lower, &raw) != WEXO_STATUS_OK)
		return false;
	const std::unique_ptr<struct rtnl_link, void (*)(struct rtnl_link *)> link(raw, rtnl_link_put);
	if (is_vlan(link.get()))
		return false;
	std::set<Mac> macs;
	add_vnic_macs(v, &macs);
	return wexo::nft::run(wexo_netns_fd(h),
	           wexo::filter::lower_guard_addition(v.lower, {macs.begin(), macs.end()})) == WEXO_STATUS_OK;
}

// Takes the port's address of `v`, just forgotten, out of its lower link's guard: what
// making the guard anew would take out, without reading every other record over the link.
// Only where that is sure without them: `v` let no other address through (`gone` holds
// its port's alone), no other VNIC's allowed-mac is that address, and another VNIC is
// still recorded over the link (with none, the guard goes whole). A link of this
// namespace over the lower with that address (the VNIC itself, not yet removed) keeps it
// in. False where the guard must be made anew instead.
bool remove_from_guard(wexo_handle_t h, const wexo::fabric::Vnic &v, const std::set<Mac> &gone)
{
	datalink_id_t id = DATALINK_INVALID_LINKID;
	struct rtnl_link *raw = nullptr;
	if (gone.size() != 1 || wexo::fabric::allowed_by_any(v.mac) ||
	    wexo_name2info(h, v.lower.c_str(), &id, nullptr) != WEXO_STATUS_OK ||
	    wexo_get_link(h, id, &raw) != WEXO_STATUS_OK)
		return false;
	const std::unique_ptr<struct rtnl_link, void (*)(struct rtnl_link *)> link(raw, rtnl_link_put);
	std::set<Mac> kept;
	if (is_vlan(link.get()) || link_macs(h, id, link.get(), &kept, nullptr) != WEXO_STATUS_OK ||
	    !wexo::fabric::in_use(v.lower))
		return false;
	if (kept.count(v.mac) != 0)
		return true;
	return wexo::nft::run(wexo_netns_fd(h), wexo::filter::lower_guard_removal(v.lower, {v.mac})) == WEXO_STATUS_OK;
}

}  // namespace

wexo_status_t wexo_lower_guard_sync(wexo_handle_t h, const std::string &lower)
{
	const int nsfd = wexo_netns_fd(h);
	datalink_id_t id = DATALINK_INVALID_LINKID;
	struct rtnl_link *raw = nullptr;
	if (wexo_name2info(h, lower.c_str(), &id, nullptr) != WEXO_STATUS_OK ||
	    wexo_get_link(h, id, &raw) != WEXO_STATUS_OK)
		return wexo::nft::run(nsfd, wexo::filter::removal(wexo::filter::lower_table(lower)));
	const std::unique_ptr<struct rtnl_link, void (*)(struct rtnl_link *)> link(raw, rtnl_link_put);
	// A VNIC in a guest's namespace may have changed its address there: only the recorded
	// one counts for it.
	std::set<Mac> macs;
	std::set<std::string> via;
	if (const wexo_status_t st = link_macs(h, id, link.get(), &macs, &via); st != WEXO_STATUS_OK)
		return st;
	bool any = false;
	for (const wexo::fabric::Vnic &v : wexo::fabric::vnics())
		if (via.count(v.lower) != 0) {
			add_vnic_macs(v, &macs);
			any = true;
		}
	// A link no VNIC of the fabric uses keeps no guard: the uplink is the host's own.
	const wexo_status_t st = wexo::nft::run(nsfd,
	    any ? wexo::filter::lower_guard(lower, {macs.begin(), macs.end()})
	        : wexo::filter::removal(wexo::filter::lower_table(lower)));
	if (st != WEXO_STATUS_OK)
		return st;
	// A VLAN link's frames leave again through the uplink under it, whose guard lets
	// them through by their addresses too.
	datalink_id_t under = DATALINK_INVALID_LINKID;
	std::string under_name;
	if (is_vlan(link.get()) && wexo_host_lower(h, link.get(), &under, &under_name) == WEXO_STATUS_OK) {
		wexo::LinkLock lock(under_name);
		return lock.held() ? wexo_lower_guard_sync(h, under_name) : WEXO_STATUS_DENIED;
	}
	return WEXO_STATUS_OK;
}

extern "C" {

wexo_status_t wexo_vnic_own(wexo_handle_t h, const char *name, const char *mac, datalink_id_t lower,
    const char *record) noexcept
{
	return kel::wexo_boundary([&]() -> wexo_status_t {
		char link[IFNAMSIZ], ns[256], lower_name[IFNAMSIZ];
		wexo::fabric::Vnic v;
		if (h == nullptr || name == nullptr || mac == nullptr ||
		    !dlparse_zonelinkname(name, link, sizeof(link), ns, sizeof(ns)) ||
		    !wexo::filter::parse_mac(mac, &v.mac))
			return WEXO_STATUS_BADARG;
		if (record != nullptr) {
			// A guest without a lease (the kel's responder off) still has its port's names.
			const std::string text = record;
			if (text.find("addr=") != std::string::npos && !(v.lease = wexo::fabric::parse_lease(text)))
				return WEXO_STATUS_BADVAL;
			v.names = wexo::fabric::parse_names(text);
		}
		wexo_status_t st = wexo_datalink_id2info(h, lower, nullptr, nullptr, nullptr, lower_name,
		    sizeof(lower_name));
		if (st != WEXO_STATUS_OK)
			return st;
		v.name = name;
		v.lower = lower_name;
		// Under the lower link's lock its removal waits, and sees this record after: the
		// link is in use from now on, even before the VNIC is made over it. Looked up again
		// under the lock: a removal that came first took it.
		wexo::LinkLock lock(v.lower);
		if (!lock.held())
			return WEXO_STATUS_DENIED;
		char now[IFNAMSIZ] = "";
		if (wexo_datalink_id2info(h, lower, nullptr, nullptr, nullptr, now, sizeof(now)) != WEXO_STATUS_OK ||
		    v.lower != now)
			return WEXO_STATUS_NOTFOUND;
		if (!wexo::fabric::record_vnic(v))
			return WEXO_STATUS_FAILED;
		if (add_to_guard(h, lower, v))
			return WEXO_STATUS_OK;
		st = wexo_lower_guard_sync(h, v.lower);
		if (st != WEXO_STATUS_OK) {
			wexo::fabric::forget_vnic(v.name);
			(void)wexo_lower_guard_sync(h, v.lower);
		}
		return st;
	});
}

wexo_status_t wexo_vnic_disown(wexo_handle_t h, const char *name) noexcept
{
	return kel::wexo_boundary([&]() -> wexo_status_t {
		if (h == nullptr || name == nullptr)
			return WEXO_STATUS_BADARG;
		const auto v = wexo::fabric::vnic(name);
		if (!v)
			return WEXO_STATUS_OK;  // never recorded, or forgotten already
		wexo::LinkLock lock(v->lower);
		if (!lock.held())
			return WEXO_STATUS_DENIED;
		std::set<Mac> gone;
		add_vnic_macs(*v, &gone);
		wexo::fabric::forget_vnic(v->name);
		wexo::fabric::note_allowed_mac(v->name, std::nullopt);
		return remove_from_guard(h, *v, gone) ? WEXO_STATUS_OK : wexo_lower_guard_sync(h, v->lower);
	});
}

wexo_status_t wexo_vnic_recorded_lower(const char *name, char *buf, size_t size) noexcept
{
	return kel::wexo_boundary([&]() -> wexo_status_t {
		if (name == nullptr || buf == nullptr || size == 0)
			return WEXO_STATUS_BADARG;
		const auto v = wexo::fabric::vnic(name);
		if (!v)
			return WEXO_STATUS_NOTFOUND;
		if (v->lower.size() >= size)
			return WEXO_STATUS_BADARG;
		std::memcpy(buf, v->lower.c_str(), v->lower.size() + 1);
		return WEXO_STATUS_OK;
	});
}

wexo_status_t wexo_link_owned(wexo_handle_t h, datalink_id_t id, const char *name) noexcept
{
	return kel::wexo_boundary([&]() -> wexo_status_t {
		if (h == nullptr || name == nullptr)
			return WEXO_STATUS_BADARG;
		struct rtnl_link *raw = nullptr;
		const wexo_status_t st = wexo_get_link(h, id, &raw);
		if (st != WEXO_STATUS_OK)
			return st;
		const std::unique_ptr<struct rtnl_link, void (*)(struct rtnl_link *)> link(raw, rtnl_link_put);
		if (const auto v = wexo::fabric::vnic(name)) {
			// Still a VNIC, over the link it was bound over: a link of another kind that
			// took the name since is not the fabric's.
			std::string lower;
			return is_vnic_kind(link.get()) &&
			        wexo_host_lower(h, link.get(), nullptr, &lower) == WEXO_STATUS_OK && lower == v->lower
			    ? WEXO_STATUS_OK
			    : WEXO_STATUS_NOTFABRIC;
		}
		// A link made on demand is the very link made: one made by hand after it went
		// has another index.
		if (const auto index = wexo::fabric::lower(name);
		    index && wexo_netns_name(h).empty() && *index == rtnl_link_get_ifindex(link.get()))
			return WEXO_STATUS_OK;
		return WEXO_STATUS_NOTFABRIC;
	});
}

}  // extern "C"
