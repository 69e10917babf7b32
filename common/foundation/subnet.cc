#include "subnet.h"
#include "text.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdio>
#include <cstring>

namespace {

constexpr size_t kSubnetTextLen = 50;

// The mask of the first `prefix` bits of an IPv6 address, octet by octet.
void v6_mask(uint32_t prefix, uint8_t (&mask)[16])
{
	for (int i = 0; i < 16; i++) {
		const int bits = static_cast<int>(prefix) - 8 * i;
		mask[i] = bits >= 8 ? 0xff : bits <= 0 ? 0 : static_cast<uint8_t>(0xff << (8 - bits));
	}
}

uint32_t v4_netmask(uint32_t prefix)
{
	return prefix == 0 ? 0 : ~uint32_t{0} << (32 - prefix);
}

void set_v4(struct sockaddr_storage &ss, uint32_t host_order)
{
	std::memset(&ss, 0, sizeof(ss));
	auto *sin = reinterpret_cast<struct sockaddr_in *>(&ss);
	sin->sin_family = AF_INET;
	sin->sin_addr.s_addr = htonl(host_order);
}

void set_v6(struct sockaddr_storage &ss, const uint8_t (&addr)[16])
{
	std::memset(&ss, 0, sizeof(ss));
	auto *sin6 = reinterpret_cast<struct sockaddr_in6 *>(&ss);
	sin6->sin6_family = AF_INET6;
	std::memcpy(&sin6->sin6_addr, addr, 16);
}

// The prefix length: one to three decimal digits and nothing else. Stricter than a bare
// atoi, which would read "0.0.0.0/x" as a /0 network.
bool parse_prefix(const char *text, uint32_t *prefix)
{
	size_t n = std::strlen(text);
	if (n == 0 || n > 3)
		return false;
	uint32_t value = 0;
	for (size_t i = 0; i < n; i++) {
		if (text[i] < '0' || text[i] > '9')
			return false;
		value = value * 10 + static_cast<uint32_t>(text[i] - '0');
	}
	*prefix = value;
	return true;
}

bool parse_v4(const char *addrtext, uint32_t prefix, kel_ipnet_t *ipnet)
{
	struct in_addr in;
	if (inet_pton(AF_INET, addrtext, &in) != 1 || prefix > 30)
		return false;
	const uint32_t network = ntohl(in.s_addr);
	const uint32_t hostmask = ~v4_netmask(prefix);
	if ((network & hostmask) != 0)
		return false;
	ipnet->ei_af = AF_INET;
	set_v4(ipnet->ei_ca, network);
	set_v4(ipnet->ei_sa, network + 1);
	set_v4(ipnet->ei_ea, (network | hostmask) - 1);
	return true;
}

bool parse_v6(const char *addrtext, uint32_t prefix, kel_ipnet_t *ipnet)
{
	uint8_t network[16];
	if (inet_pton(AF_INET6, addrtext, network) != 1 || prefix > 126)
		return false;
	uint8_t mask[16];
	v6_mask(prefix, mask);
	uint8_t first[16], last[16];
	for (int i = 0; i < 16; i++) {
		if ((network[i] & ~mask[i]) != 0)
			return false;
		first[i] = network[i];
		last[i] = network[i] | static_cast<uint8_t>(~mask[i]);
	}
	first[15]++;  // the last octet's host bits are clear: at least two host bits remain
	ipnet->ei_af = AF_INET6;
	set_v6(ipnet->ei_ca, network);
	set_v6(ipnet->ei_sa, first);
	set_v6(ipnet->ei_ea, last);
	return true;
}

const void *address_of(const struct sockaddr_storage &ss)
{
	if (ss.ss_family == AF_INET)
		return &reinterpret_cast<const struct sockaddr_in *>(&ss)->sin_addr;
	return &reinterpret_cast<const struct sockaddr_in6 *>(&ss)->sin6_addr;
}

}  // namespace

int kel_parse_ipnet(const char *subnet, kel_ipnet_t *ipnet)
{
	if (subnet == nullptr || ipnet == nullptr)
		return KEL_E_INVALID_IPNET;
	char copy[kSubnetTextLen];
	kel::copy_text(copy, subnet, sizeof(copy));
	char *slash = std::strchr(copy, '/');
	uint32_t prefix;
	if (slash == nullptr)
		return KEL_E_INVALID_IPNET;
	*slash = '\0';
	if (!parse_prefix(slash + 1, &prefix))
		return KEL_E_INVALID_IPNET;
	if (!parse_v4(copy, prefix, ipnet) && !parse_v6(copy, prefix, ipnet))
		return KEL_E_INVALID_IPNET;

	char network[INET6_ADDRSTRLEN];
	const int af = ipnet->ei_af;
	if (inet_ntop(af, address_of(ipnet->ei_ca), network, sizeof(network)) == nullptr ||
	    inet_ntop(af, address_of(ipnet->ei_sa), ipnet->ei_sastr, sizeof(ipnet->ei_sastr)) == nullptr ||
	    inet_ntop(af, address_of(ipnet->ei_ea), ipnet->ei_eastr, sizeof(ipnet->ei_eastr)) == nullptr)
		return KEL_E_INVALID_IPNET;
	std::snprintf(ipnet->ei_subnet, sizeof(ipnet->ei_subnet), "%s/%u", network, prefix);
	ipnet->ei_prefixlen = prefix;
	return KEL_SUCCESS;
}

boolean_t kel_ipnet_contains_ip(const kel_ipnet_t *ipnet, const char *addr)
{
	if (ipnet == nullptr || addr == nullptr)
		return B_FALSE;
	if (ipnet->ei_af == AF_INET) {
		struct in_addr in;
		if (inet_pton(AF_INET, addr, &in) != 1)
			return B_FALSE;
		const uint32_t mask = v4_netmask(ipnet->ei_prefixlen);
		const auto *net = static_cast<const struct in_addr *>(address_of(ipnet->ei_ca));
		return (ntohl(in.s_addr) & mask) == (ntohl(net->s_addr) & mask) ? B_TRUE : B_FALSE;
	}
	uint8_t a[16], mask[16];
	if (ipnet->ei_af != AF_INET6 || inet_pton(AF_INET6, addr, a) != 1)
		return B_FALSE;
	v6_mask(ipnet->ei_prefixlen, mask);
	const auto *net = static_cast<const uint8_t *>(address_of(ipnet->ei_ca));
	for (int i = 0; i < 16; i++)
		if ((a[i] & mask[i]) != (net[i] & mask[i]))
			return B_FALSE;
	return B_TRUE;
}
