// VXLAN links made on demand for the VNICs of a kel: their properties, creation and
// removal.
#include <fcntl.h>
#include <linux/net_namespace.h>
#include <net/if.h>
#include <netlink/cache.h>
#include <netlink/errno.h>
#include <netlink/msg.h>
#include <netlink/route/link.h>
#include <netlink/route/link/vxlan.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "link_internal.h"
#include "link_lock.h"
#include "mac_ipaddr.h"
#include "wexo.h"

namespace {

// The IANA port: peers on other hosts listen there, whatever the kernel's default.
constexpr uint32_t kVxlanPort = 4789;
constexpr uint32_t kMaxVni = (1u << 24) - 1;

bool is_vxlan_prop(const char *name)
{
	for (const char *p : {"vni", "addr", "mgroup", "ipvers", "interface"})
		if (std::strcmp(p, name) == 0)
			return true;
	return false;
}

bool parse_uint(const char *text, uint32_t max, uint32_t *out)
{
	if (*text < '0' || *text > '9' || std::strlen(text) > 10)
		return false;
	char *end = nullptr;
	const unsigned long long v = std::strtoull(text, &end, 10);
	if (*end != '\0' || v > max)
		return false;
	*out = static_cast<uint32_t>(v);
	return true;
}

// One VXLAN property into `mvp`; false when its value does not parse.
bool extract_one(const char *name, const char *value, mac_vxlan_props_t *mvp)
{
	if (std::strcmp(name, "vni") == 0) {
		mvp->mvp_mask |= MVP_VXLAN_VNI;
		return parse_uint(value, kMaxVni, &mvp->mvp_vni);
	}
	if (std::strcmp(name, "addr") == 0) {
		// An address, or a subnet holding this host's endpoint.
		std::string addr = value;
		if (const size_t slash = addr.find('/'); slash != std::string::npos) {
			if (!parse_uint(addr.c_str() + slash + 1, 128, &mvp->mvp_plen))
				return false;
			addr.resize(slash);
			mvp->mvp_mask |= MVP_VXLAN_PLEN;
		}
		mvp->mvp_mask |= MVP_VXLAN_ADDR;
		return kel::ipaddr::parse(addr.c_str(), &mvp->mvp_addr) &&
		    (!(mvp->mvp_mask & MVP_VXLAN_PLEN) ||
		        mvp->mvp_plen <= (mvp->mvp_addr.ip_version == 6 ? 128u : 32u));
	}
	if (std::strcmp(name, "mgroup") == 0) {
		mvp->mvp_mask |= MVP_VXLAN_MGROUP;
		return kel::ipaddr::parse(value, &mvp->mvp_mgroup);
	}
	if (std::strcmp(name, "ipvers") == 0) {
		mvp->mvp_mask |= MVP_VXLAN_IPVERS;
		mvp->mvp_ipvers = std::strcmp(value, "v6") == 0 ? 6 : 4;
		return std::strcmp(value, "v4") == 0 || std::strcmp(value, "v6") == 0;
	}
	// "interface"
	mvp->mvp_mask |= MVP_VXLAN_IF;
	const size_t len = std::strlen(value);
	if (len == 0 || len >= IFNAMSIZ)
		return false;
	std::memcpy(mvp->mvp_if, value, len + 1);
	return true;
}

struct nl_addr *to_nl(const mac_ipaddr_t &a)
{
	size_t len;
	const unsigned char *raw = kel::ipaddr::bytes(a, &len);
	return nl_addr_build(kel::ipaddr::family(a), raw, len);
}

// The MTU of a VXLAN link over the underlay link `underlay`: the underlay's, less what
// the encapsulation adds to a frame (the outer IP header, UDP, VXLAN and the inner
// Ethernet header), so that a full-size frame of a guest is never fragmented on the
// underlay. Without a lower link the kernel would give the link 1500 whatever the
// underlay. 0, leaving it to the kernel, when the underlay cannot be read or is too small.
uint32_t mtu_over(wexo_handle_t h, datalink_id_t underlay, bool ipv6)
{
	constexpr uint32_t kOverhead4 = 20 + 8 + 8 + 14, kOverhead6 = 40 + 8 + 8 + 14;
	constexpr uint32_t kMinMtu = 68;  // the least an IPv4 link may carry
	struct rtnl_link *l = nullptr;
	if (underlay == DATALINK_INVALID_LINKID || wexo_get_link(h, underlay, &l) != WEXO_STATUS_OK)
		return 0;
	const uint32_t mtu = rtnl_link_get_mtu(l), overhead = ipv6 ? kOverhead6 : kOverhead4;
	rtnl_link_put(l);
	return mtu >= overhead + kMinMtu ? mtu - overhead : 0;
}

// The VXLAN link as the kernel is to make it.
wexo_status_t describe(wexo_handle_t h, const char *name, const vxlan_kparams_t &kp, struct rtnl_link *link)
{
	int err = 0;
	rtnl_link_set_name(link, name);
	rtnl_link_set_flags(link, IFF_UP);
	// The underlay: the link holding the endpoint's address, else the uplink named.
	const datalink_id_t underlay = kp.vk_ifindex != 0 ? static_cast<datalink_id_t>(kp.vk_ifindex) : kp.vk_llinkid;
	if (const uint32_t mtu = mtu_over(h, underlay, kp.vk_addr.ip_version == 6 || kp.vk_maddr.ip_version == 6))
		rtnl_link_set_mtu(link, mtu);
	if ((err = rtnl_link_vxlan_set_id(link, kp.vk_mvp.mvp_vni)) == 0)
		err = rtnl_link_vxlan_set_port(link, kVxlanPort);
	if (err == 0 && kel::ipaddr::specified(kp.vk_addr)) {
		struct nl_addr *local = to_nl(kp.vk_addr);
		err = local == nullptr ? -NLE_NOMEM : rtnl_link_vxlan_set_local(link, local);
		nl_addr_put(local);
	}
	if (err == 0 && kel::ipaddr::specified(kp.vk_maddr)) {
		struct nl_addr *group = to_nl(kp.vk_maddr);
		err = group == nullptr ? -NLE_NOMEM : rtnl_link_vxlan_set_group(link, group);
		nl_addr_put(group);
		// The group is joined on the uplink, where the other hosts' packets arrive.
		if (err == 0 && kp.vk_llinkid != DATALINK_INVALID_LINKID)
			err = rtnl_link_vxlan_set_link(link, kp.vk_llinkid);
	}
	return wexo_from_nl(err);
}

}  // namespace

extern "C" {

wexo_status_t wexo_link_proplist_extract(wexo_handle_t, datalink_id_t, datalink_class_t dlclass,
    const wexo_arg_list_t *args, void *props, uint32_t)
{
	if (args == nullptr || props == nullptr)
		return WEXO_STATUS_BADARG;
	if (dlclass != DATALINK_CLASS_VXLAN)
		return WEXO_STATUS_NOTSUP;
	auto *mvp = static_cast<mac_vxlan_props_t *>(props);
	*mvp = mac_vxlan_props_t{};
	for (uint_t i = 0; i < wexo_arg_count(args); i++) {
		const char *name = wexo_arg_name(args, i);
		if (is_vxlan_prop(name) && !extract_one(name, wexo_arg_value(args, i), mvp))
			return WEXO_STATUS_BADVAL;
	}
	return WEXO_STATUS_OK;
}

wexo_status_t wexo_vxlan_create(wexo_handle_t h, const char *name, vxlan_kparams_t *kp, const wexo_arg_list_t *args,
    uint32_t flags, datalink_id_t *linkidp)
{
	if (h == nullptr || name == nullptr || kp == nullptr || linkidp == nullptr ||
	    !(kp->vk_mvp.mvp_mask & MVP_VXLAN_VNI) || std::strlen(name) >= IFNAMSIZ)
		return WEXO_STATUS_BADARG;
	*linkidp = DATALINK_INVALID_LINKID;
	if (!(flags & WEXO_OPT_ACTIVE))
		return WEXO_STATUS_NOTSUP;  // nothing persists across restarts here
	// An endpoint the host does not hold would send from an address nobody answers.
	if (kel::ipaddr::specified(kp->vk_addr) && kp->vk_ifindex == 0)
		return WEXO_STATUS_NOADDR;
	if (kp->vk_mvp.mvp_mask & MVP_VXLAN_MGROUP)
		kp->vk_maddr = kp->vk_mvp.mvp_mgroup;
	kp->vk_syslink = (flags & WEXO_OPT_ONDEMAND) ? B_TRUE : B_FALSE;
	wexo::LinkLock lock(name);
	if (!lock.held())
		return WEXO_STATUS_DENIED;
	struct rtnl_link *link = rtnl_link_vxlan_alloc();
	if (link == nullptr)
		return WEXO_STATUS_NOMEM;
	wexo_status_t st = describe(h, name, *kp, link);
	if (st == WEXO_STATUS_OK) {
		// Exclusive: an existing link of that name is left exactly as it is.
		const int err = rtnl_link_add(wexo_sock(h), link, NLM_F_CREATE | NLM_F_EXCL);
		kp->vk_diag = -err;
		st = wexo_from_nl(err);
	}
	rtnl_link_put(link);
	if (st == WEXO_STATUS_OK)
		st = wexo_name2info(h, name, &kp->vk_linkid, nullptr);
	if (st == WEXO_STATUS_OK)
		st = wexo_ondemand_made(h, name, &kp->vk_linkid, flags);
	for (uint_t i = 0; st == WEXO_STATUS_OK && i < wexo_arg_count(args); i++)
		if (!is_vxlan_prop(wexo_arg_name(args, i)))
			st = wexo_set_linkprop(h, kp->vk_linkid, wexo_arg_name(args, i), wexo_arg_value(args, i));
	if (st != WEXO_STATUS_OK && kp->vk_linkid != DATALINK_INVALID_LINKID) {
		// Made but not as asked: it goes again rather than stay half set up.
		struct rtnl_link *made = nullptr;
		if (wexo_get_link(h, kp->vk_linkid, &made) == WEXO_STATUS_OK) {
			(void)rtnl_link_delete(wexo_sock(h), made);
			rtnl_link_put(made);
		}
		kp->vk_linkid = DATALINK_INVALID_LINKID;
	}
	if (st == WEXO_STATUS_OK)
		*linkidp = kp->vk_linkid;
	return st;
}

wexo_status_t wexo_vxlan_delete(wexo_handle_t h, datalink_id_t linkid, uint32_t flags)
{
	return wexo_ondemand_delete(h, linkid, flags, DATALINK_CLASS_VXLAN);
}

}  // extern "C"
