// VNICs over a kel's lower link: made (in a named namespace when asked) and removed, and
// given their port's address.
#include <fcntl.h>
#include <net/if.h>
#include <netlink/errno.h>
#include <netlink/route/addr.h>
#include <netlink/route/link.h>
#include <netlink/route/link/macvlan.h>
#include <netlink/route/link/macvtap.h>
#include <netlink/route/route.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "c_boundary.h"
#include "kelnet.h"
#include "link_internal.h"
#include "netns_switch.h"
#include "wexo.h"

namespace {

// "NAMESPACE/LINK" or "LINK" into its parts; false when it is neither.
bool split_name(const char *name, std::string *ns, std::string *link)
{
	char l[IFNAMSIZ], n[256];
	if (name == nullptr || !dlparse_zonelinkname(name, l, sizeof(l), n, sizeof(n)))
		return false;
	*ns = n;
	*link = l;
	return true;
}

struct nl_addr *mac_address(const char *text)
{
	int len = 0;
	unsigned char *raw = _link_aton(text, &len);
	struct nl_addr *a = raw != nullptr && len == 6 ? nl_addr_build(AF_LLC, raw, 6) : nullptr;
	std::free(raw);
	return a;
}

// A handle on the namespace of a VNIC named with `ns` (the caller's `h` when none).
class VnicHandle {
public:
	VnicHandle(wexo_handle_t h, const std::string &ns) : h_(h)
	{
		if (!ns.empty() && ns != wexo_netns_name(h))
			st_ = wexo_open_netns(ns.c_str(), &own_);
	}
	~VnicHandle() { wexo_close(own_); }
	VnicHandle(const VnicHandle &) = delete;
	VnicHandle &operator=(const VnicHandle &) = delete;

	wexo_status_t status() const { return st_; }
	wexo_handle_t get() const { return own_ != nullptr ? own_ : h_; }

private:
	wexo_handle_t h_;
	wexo_handle_t own_ = nullptr;
	wexo_status_t st_ = WEXO_STATUS_OK;
};

// The link `link` of the VNIC handle's namespace, to be put by the caller.
wexo_status_t find_vnic(const VnicHandle &vh, const std::string &link, struct rtnl_link **l)
{
	if (vh.status() != WEXO_STATUS_OK)
		return vh.status();
	datalink_id_t id = DATALINK_INVALID_LINKID;
	const wexo_status_t st = wexo_name2info(vh.get(), link.c_str(), &id, nullptr);
	return st != WEXO_STATUS_OK ? st : wexo_get_link(vh.get(), id, l);
}

}  // namespace

extern "C" {

wexo_status_t wexo_vnic_create(wexo_handle_t h, const char *name, datalink_id_t lower, wexo_vnic_kind_t kind,
    const char *mac, datalink_id_t *idp) noexcept
{
	return kel::wexo_boundary([&]() -> wexo_status_t {
		std::string ns, link;
		const bool down = (kind & WEXO_VNIC_DOWN) != 0;
		kind = static_cast<wexo_vnic_kind_t>(kind & ~WEXO_VNIC_DOWN);
		if (h == nullptr || idp == nullptr || lower == DATALINK_INVALID_LINKID ||
		    !split_name(name, &ns, &link) || (kind != WEXO_VNIC_MACVLAN && kind != WEXO_VNIC_MACVTAP))
			return WEXO_STATUS_BADARG;
		*idp = DATALINK_INVALID_LINKID;
		struct nl_addr *addr = nullptr;
		if (mac != nullptr && (addr = mac_address(mac)) == nullptr)
			return WEXO_STATUS_BADVAL;
		VnicHandle vh(h, ns);
		if (vh.status() != WEXO_STATUS_OK) {
			nl_addr_put(addr);
			return vh.status();
		}
		struct rtnl_link *l = kind == WEXO_VNIC_MACVTAP ? rtnl_link_macvtap_alloc() : rtnl_link_macvlan_alloc();
		if (l == nullptr) {
			nl_addr_put(addr);
			return WEXO_STATUS_NOMEM;
		}
		int err = kind == WEXO_VNIC_MACVTAP
		    ? rtnl_link_macvtap_set_mode(l, rtnl_link_macvtap_str2mode("bridge"))
		    : rtnl_link_macvlan_set_mode(l, rtnl_link_macvlan_str2mode("bridge"));
		rtnl_link_set_name(l, link.c_str());
		rtnl_link_set_link(l, static_cast<int>(lower));
		if (!down)
			rtnl_link_set_flags(l, IFF_UP);
		if (addr != nullptr)
			rtnl_link_set_addr(l, addr);
		// Made straight inside its namespace: it is never seen, half set up, in the host's.
		if (vh.get() != h)
			rtnl_link_set_ns_fd(l, wexo_netns_fd(vh.get()));
		if (err == 0)
			err = rtnl_link_add(wexo_sock(h), l, NLM_F_CREATE | NLM_F_EXCL);
		rtnl_link_put(l);
		nl_addr_put(addr);
		wexo_status_t st = wexo_from_nl(err);
		if (st == WEXO_STATUS_OK)
			st = wexo_name2info(vh.get(), link.c_str(), idp, nullptr);
		return st;
	});
}

wexo_status_t wexo_vnic_delete(wexo_handle_t h, const char *name, datalink_id_t *lowerp) noexcept
{
	return kel::wexo_boundary([&]() -> wexo_status_t {
		if (lowerp != nullptr)
			*lowerp = DATALINK_INVALID_LINKID;
		std::string ns, link;
		if (h == nullptr || !split_name(name, &ns, &link))
			return WEXO_STATUS_BADARG;
		VnicHandle vh(h, ns);
		struct rtnl_link *l = nullptr;
		wexo_status_t st = find_vnic(vh, link, &l);
		if (st != WEXO_STATUS_OK)
			return st;
		const datalink_id_t lower = static_cast<datalink_id_t>(rtnl_link_get_link(l));
		st = wexo_from_nl(rtnl_link_delete(wexo_sock(vh.get()), l));
		rtnl_link_put(l);
		if (st != WEXO_STATUS_OK)
			return st;
		wexo_linkprop_forget(vh.get(), link.c_str());
		if (lowerp != nullptr)
			*lowerp = lower;
		return WEXO_STATUS_OK;
	});
}

wexo_status_t wexo_vnic_lower(wexo_handle_t h, const char *name, datalink_id_t *lowerp) noexcept
{
	return kel::wexo_boundary([&]() -> wexo_status_t {
		if (lowerp == nullptr)
			return WEXO_STATUS_BADARG;
		*lowerp = DATALINK_INVALID_LINKID;
		std::string ns, link;
		if (h == nullptr || !split_name(name, &ns, &link))
			return WEXO_STATUS_BADARG;
		VnicHandle vh(h, ns);
		struct rtnl_link *l = nullptr;
		const wexo_status_t st = find_vnic(vh, link, &l);
		if (st != WEXO_STATUS_OK)
			return st;
		*lowerp = static_cast<datalink_id_t>(rtnl_link_get_link(l));
		rtnl_link_put(l);
		return WEXO_STATUS_OK;
	});
}

}  // extern "C"

wexo_status_t wexo_default_route(wexo_handle_t h, datalink_id_t id, const char *router, bool replace)
{
	if (h == nullptr || id == DATALINK_INVALID_LINKID || router == nullptr)
		return WEXO_STATUS_BADARG;
	struct nl_addr *gw = nullptr;
	if (nl_addr_parse(router, AF_UNSPEC, &gw) != 0 || nl_addr_get_prefixlen(gw) != nl_addr_get_len(gw) * 8) {
		nl_addr_put(gw);
		return WEXO_STATUS_BADVAL;
	}
	struct rtnl_route *r = rtnl_route_alloc();
	struct rtnl_nexthop *nh = rtnl_route_nh_alloc();
	struct nl_addr *any = nullptr;
	int err = r == nullptr || nh == nullptr
	    ? -NLE_NOMEM
	    : nl_addr_parse(nl_addr_get_family(gw) == AF_INET6 ? "::/0" : "0.0.0.0/0", AF_UNSPEC, &any);
	if (err == 0) {
		rtnl_route_set_family(r, static_cast<uint8_t>(nl_addr_get_family(gw)));
		rtnl_route_set_dst(r, any);
		rtnl_route_nh_set_gateway(nh, gw);
		rtnl_route_nh_set_ifindex(nh, static_cast<int>(id));
		rtnl_route_add_nexthop(r, nh);
		nh = nullptr;  // the route owns it now
		err = rtnl_route_add(wexo_sock(h), r, NLM_F_CREATE | (replace ? NLM_F_REPLACE : NLM_F_EXCL));
	}
	if (nh != nullptr)
		rtnl_route_nh_free(nh);
	rtnl_route_put(r);
	nl_addr_put(any);
	nl_addr_put(gw);
	return wexo_from_nl(err);
}

extern "C" {

wexo_status_t wexo_link_set_ipaddr(wexo_handle_t h, datalink_id_t id, const char *addr, uint32_t prefixlen,
    const char *router) noexcept
{
	return kel::wexo_boundary([&]() -> wexo_status_t {
		if (h == nullptr || id == DATALINK_INVALID_LINKID || addr == nullptr)
			return WEXO_STATUS_BADARG;
		struct nl_addr *local = nullptr;
		const std::string text = std::string(addr) + "/" + std::to_string(prefixlen);
		if (nl_addr_parse(text.c_str(), AF_UNSPEC, &local) != 0)
			return WEXO_STATUS_BADVAL;
		struct nl_addr *gw = nullptr;
		const bool router_ok = router == nullptr ||
		    (nl_addr_parse(router, nl_addr_get_family(local), &gw) == 0 &&
		        nl_addr_get_prefixlen(gw) == nl_addr_get_len(gw) * 8);
		nl_addr_put(gw);
		if (!router_ok) {
			nl_addr_put(local);
			return WEXO_STATUS_BADVAL;
		}
		struct rtnl_addr *a = rtnl_addr_alloc();
		int err = a == nullptr ? -NLE_NOMEM : 0;
		if (err == 0) {
			rtnl_addr_set_ifindex(a, static_cast<int>(id));
			err = rtnl_addr_set_local(a, local);
		}
		if (err == 0)
			err = rtnl_addr_add(wexo_sock(h), a, 0);
		rtnl_addr_put(a);
		nl_addr_put(local);
		if (err != 0)
			return wexo_from_nl(err);
		return router != nullptr ? wexo_default_route(h, id, router, false) : WEXO_STATUS_OK;
	});
}

}  // extern "C"
