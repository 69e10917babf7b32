// IP interface administration: the addresses of interfaces, from the kernel's address
// list (rtnetlink), in the calling thread's network namespace.
#pragma once

#include <sys/socket.h>

#include <cstdint>

extern "C" {

typedef int fenu_status_t;

#define FENU_SUCCESS	0
#define FENU_FAILURE	1
#define FENU_NOTFOUND	2
#define FENU_NOMEM	3
#define FENU_BADARG	4

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
const char *fenu_status2str(int status);

}
