// IP interface administration: the addresses of interfaces, from the kernel's address
// list (rtnetlink), in the calling thread's network namespace.
#pragma once

#include <sys/socket.h>

#include <cstdint>

#include <kel/libkel_node.h>

extern "C" {

typedef int fenu_status_t;

#define FENU_SUCCESS  0
#define FENU_FAILURE  1
#define FENU_NOTFOUND 2
#define FENU_NOMEM    3
#define FENU_BADARG   4

// One address of one interface.
typedef struct fenu_addr {
	char fa_ifname[16];
	int fa_ifindex;
	sa_family_t fa_af;
	char fa_addr[46];
	uint32_t fa_prefixlen;
} fenu_addr_t;

// The first address of family `af` on interface `ifname`.
fenu_status_t fenu_interface_addr(const char *ifname, sa_family_t af, fenu_addr_t *out);
// The interface that holds the local address `addr` (text, without a prefix).
fenu_status_t fenu_local_addr(const char *addr, fenu_addr_t *out);
// A handle on the IP configuration; "current-profile", the running system, is the only
// profile (FENU_NOTFOUND for any other). The two integers are unused.
typedef struct fenu_handle *fenu_handle_t;
fenu_status_t fenu_open(fenu_handle_t *hp, const char *profile, int, int);
void fenu_close(fenu_handle_t h);
// Whether `ifname` is an IP interface: a link that holds an IP address.
boolean_t fenu_is_ip(fenu_handle_t h, const char *ifname);
// Finds a local address of `family` (AF_INET or AF_INET6): with `by_interface`, the
// first on link *linkid; else the first whose first `plen` bits are those of *addr (all
// of them: that very address). The address found replaces *addr; its netmask goes to
// *mask, its interface to *ifindex (each when given) and *linkid.
fenu_status_t fenu_get_addrinfo(mac_ipaddr_t *addr, mac_ipaddr_t *mask, uint32_t plen, int *ifindex,
    datalink_id_t *linkid, boolean_t by_interface, int family);
const char *fenu_status2str(int status) noexcept;
}
