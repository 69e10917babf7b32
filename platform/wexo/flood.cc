// The flood list of a VXLAN link without a multicast group: the remote endpoints that
// every broadcast, multicast and unknown frame is copied to, kept as the link's
// all-zero forwarding entries.
#include <arpa/inet.h>
#include <linux/neighbour.h>
#include <netlink/cache.h>
#include <netlink/errno.h>
#include <netlink/route/link.h>
#include <netlink/route/link/vxlan.h>
#include <netlink/route/neighbour.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "c_boundary.h"
#include "link_internal.h"
#include "wexo.h"

namespace {

constexpr unsigned char kAllZero[6] = {};

struct AddrPut {
	void operator()(struct nl_addr *a) const { nl_addr_put(a); }
};
using Addr = std::unique_ptr<struct nl_addr, AddrPut>;

std::string addr_text(struct nl_addr *a)
{
	char buf[64];
	return nl_addr2str(a, buf, sizeof(buf));
}

// Is `link` a VXLAN link? Its local endpoint into *local ("" when unset).
wexo_status_t vxlan_local(wexo_handle_t h, datalink_id_t id, std::string *local)
{
	struct rtnl_link *l = nullptr;
	wexo_status_t st = wexo_get_link(h, id, &l);
	if (st != WEXO_STATUS_OK)
		return st;
	struct nl_addr *a = nullptr;
	if (rtnl_link_is_vxlan(l) == 0)
		st = WEXO_STATUS_BADARG;
	else if (rtnl_link_vxlan_get_local(l, &a) == 0)
		*local = addr_text(a);
	else
		local->clear();
	nl_addr_put(a);
	rtnl_link_put(l);
	return st;
}

// One all-zero entry of link `id` towards `remote`: added (appended beside the others)
// or deleted.
wexo_status_t change_entry(wexo_handle_t h, datalink_id_t id, const std::string &remote, bool add)
{
	// Whole addresses only: the library's own parser takes "10.1" and "10.1.0.0/16".
	unsigned char raw[sizeof(struct in6_addr)];
	const int family = remote.find(':') != std::string::npos ? AF_INET6 : AF_INET;
	if (inet_pton(family, remote.c_str(), raw) != 1)
		return WEXO_STATUS_BADVAL;
	Addr dst(nl_addr_build(family, raw, family == AF_INET ? 4 : 16));
	Addr mac(nl_addr_build(AF_LLC, kAllZero, sizeof(kAllZero)));
	struct rtnl_neigh *n = rtnl_neigh_alloc();
	if (n == nullptr || mac == nullptr || dst == nullptr) {
		rtnl_neigh_put(n);
		return WEXO_STATUS_NOMEM;
	}
	// The destination first: setting it checks its family against the entry's, which
	// for a forwarding entry is AF_BRIDGE.
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

// The list as the kernel holds it, sorted.
wexo_status_t read_flood(wexo_handle_t h, datalink_id_t id, std::string *local, std::vector<std::string> *remotes)
{
	remotes->clear();
	wexo_status_t st = vxlan_local(h, id, local);
	if (st != WEXO_STATUS_OK)
		return st;
	struct nl_cache *cache = nullptr;
	// Forwarding entries are AF_BRIDGE's: a plain dump of neighbours leaves them out.
	if (int err = rtnl_neigh_alloc_cache_flags(wexo_sock(h), &cache, NL_CACHE_AF_ITER); err != 0)
		return wexo_from_nl(err);
	std::unique_ptr<struct nl_cache, void (*)(struct nl_cache *)> owned(cache, nl_cache_free);
	for (struct nl_object *o = nl_cache_get_first(cache); o != nullptr; o = nl_cache_get_next(o)) {
		auto *n = reinterpret_cast<struct rtnl_neigh *>(o);
		struct nl_addr *mac = rtnl_neigh_get_lladdr(n);
		struct nl_addr *dst = rtnl_neigh_get_dst(n);
		if (rtnl_neigh_get_family(n) != AF_BRIDGE || rtnl_neigh_get_ifindex(n) != static_cast<int>(id) || mac == nullptr || dst == nullptr ||
		    nl_addr_get_len(mac) != sizeof(kAllZero) ||
		    std::memcmp(nl_addr_get_binary_addr(mac), kAllZero, sizeof(kAllZero)) != 0)
			continue;
		remotes->push_back(addr_text(dst));
	}
	std::sort(remotes->begin(), remotes->end());
	return WEXO_STATUS_OK;
}

}  // namespace

wexo_status_t wexo_vxlan_get_flood(wexo_handle_t h, datalink_id_t id, wexo_flood_t *flood) noexcept
{
	*flood = wexo_flood_t{};
	const wexo_status_t st = kel::wexo_boundary([&]() -> wexo_status_t {
		std::string local;
		std::vector<std::string> remotes;
		if (const wexo_status_t rc = read_flood(h, id, &local, &remotes); rc != WEXO_STATUS_OK)
			return rc;
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
		const std::vector<std::string> want(remotes, remotes + count);
		std::string local;
		std::vector<std::string> have;
		wexo_status_t st = read_flood(h, id, &local, &have);
		for (const std::string &r : want)
			if (st == WEXO_STATUS_OK && std::find(have.begin(), have.end(), r) == have.end())
				st = change_entry(h, id, r, true);
		if (only_add)
			return st;
		for (const std::string &r : have)
			if (st == WEXO_STATUS_OK && std::find(want.begin(), want.end(), r) == want.end())
				st = change_entry(h, id, r, false);
		return st;
	});
}
