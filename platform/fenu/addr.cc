#include <arpa/inet.h>
#include <net/if.h>
#include <netlink/cache.h>
#include <netlink/netlink.h>
#include <netlink/route/addr.h>
#include <netlink/socket.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <new>

#include "fenu.h"
#include "mac_ipaddr.h"

struct fenu_handle {
	struct nl_sock *sock;
};

namespace {

// Walks the kernel's addresses (through `sock`, or a socket of its own when NULL) until
// `take` answers true; FENU_NOTFOUND when it never does.
fenu_status_t walk(struct nl_sock *sock, const std::function<bool(struct rtnl_addr *)> &take, fenu_addr_t *out)
{
	struct nl_sock *own = nullptr;
	if (sock == nullptr) {
		if ((own = sock = nl_socket_alloc()) == nullptr)
			return FENU_NOMEM;
		if (nl_connect(sock, NETLINK_ROUTE) != 0) {
			nl_socket_free(own);
			return FENU_FAILURE;
		}
	}
	struct nl_cache *cache = nullptr;
	fenu_status_t st = FENU_FAILURE;
	if (rtnl_addr_alloc_cache(sock, &cache) == 0) {
		st = FENU_NOTFOUND;
		for (struct nl_object *o = nl_cache_get_first(cache); o != nullptr; o = nl_cache_get_next(o)) {
			auto *a = reinterpret_cast<struct rtnl_addr *>(o);
			struct nl_addr *local = rtnl_addr_get_local(a);
			if (local == nullptr || !take(a))
				continue;
			std::memset(out, 0, sizeof(*out));
			out->fa_ifindex = rtnl_addr_get_ifindex(a);
			out->fa_af = static_cast<sa_family_t>(rtnl_addr_get_family(a));
			out->fa_prefixlen = static_cast<uint32_t>(rtnl_addr_get_prefixlen(a));
			inet_ntop(out->fa_af, nl_addr_get_binary_addr(local), out->fa_addr, sizeof(out->fa_addr));
			if (if_indextoname(static_cast<unsigned>(out->fa_ifindex), out->fa_ifname) == nullptr)
				out->fa_ifname[0] = '\0';
			st = FENU_SUCCESS;
			break;
		}
		nl_cache_free(cache);
	}
	nl_socket_free(own);
	return st;
}

// Whether the first `plen` bits of `a` and `b` (`len` bytes each) agree.
bool same_prefix(const unsigned char *a, const unsigned char *b, size_t len, uint32_t plen)
{
	for (size_t i = 0; i < len && plen > 0; i++, plen = plen > 8 ? plen - 8 : 0) {
		const unsigned char m = plen >= 8 ? 0xff : static_cast<unsigned char>(0xff00u >> plen);
		if ((a[i] & m) != (b[i] & m))
			return false;
	}
	return true;
}

}  // namespace

extern "C" {

fenu_status_t fenu_interface_addr(const char *ifname, sa_family_t af, fenu_addr_t *out)
{
	if (ifname == nullptr || out == nullptr)
		return FENU_BADARG;
	const int ifindex = static_cast<int>(if_nametoindex(ifname));
	if (ifindex == 0)
		return FENU_NOTFOUND;
	return walk(
	    nullptr,
	    [&](struct rtnl_addr *a) { return rtnl_addr_get_ifindex(a) == ifindex && rtnl_addr_get_family(a) == af; },
	    out);
}

fenu_status_t fenu_local_addr(const char *addr, fenu_addr_t *out)
{
	unsigned char want[16];
	int af = AF_INET;
	if (addr == nullptr || out == nullptr)
		return FENU_BADARG;
	if (inet_pton(AF_INET, addr, want) != 1) {
		af = AF_INET6;
		if (inet_pton(AF_INET6, addr, want) != 1)
			return FENU_BADARG;
	}
	const size_t len = af == AF_INET ? 4 : 16;
	return walk(
	    nullptr,
	    [&](struct rtnl_addr *a) {
		    struct nl_addr *local = rtnl_addr_get_local(a);
		    return rtnl_addr_get_family(a) == af && nl_addr_get_len(local) == len &&
		        std::memcmp(nl_addr_get_binary_addr(local), want, len) == 0;
	    },
	    out);
}

fenu_status_t fenu_open(fenu_handle_t *hp, const char *profile, int, int)
{
	if (hp == nullptr)
		return FENU_BADARG;
	*hp = nullptr;
	// The running system is the only configuration there is.
	if (profile == nullptr || std::strcmp(profile, "current-profile") != 0)
		return FENU_NOTFOUND;
	auto *h = new (std::nothrow) fenu_handle{nl_socket_alloc()};
	if (h == nullptr || h->sock == nullptr) {
		delete h;
		return FENU_NOMEM;
	}
	if (nl_connect(h->sock, NETLINK_ROUTE) != 0) {
		fenu_close(h);
		return FENU_FAILURE;
	}
	*hp = h;
	return FENU_SUCCESS;
}

void fenu_close(fenu_handle_t h)
{
	if (h == nullptr)
		return;
	nl_socket_free(h->sock);
	delete h;
}

boolean_t fenu_is_ip(fenu_handle_t h, const char *ifname)
{
	if (h == nullptr || ifname == nullptr)
		return B_FALSE;
	const int ifindex = static_cast<int>(if_nametoindex(ifname));
	fenu_addr_t any;
	return ifindex != 0 &&
	        walk(
	            h->sock, [&](struct rtnl_addr *a) { return rtnl_addr_get_ifindex(a) == ifindex; }, &any) ==
	            FENU_SUCCESS
	    ? B_TRUE
	    : B_FALSE;
}

fenu_status_t fenu_get_addrinfo(mac_ipaddr_t *addr, mac_ipaddr_t *mask, uint32_t plen, int *ifindex,
    datalink_id_t *linkid, boolean_t by_interface, int family)
{
	if (addr == nullptr || linkid == nullptr || (family != AF_INET && family != AF_INET6))
		return FENU_BADARG;
	const size_t len = family == AF_INET ? 4 : 16;
	size_t wantlen = 0;
	const unsigned char *want = kel::ipaddr::bytes(*addr, &wantlen);
	if (!by_interface && (kel::ipaddr::family(*addr) != family || plen > 8 * len))
		return FENU_BADARG;
	fenu_addr_t found;
	mac_ipaddr_t local{};
	const fenu_status_t st = walk(
	    nullptr,
	    [&](struct rtnl_addr *a) {
		    struct nl_addr *l = rtnl_addr_get_local(a);
		    if (rtnl_addr_get_family(a) != family || nl_addr_get_len(l) != len)
			    return false;
		    const auto *raw = static_cast<const unsigned char *>(nl_addr_get_binary_addr(l));
		    const bool match = by_interface ? rtnl_addr_get_ifindex(a) == static_cast<int>(*linkid)
		                                    : same_prefix(raw, want, len, plen);
		    if (match)
			    kel::ipaddr::assign(&local, family, raw);
		    return match;
	    },
	    &found);
	if (st != FENU_SUCCESS)
		return st;
	*addr = local;
	if (mask != nullptr)
		*mask = kel::ipaddr::mask(local.ip_version, found.fa_prefixlen);
	if (ifindex != nullptr)
		*ifindex = found.fa_ifindex;
	*linkid = static_cast<datalink_id_t>(found.fa_ifindex);
	return FENU_SUCCESS;
}

}  // extern "C"
