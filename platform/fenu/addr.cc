#include <arpa/inet.h>
#include <net/if.h>
#include <netlink/cache.h>
#include <netlink/netlink.h>
#include <netlink/route/addr.h>
#include <netlink/socket.h>

#include <cstdio>
#include <cstring>
#include <functional>

#include "fenu.h"

namespace {

// Walks the kernel's addresses until `take` answers true; FENU_NOTFOUND when it never does.
fenu_status_t walk(const std::function<bool(struct rtnl_addr *)> &take, fenu_addr_t *out)
{
	struct nl_sock *sock = nl_socket_alloc();
	if (sock == nullptr)
		return FENU_NOMEM;
	struct nl_cache *cache = nullptr;
	fenu_status_t st = FENU_FAILURE;
	if (nl_connect(sock, NETLINK_ROUTE) == 0 && rtnl_addr_alloc_cache(sock, &cache) == 0) {
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
	nl_socket_free(sock);
	return st;
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
	return walk([&](struct rtnl_addr *a) {
		return rtnl_addr_get_ifindex(a) == ifindex && rtnl_addr_get_family(a) == af;
	}, out);
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
	return walk([&](struct rtnl_addr *a) {
		struct nl_addr *local = rtnl_addr_get_local(a);
		return rtnl_addr_get_family(a) == af && nl_addr_get_len(local) == len &&
		    std::memcmp(nl_addr_get_binary_addr(local), want, len) == 0;
	}, out);
}

const char *fenu_status2str(int status)
{
	switch (status) {
	case FENU_SUCCESS: return "success";
	case FENU_FAILURE: return "IP interface operation failed";
	case FENU_NOTFOUND: return "address or interface not found";
	case FENU_NOMEM: return "out of memory";
	case FENU_BADARG: return "invalid address or interface";
	}
	return "unknown IP interface error";
}

}  // extern "C"
