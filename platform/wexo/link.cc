#include <linux/net_namespace.h>
#include <net/if.h>
#include <netlink/errno.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <netlink/route/link.h>
#include <netlink/socket.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <new>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include "c_boundary.h"
#include "link_internal.h"
#include "netns_switch.h"
#include "unique_fd.h"
#include "wexo.h"

struct wexo_handle {
	struct nl_sock *sock = nullptr;
	int nsfd = -1;   // the handle's network namespace; -1: the opener's
	std::string ns;  // its name, "" for the opener's
};

wexo_status_t wexo_from_nl(int err)
{
	switch (-err) {
	case 0: return WEXO_STATUS_OK;
	case NLE_OBJ_NOTFOUND:
	case NLE_NODEV: return WEXO_STATUS_NOTFOUND;
	case NLE_NOMEM: return WEXO_STATUS_NOMEM;
	case NLE_PERM:
	case NLE_NOACCESS: return WEXO_STATUS_DENIED;
	case NLE_INVAL:
	case NLE_RANGE: return WEXO_STATUS_BADARG;
	case NLE_OPNOTSUPP: return WEXO_STATUS_NOTSUP;
	case NLE_EXIST: return WEXO_STATUS_EXIST;
	}
	return WEXO_STATUS_FAILED;
}

namespace {

datalink_class_t class_of(struct rtnl_link *link)
{
	const char *kind = rtnl_link_get_type(link);
	if (kind == nullptr)
		return DATALINK_CLASS_PHYS;
	if (std::strcmp(kind, "vxlan") == 0)
		return DATALINK_CLASS_VXLAN;
	if (std::strcmp(kind, "vlan") == 0)
		return DATALINK_CLASS_VLAN;
	for (const char *vnic : {"veth", "macvlan", "macvtap"})
		if (std::strcmp(vnic, kind) == 0)
			return DATALINK_CLASS_VNIC;
	return DATALINK_CLASS_PHYS;
}

// The link named `name`, or numbered `id` when name is NULL; released by the caller.
wexo_status_t get_link(wexo_handle_t h, datalink_id_t id, const char *name, struct rtnl_link **link)
{
	if (h == nullptr)
		return WEXO_STATUS_BADARG;
	return wexo_from_nl(rtnl_link_get_kernel(h->sock, name ? 0 : static_cast<int>(id), name, link));
}

}  // namespace

struct nl_sock *wexo_sock(wexo_handle_t h)
{
	return h->sock;
}

wexo_status_t wexo_get_link(wexo_handle_t h, datalink_id_t id, struct rtnl_link **link)
{
	return get_link(h, id, nullptr, link);
}

int wexo_netns_fd(wexo_handle_t h)
{
	return h->nsfd;
}

const std::string &wexo_netns_name(wexo_handle_t h)
{
	return h->ns;
}

int32_t wexo_peer_nsid(wexo_handle_t h, int fd)
{
	struct rtgenmsg g = {AF_UNSPEC};
	struct nl_msg *m = nlmsg_alloc_simple(RTM_GETNSID, NLM_F_REQUEST);
	int32_t nsid = -1;
	// Without an acknowledgement, the answer is the one message to read. The handle is
	// the asker's alone: its sequence numbers are off the track libnl keeps after this.
	nl_socket_disable_auto_ack(h->sock);
	const bool sent = m != nullptr && nlmsg_append(m, &g, sizeof(g), NLMSG_ALIGNTO) == 0 &&
	    nla_put_u32(m, NETNSA_FD, static_cast<uint32_t>(fd)) == 0 && nl_send_auto(h->sock, m) >= 0;
	nlmsg_free(m);
	unsigned char *buf = nullptr;
	struct sockaddr_nl peer;
	const int n = sent ? nl_recv(h->sock, &peer, &buf, nullptr) : -1;
	auto *hdr = reinterpret_cast<struct nlmsghdr *>(buf);
	struct nlattr *tb[NETNSA_MAX + 1];
	if (n > 0 && nlmsg_ok(hdr, n) && hdr->nlmsg_type == RTM_NEWNSID &&
	    nlmsg_parse(hdr, sizeof(g), tb, NETNSA_MAX, nullptr) == 0 && tb[NETNSA_NSID] != nullptr)
		nsid = nla_get_s32(tb[NETNSA_NSID]);
	std::free(buf);
	return nsid;
}

wexo_status_t wexo_host_lower(wexo_handle_t h, struct rtnl_link *link, datalink_id_t *id, std::string *name)
{
	const int lower = rtnl_link_get_link(link);
	if (lower <= 0)
		return WEXO_STATUS_NOTFOUND;
	int32_t nsid = -1;
	const bool elsewhere = rtnl_link_get_link_netnsid(link, &nsid) == 0 && nsid >= 0;
	if (elsewhere == (h->nsfd == -1))
		return WEXO_STATUS_NOTFOUND;  // not where the host's links are
	if (elsewhere) {
		// The index is one of the namespace h's namespace knows by that ID: the host's
		// only when h's namespace knows the host's by it.
		wexo_handle_t ask = nullptr;
		const kel::UniqueFd home(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
		const int32_t host_id = home.valid() && wexo_open_netns(h->ns.c_str(), &ask) == WEXO_STATUS_OK
		    ? wexo_peer_nsid(ask, home.get())
		    : -1;
		wexo_close(ask);
		if (host_id < 0 || host_id != nsid)
			return WEXO_STATUS_NOTFOUND;
	}
	wexo_handle_t host = nullptr;
	char text[IFNAMSIZ] = "";
	wexo_status_t st = wexo_open(&host);
	if (st == WEXO_STATUS_OK)
		st = wexo_datalink_id2info(host, static_cast<datalink_id_t>(lower), nullptr, nullptr, nullptr, text,
		    sizeof(text));
	wexo_close(host);
	if (st != WEXO_STATUS_OK)
		return st;
	if (id != nullptr)
		*id = static_cast<datalink_id_t>(lower);
	if (name != nullptr)
		*name = text;
	return WEXO_STATUS_OK;
}

// Runs `use` on link `id` of the handle's namespace, looked up for it and put after.
template <class Use>
wexo_status_t with_link(wexo_handle_t h, datalink_id_t id, Use use)
{
	if (id == DATALINK_INVALID_LINKID)
		return WEXO_STATUS_BADARG;
	struct rtnl_link *link = nullptr;
	wexo_status_t st = get_link(h, id, nullptr, &link);
	if (st == WEXO_STATUS_OK)
		st = use(link);
	rtnl_link_put(link);
	return st;
}

extern "C" {

wexo_status_t wexo_open(wexo_handle_t *handlep) noexcept
{
	return wexo_open_netns(nullptr, handlep);
}

wexo_status_t wexo_open_netns(const char *netns, wexo_handle_t *handlep) noexcept
{
	if (handlep == nullptr)
		return WEXO_STATUS_BADARG;
	*handlep = nullptr;
	// The name is checked before anything is made of it: a caller's name may be of any
	// length.
	const bool named = netns != nullptr && *netns != '\0';
	if (named && !wexo::valid_netns_name(netns))
		return WEXO_STATUS_BADARG;
	auto *h = new (std::nothrow) wexo_handle;
	if (h == nullptr)
		return WEXO_STATUS_NOMEM;
	wexo_status_t st = kel::wexo_boundary([&] {
		if (named) {
			h->ns = netns;
			if ((h->nsfd = wexo::open_netns(netns)) == -1)
				return WEXO_STATUS_NOTFOUND;
		}
		return WEXO_STATUS_OK;
	});
	if (st == WEXO_STATUS_OK && (h->sock = nl_socket_alloc()) == nullptr)
		st = WEXO_STATUS_NOMEM;
	if (st == WEXO_STATUS_OK) {
		// A netlink socket belongs to the namespace it was made in.
		wexo::NetnsSwitch in(h->nsfd);
		st = !in.ok() ? WEXO_STATUS_DENIED : wexo_from_nl(nl_connect(h->sock, NETLINK_ROUTE));
	}
	if (st != WEXO_STATUS_OK) {
		wexo_close(h);
		return st;
	}
	*handlep = h;
	return WEXO_STATUS_OK;
}

void wexo_close(wexo_handle_t h) noexcept
{
	if (h == nullptr)
		return;
	nl_socket_free(h->sock);
	if (h->nsfd != -1)
		close(h->nsfd);
	delete h;
}

wexo_status_t wexo_name2info(wexo_handle_t h, const char *name, datalink_id_t *idp, datalink_class_t *classp) noexcept
{
	return kel::wexo_boundary([&] {
		if (name == nullptr || *name == '\0')
			return WEXO_STATUS_BADARG;
		struct rtnl_link *link = nullptr;
		wexo_status_t st = get_link(h, 0, name, &link);
		if (st != WEXO_STATUS_OK)
			return st;
		if (idp != nullptr)
			*idp = static_cast<datalink_id_t>(rtnl_link_get_ifindex(link));
		if (classp != nullptr)
			*classp = class_of(link);
		rtnl_link_put(link);
		return WEXO_STATUS_OK;
	});
}

wexo_status_t wexo_datalink_id2info(wexo_handle_t h, datalink_id_t id, uint32_t *flagsp, datalink_class_t *classp,
    uint32_t *mediap, char *name, size_t namelen) noexcept
{
	return kel::wexo_boundary([&] {
		return with_link(h, id, [&](struct rtnl_link *link) {
			if (flagsp != nullptr)
				*flagsp = rtnl_link_get_flags(link);
			if (classp != nullptr)
				*classp = class_of(link);
			if (mediap != nullptr)
				*mediap = rtnl_link_get_arptype(link);
			if (name != nullptr && namelen > 0)
				std::snprintf(name, namelen, "%s", rtnl_link_get_name(link));
			return WEXO_STATUS_OK;
		});
	});
}

wexo_status_t wexo_link_up(wexo_handle_t h, datalink_id_t id) noexcept
{
	return kel::wexo_boundary([&] {
		return with_link(h, id, [&](struct rtnl_link *link) {
			struct rtnl_link *change = rtnl_link_alloc();
			if (change == nullptr)
				return WEXO_STATUS_NOMEM;
			rtnl_link_set_flags(change, IFF_UP);
			const wexo_status_t st = wexo_from_nl(rtnl_link_change(wexo_sock(h), link, change, 0));
			rtnl_link_put(change);
			return st;
		});
	});
}

wexo_status_t wexo_link_mtu(wexo_handle_t h, datalink_id_t id, uint32_t *mtup) noexcept
{
	return kel::wexo_boundary([&] {
		if (mtup == nullptr)
			return WEXO_STATUS_BADARG;
		return with_link(h, id, [&](struct rtnl_link *link) {
			*mtup = rtnl_link_get_mtu(link);
			return WEXO_STATUS_OK;
		});
	});
}

wexo_status_t wexo_link_stats(wexo_handle_t h, datalink_id_t id, wexo_stats_t *stats) noexcept
{
	return kel::wexo_boundary([&] {
		if (id == 0 || stats == nullptr)
			return WEXO_STATUS_BADARG;
		struct rtnl_link *link = nullptr;
		wexo_status_t st = get_link(h, id, nullptr, &link);
		if (st != WEXO_STATUS_OK)
			return st;
		// The kernel's 64-bit counters (IFLA_STATS64), as libnl keeps them.
		stats->ws_rbytes = rtnl_link_get_stat(link, RTNL_LINK_RX_BYTES);
		stats->ws_ipackets = rtnl_link_get_stat(link, RTNL_LINK_RX_PACKETS);
		stats->ws_ierrors = rtnl_link_get_stat(link, RTNL_LINK_RX_ERRORS);
		stats->ws_obytes = rtnl_link_get_stat(link, RTNL_LINK_TX_BYTES);
		stats->ws_opackets = rtnl_link_get_stat(link, RTNL_LINK_TX_PACKETS);
		stats->ws_oerrors = rtnl_link_get_stat(link, RTNL_LINK_TX_ERRORS);
		stats->ws_idrops = rtnl_link_get_stat(link, RTNL_LINK_RX_DROPPED);
		stats->ws_odrops = rtnl_link_get_stat(link, RTNL_LINK_TX_DROPPED);
		stats->ws_multircv = rtnl_link_get_stat(link, RTNL_LINK_MULTICAST);
		rtnl_link_put(link);
		return WEXO_STATUS_OK;
	});
}

}  // extern "C"
