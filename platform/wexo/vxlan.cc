// VXLAN links made on demand for the VNICs of a kel: their properties, creation and
// removal.
#include <fcntl.h>
#include <linux/net_namespace.h>
#include <net/if.h>
#include <unistd.h>
#include <netlink/cache.h>
#include <netlink/errno.h>
#include <netlink/msg.h>
#include <netlink/route/link.h>
#include <netlink/route/link/vxlan.h>

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
		    (!(mvp->mvp_mask & MVP_VXLAN_PLEN) || mvp->mvp_plen <= (mvp->mvp_addr.ip_version == 6 ? 128u : 32u));
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

// The VXLAN link as the kernel is to make it.
wexo_status_t describe(const char *name, const vxlan_kparams_t &kp, struct rtnl_link *link)
{
	int err = 0;
	rtnl_link_set_name(link, name);
	rtnl_link_set_flags(link, IFF_UP);
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

// The ID under which the namespace of `h` knows the namespace `fd`; -1 when it has none
// (then none of its links is made over one of that namespace's). `h` is spent after.
int32_t peer_nsid(wexo_handle_t h, int fd)
{
	struct rtgenmsg g = {AF_UNSPEC};
	struct nl_msg *m = nlmsg_alloc_simple(RTM_GETNSID, NLM_F_REQUEST);
	int32_t nsid = -1;
	// Without an acknowledgement, the answer is the one message to read. The handle is
	// the asker's alone: its sequence numbers are off the track libnl keeps after this.
	nl_socket_disable_auto_ack(wexo_sock(h));
	const bool sent = m != nullptr && nlmsg_append(m, &g, sizeof(g), NLMSG_ALIGNTO) == 0 &&
	    nla_put_u32(m, NETNSA_FD, static_cast<uint32_t>(fd)) == 0 && nl_send_auto(wexo_sock(h), m) >= 0;
	nlmsg_free(m);
	unsigned char *buf = nullptr;
	struct sockaddr_nl peer;
	const int n = sent ? nl_recv(wexo_sock(h), &peer, &buf, nullptr) : -1;
	auto *hdr = reinterpret_cast<struct nlmsghdr *>(buf);
	struct nlattr *tb[NETNSA_MAX + 1];
	if (n > 0 && nlmsg_ok(hdr, n) && hdr->nlmsg_type == RTM_NEWNSID &&
	    nlmsg_parse(hdr, sizeof(g), tb, NETNSA_MAX, nullptr) == 0 && tb[NETNSA_NSID] != nullptr)
		nsid = nla_get_s32(tb[NETNSA_NSID]);
	std::free(buf);
	return nsid;
}

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

// Whether any link is made over `id` or enslaved to it: in its own namespace, or, for a
// VNIC placed in a named namespace, there.
wexo_status_t has_uppers(wexo_handle_t h, datalink_id_t id, bool *busy)
{
	*busy = false;
	wexo_status_t st = uppers_in(h, h, -1, id, busy);
	// The handle's namespace, as a descriptor the other namespaces can be asked about.
	const int own = wexo_netns_fd(h);
	const int home = own != -1 ? own : open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
	std::error_code ec;
	for (const auto &entry : std::filesystem::directory_iterator("/run/netns", ec)) {
		if (st != WEXO_STATUS_OK || *busy)
			break;
		const std::string name = entry.path().filename();
		wexo_handle_t ask = nullptr, other = nullptr;
		// A namespace that goes away meanwhile holds nothing.
		const int32_t homeid = home != -1 && wexo_open_netns(name.c_str(), &ask) == WEXO_STATUS_OK
		    ? peer_nsid(ask, home) : -1;
		wexo_close(ask);
		if (homeid >= 0 && wexo_open_netns(name.c_str(), &other) == WEXO_STATUS_OK)
			st = uppers_in(other, h, homeid, id, busy);
		wexo_close(other);
	}
	if (home != -1 && home != own)
		close(home);
	return st;
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

wexo_status_t wexo_vxlan_create(wexo_handle_t h, const char *name, vxlan_kparams_t *kp,
    const wexo_arg_list_t *args, uint32_t flags, datalink_id_t *linkidp)
{
	if (h == nullptr || name == nullptr || kp == nullptr || linkidp == nullptr ||
	    !(kp->vk_mvp.mvp_mask & MVP_VXLAN_VNI) || std::strlen(name) >= IFNAMSIZ)
		return WEXO_STATUS_BADARG;
	*linkidp = DATALINK_INVALID_LINKID;
	if (!(flags & WEXO_OPT_ACTIVE))
		return WEXO_STATUS_NOTSUP;	// nothing persists across restarts here
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
	wexo_status_t st = describe(name, *kp, link);
	if (st == WEXO_STATUS_OK) {
		// Exclusive: an existing link of that name is left exactly as it is.
		const int err = rtnl_link_add(wexo_sock(h), link, NLM_F_CREATE | NLM_F_EXCL);
		kp->vk_diag = -err;
		st = wexo_from_nl(err);
	}
	rtnl_link_put(link);
	if (st == WEXO_STATUS_OK)
		st = wexo_name2info(h, name, &kp->vk_linkid, nullptr);
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
	if (h == nullptr || linkid == DATALINK_INVALID_LINKID)
		return WEXO_STATUS_BADARG;
	if (!(flags & WEXO_OPT_ACTIVE))
		return WEXO_STATUS_NOTSUP;
	char name[IFNAMSIZ];
	datalink_class_t cls;
	wexo_status_t st = wexo_datalink_id2info(h, linkid, nullptr, &cls, nullptr, name, sizeof(name));
	if (st != WEXO_STATUS_OK)
		return st;
	if (cls != DATALINK_CLASS_VXLAN)
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
	else if ((st = has_uppers(h, linkid, &busy)) == WEXO_STATUS_OK && busy)
		st = WEXO_STATUS_LINKBUSY;
	if (st == WEXO_STATUS_OK)
		st = wexo_from_nl(rtnl_link_delete(wexo_sock(h), link));
	rtnl_link_put(link);
	return st;
}

}  // extern "C"
