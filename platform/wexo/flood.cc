// The flood list of a VXLAN link without a multicast group: the remote endpoints that
// every broadcast, multicast and unknown frame is copied to, kept as the link's
// all-zero forwarding entries.
#include <arpa/inet.h>
#include <linux/neighbour.h>
#include <net/if.h>
#include <netlink/errno.h>
#include <netlink/msg.h>
#include <netlink/route/link.h>
#include <netlink/route/link/vxlan.h>
#include <netlink/route/neighbour.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <vector>

#include "c_boundary.h"
#include "kelnet.h"
#include "link_internal.h"
#include "wexo.h"

namespace {

constexpr unsigned char kAllZero[6] = {};

struct AddrPut {
	void operator()(struct nl_addr *a) const { nl_addr_put(a); }
};
using Addr = std::unique_ptr<struct nl_addr, AddrPut>;

struct CbPut {
	void operator()(struct nl_cb *cb) const { nl_cb_put(cb); }
};
using Callbacks = std::unique_ptr<struct nl_cb, CbPut>;

// An address as the kernel's are read back: "" for a text that is no whole address.
std::string canonical(const char *text, int family)
{
	unsigned char raw[sizeof(struct in6_addr)];
	char buf[INET6_ADDRSTRLEN];
	if (inet_pton(family, text, raw) != 1 || inet_ntop(family, raw, buf, sizeof(buf)) == nullptr)
		return "";
	return buf;
}

// The link's own endpoint ("" when unset) and its family (AF_UNSPEC when unset);
// WEXO_STATUS_BADARG for a link that is not a VXLAN link.
wexo_status_t vxlan_local(wexo_handle_t h, datalink_id_t id, std::string *local, int *family)
{
	struct rtnl_link *l = nullptr;
	wexo_status_t st = wexo_get_link(h, id, &l);
	if (st != WEXO_STATUS_OK)
		return st;
	struct nl_addr *a = nullptr;
	char buf[INET6_ADDRSTRLEN] = "";
	*family = AF_UNSPEC;
	if (rtnl_link_is_vxlan(l) == 0) {
		st = WEXO_STATUS_BADARG;
	} else if (rtnl_link_vxlan_get_local(l, &a) == 0 &&
	    inet_ntop(nl_addr_get_family(a), nl_addr_get_binary_addr(a), buf, sizeof(buf)) != nullptr) {
		*family = nl_addr_get_family(a);
	}
	*local = buf;
	nl_addr_put(a);
	rtnl_link_put(l);
	return st;
}

// One destination of the link's all-zero entry, as the kernel lists it.
struct Remote {
	std::string dst;        // "" when it names none
	std::string more;       // what else it names: " port 5000", " vni 77"
	int via = 0;            // the lower link it names, 0 for none
	bool permanent = true;  // the entry does not age
	unsigned flags = 0;     // the entry's flags beyond NTF_SELF
	bool plain = false;     // a destination alone, as change_entry makes it
	std::string text;       // how it reads in a list
};

struct Dump {
	int ifindex;
	std::vector<Remote> *remotes;
	bool failed = false;
};

// One forwarding entry of a dump, kept when it is a destination of the link's all-zero
// entry. libnl's own neighbour objects leave out ports, VNIs and lower links, and merge
// destinations that differ only in those.
int take_remote(struct nl_msg *msg, void *arg) noexcept
{
	auto *dump = static_cast<Dump *>(arg);
	struct nlmsghdr *hdr = nlmsg_hdr(msg);
	struct nlattr *tb[NDA_MAX + 1];
	if (hdr->nlmsg_type != RTM_NEWNEIGH || nlmsg_parse(hdr, sizeof(struct ndmsg), tb, NDA_MAX, nullptr) < 0)
		return NL_OK;
	const auto *ndm = static_cast<const struct ndmsg *>(nlmsg_data(hdr));
	const struct nlattr *mac = tb[NDA_LLADDR];
	if (ndm->ndm_family != AF_BRIDGE || ndm->ndm_ifindex != dump->ifindex || mac == nullptr ||
	    nla_len(mac) != sizeof(kAllZero) || std::memcmp(nla_data(mac), kAllZero, sizeof(kAllZero)) != 0)
		return NL_OK;
	try {
		Remote r;
		char buf[INET6_ADDRSTRLEN];
		if (const struct nlattr *dst = tb[NDA_DST]; dst != nullptr &&
		    (nla_len(dst) == 4 || nla_len(dst) == 16) &&
		    inet_ntop(nla_len(dst) == 4 ? AF_INET : AF_INET6, nla_data(dst), buf, sizeof(buf)) != nullptr)
			r.dst = buf;
		if (tb[NDA_PORT] != nullptr)
			r.more += " port " + std::to_string(ntohs(nla_get_u16(tb[NDA_PORT])));
		if (tb[NDA_VNI] != nullptr)
			r.more += " vni " + std::to_string(nla_get_u32(tb[NDA_VNI]));
		if (tb[NDA_SRC_VNI] != nullptr)
			r.more += " src_vni " + std::to_string(nla_get_u32(tb[NDA_SRC_VNI]));
		if (tb[NDA_NH_ID] != nullptr)
			r.more += " nexthop " + std::to_string(nla_get_u32(tb[NDA_NH_ID]));
		if (tb[NDA_IFINDEX] != nullptr)
			r.via = static_cast<int>(nla_get_u32(tb[NDA_IFINDEX]));
		r.permanent = (ndm->ndm_state & NUD_PERMANENT) != 0;
		r.flags = ndm->ndm_flags & ~NTF_SELF;
		dump->remotes->push_back(std::move(r));
	} catch (const std::bad_alloc &) {
		dump->failed = true;  // the rest of the dump is still read, so that none stays queued
	}
	return NL_OK;
}

// The destinations of link `id`'s all-zero entry, each told plain or not against the
// link's own endpoint `local` of `family`.
wexo_status_t read_remotes(wexo_handle_t h, datalink_id_t id, const std::string &local, int family,
    std::vector<Remote> *remotes)
{
	remotes->clear();
	struct nl_sock *sock = wexo_sock(h);
	Callbacks base(nl_socket_get_cb(sock));
	Callbacks cb(base != nullptr ? nl_cb_clone(base.get()) : nullptr);
	if (cb == nullptr)
		return WEXO_STATUS_NOMEM;
	Dump dump{static_cast<int>(id), remotes};
	nl_cb_set(cb.get(), NL_CB_VALID, NL_CB_CUSTOM, take_remote, &dump);
	// Forwarding entries are AF_BRIDGE's: a plain dump of neighbours leaves them out.
	struct ndmsg ndm {};
	ndm.ndm_family = AF_BRIDGE;
	int err = nl_send_simple(sock, RTM_GETNEIGH, NLM_F_DUMP, &ndm, sizeof(ndm));
	if (err >= 0)
		err = nl_recvmsgs(sock, cb.get());
	if (err < 0)
		return wexo_from_nl(err);
	if (dump.failed)
		return WEXO_STATUS_NOMEM;
	for (Remote &r : *remotes) {
		int f = AF_UNSPEC;
		// Only an entry as this file makes it can be removed alone: removing an
		// unspecified destination by its address removes every destination with it.
		r.plain = r.more.empty() && r.via == 0 && r.permanent && r.flags == 0 &&
		    unicast_endpoint(r.dst.c_str(), &f) && (family == AF_UNSPEC || f == family) && r.dst != local;
		r.text = r.dst.empty() ? "no destination" : r.dst;
		r.text += r.more;
		char name[IF_NAMESIZE];
		if (r.via != 0)
			r.text += " via " +
			    (wexo_datalink_id2info(h, static_cast<datalink_id_t>(r.via), nullptr, nullptr, nullptr,
			         name, sizeof(name)) == WEXO_STATUS_OK
			            ? std::string(name)
			            : std::to_string(r.via));
		if (!r.permanent)
			r.text += " (not permanent)";
		if (r.flags != 0) {
			char flags[32];
			std::snprintf(flags, sizeof(flags), " (flags 0x%x)", r.flags);
			r.text += flags;
		}
	}
	return WEXO_STATUS_OK;
}

// Adds a destination to link `id`'s all-zero entry (appended beside the others), or
// deletes one; `remote` NULL deletes the whole entry.
wexo_status_t change_entry(wexo_handle_t h, datalink_id_t id, const std::string *remote, bool add)
{
	Addr dst;
	if (remote != nullptr) {
		unsigned char raw[sizeof(struct in6_addr)];
		const int family = remote->find(':') != std::string::npos ? AF_INET6 : AF_INET;
		if (inet_pton(family, remote->c_str(), raw) != 1)
			return WEXO_STATUS_BADVAL;
		if ((dst = Addr(nl_addr_build(family, raw, family == AF_INET ? 4 : 16))) == nullptr)
			return WEXO_STATUS_NOMEM;
	}
	Addr mac(nl_addr_build(AF_LLC, kAllZero, sizeof(kAllZero)));
	struct rtnl_neigh *n = rtnl_neigh_alloc();
	if (n == nullptr || mac == nullptr) {
		rtnl_neigh_put(n);
		return WEXO_STATUS_NOMEM;
	}
	// The destination first: setting it checks its family against the entry's, which
	// for a forwarding entry is AF_BRIDGE.
	if (dst != nullptr)
		rtnl_neigh_set_dst(n, dst.get());
	rtnl_neigh_set_family(n, AF_BRIDGE);
	rtnl_neigh_set_ifindex(n, static_cast<int>(id));
	rtnl_neigh_set_lladdr(n, mac.get());
	rtnl_neigh_set_state(n, NUD_PERMANENT | NUD_NOARP);
	rtnl_neigh_set_flags(n, NTF_SELF);
	const int err = add ? rtnl_neigh_add(wexo_sock(h), n, NLM_F_CREATE | NLM_F_APPEND)
	                    : rtnl_neigh_delete(wexo_sock(h), n, 0);
	rtnl_neigh_put(n);
	// Adding one that is there, or deleting one that is not, changes nothing.
	if (err == -NLE_EXIST || (!add && err == -NLE_OBJ_NOTFOUND))
		return WEXO_STATUS_OK;
	return wexo_from_nl(err);
}

// The list a set asks for, each address as the kernel reads it back: every remote an
// endpoint of the link's own family, and none the link's own endpoint.
wexo_status_t wanted(const char *const *remotes, size_t count, const std::string &local, int family,
    std::set<std::string> *want)
{
	for (size_t i = 0; i < count; i++) {
		int f = AF_UNSPEC;
		if (!unicast_endpoint(remotes[i], &f) || (family != AF_UNSPEC && f != family))
			return WEXO_STATUS_BADVAL;
		const std::string r = canonical(remotes[i], f);
		if (r.empty() || r == local)
			return WEXO_STATUS_BADVAL;
		want->insert(r);
	}
	return WEXO_STATUS_OK;
}

}  // namespace

wexo_status_t wexo_vxlan_get_flood(wexo_handle_t h, datalink_id_t id, wexo_flood_t *flood) noexcept
{
	*flood = wexo_flood_t{};
	const wexo_status_t st = kel::wexo_boundary([&]() -> wexo_status_t {
		std::string local;
		int family = AF_UNSPEC;
		std::vector<Remote> found;
		wexo_status_t rc = vxlan_local(h, id, &local, &family);
		if (rc == WEXO_STATUS_OK)
			rc = read_remotes(h, id, local, family, &found);
		if (rc != WEXO_STATUS_OK)
			return rc;
		std::vector<std::string> remotes;
		for (const Remote &r : found)
			remotes.push_back(r.text);
		std::sort(remotes.begin(), remotes.end());
		std::snprintf(flood->wf_local, sizeof(flood->wf_local), "%s", local.c_str());
		flood->wf_remotes = static_cast<char **>(std::calloc(remotes.size() + 1, sizeof(char *)));
		if (flood->wf_remotes == nullptr)
			return WEXO_STATUS_NOMEM;
		for (const std::string &r : remotes) {
			if ((flood->wf_remotes[flood->wf_count] = strdup(r.c_str())) == nullptr)
				return WEXO_STATUS_NOMEM;
			flood->wf_count++;
		}
		return WEXO_STATUS_OK;
	});
	if (st != WEXO_STATUS_OK)
		wexo_free_flood(flood);
	return st;
}

void wexo_free_flood(wexo_flood_t *flood) noexcept
{
	for (size_t i = 0; i < flood->wf_count; i++)
		std::free(flood->wf_remotes[i]);
	std::free(flood->wf_remotes);
	*flood = wexo_flood_t{};
}

wexo_status_t wexo_vxlan_set_flood(wexo_handle_t h, datalink_id_t id, const char *const *remotes, size_t count,
    boolean_t only_add) noexcept
{
	return kel::wexo_boundary([&] {
		std::string local;
		int family = AF_UNSPEC;
		std::set<std::string> target;
		std::vector<Remote> found;
		if (remotes == nullptr && count != 0)
			return WEXO_STATUS_BADARG;
		wexo_status_t st = vxlan_local(h, id, &local, &family);
		// The whole list is checked before anything changes.
		if (st == WEXO_STATUS_OK)
			st = wanted(remotes, count, local, family, &target);
		if (st == WEXO_STATUS_OK)
			st = read_remotes(h, id, local, family, &found);
		if (st != WEXO_STATUS_OK)
			return st;
		std::set<std::string> have;
		bool odd = false;
		for (const Remote &r : found)
			if (!r.plain || !have.insert(r.dst).second)
				odd = true;
		// Adding keeps what is there, as long as it is a destination this file could have
		// made.
		if (only_add)
			target.insert(have.begin(), have.end());
		// The kernel removes an odd destination only with every other one, so the list
		// is then made again whole.
		if (odd) {
			st = change_entry(h, id, nullptr, false);
			have.clear();
		}
		for (const std::string &r : target)
			if (st == WEXO_STATUS_OK && have.count(r) == 0)
				st = change_entry(h, id, &r, true);
		for (const std::string &r : have)
			if (st == WEXO_STATUS_OK && target.count(r) == 0)
				st = change_entry(h, id, &r, false);
		return st;
	});
}
