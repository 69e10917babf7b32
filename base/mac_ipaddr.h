// Helpers over mac_ipaddr_t, the datalink layer's IP address (IPv4 kept IPv4-mapped).
#pragma once

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cstring>
#include <string>

#include <kel/libkel_node.h>

namespace kel::ipaddr {

// Parses an IPv4 or IPv6 address text (no prefix); false when it is neither.
inline bool parse(const char *text, mac_ipaddr_t *out)
{
	*out = mac_ipaddr_t{};
	unsigned char v4[4];
	if (inet_pton(AF_INET, text, v4) == 1) {
		out->ip_version = 4;
		out->ip_addr.s6_addr[10] = 0xff;
		out->ip_addr.s6_addr[11] = 0xff;
		std::memcpy(&out->ip_addr.s6_addr[12], v4, 4);
		return true;
	}
	if (inet_pton(AF_INET6, text, &out->ip_addr) == 1) {
		out->ip_version = 6;
		return true;
	}
	return false;
}

inline int family(const mac_ipaddr_t &a)
{
	return a.ip_version == 6 ? AF_INET6 : AF_INET;
}

// The address's own bytes (4 for IPv4, 16 for IPv6) and their count.
inline const unsigned char *bytes(const mac_ipaddr_t &a, size_t *len)
{
	*len = a.ip_version == 6 ? 16 : 4;
	return a.ip_version == 6 ? a.ip_addr.s6_addr : &a.ip_addr.s6_addr[12];
}

// Sets `a` from `len` raw bytes of family `af`.
inline void assign(mac_ipaddr_t *a, int af, const void *raw)
{
	*a = mac_ipaddr_t{};
	a->ip_version = af == AF_INET6 ? 6 : 4;
	if (af == AF_INET6) {
		std::memcpy(&a->ip_addr, raw, 16);
	} else {
		a->ip_addr.s6_addr[10] = 0xff;
		a->ip_addr.s6_addr[11] = 0xff;
		std::memcpy(&a->ip_addr.s6_addr[12], raw, 4);
	}
}

// True when set and not the unspecified address.
inline bool specified(const mac_ipaddr_t &a)
{
	if (a.ip_version != 4 && a.ip_version != 6)
		return false;
	size_t len;
	const unsigned char *b = bytes(a, &len);
	for (size_t i = 0; i < len; i++)
		if (b[i] != 0)
			return true;
	return false;
}

// The netmask of `plen` bits for the family of `version`.
inline mac_ipaddr_t mask(uint32_t version, uint32_t plen)
{
	unsigned char raw[16] = {};
	const uint32_t bits = version == 6 ? 128 : 32;
	for (uint32_t i = 0; i < plen && i < bits; i++)
		raw[i / 8] |= static_cast<unsigned char>(0x80u >> (i % 8));
	mac_ipaddr_t m;
	assign(&m, version == 6 ? AF_INET6 : AF_INET, raw);
	return m;
}

inline std::string text(const mac_ipaddr_t &a)
{
	char buf[INET6_ADDRSTRLEN] = "";
	size_t len;
	inet_ntop(family(a), bytes(a, &len), buf, sizeof(buf));
	return buf;
}

}  // namespace kel::ipaddr
