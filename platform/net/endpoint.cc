#include <arpa/inet.h>
#include <netinet/in.h>

#include "kelnet.h"

bool unicast_endpoint(const char *text, int *family)
{
	struct in6_addr a6;
	struct in_addr a4;
	if (text == nullptr)
		return false;
	if (inet_pton(AF_INET, text, &a4) == 1) {
		const uint32_t a = ntohl(a4.s_addr);
		// "This network" (0/8, the unspecified address among it), loopback, multicast and
		// the broadcast address.
		if ((a >> 24) == 0 || (a >> 24) == IN_LOOPBACKNET || IN_MULTICAST(a) || a == INADDR_BROADCAST)
			return false;
		if (family != nullptr)
			*family = AF_INET;
		return true;
	}
	if (inet_pton(AF_INET6, text, &a6) == 1) {
		// An IPv4 address written as IPv6 is no IPv6 endpoint.
		if (IN6_IS_ADDR_UNSPECIFIED(&a6) || IN6_IS_ADDR_LOOPBACK(&a6) || IN6_IS_ADDR_MULTICAST(&a6) ||
		    IN6_IS_ADDR_V4MAPPED(&a6))
			return false;
		if (family != nullptr)
			*family = AF_INET6;
		return true;
	}
	return false;
}
