// What a host's address responder hands a guest, taken from the binding the controller
// returned, and the name of the responder's own link on a kel.
#include <arpa/inet.h>
#include <strings.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <kel/libkel.h>
#include "fabric_links.h"
#include "vnic.h"

namespace {

const char *kel_prop(const kelcntl_KELInfo *k, const char *name)
{
	return kel_propattrset_lookup(k->ekeli_props, k->ekeli_props_count, name);
}

bool parse_ip(const std::string &text, struct in_addr *out)
{
	return inet_pton(AF_INET, text.c_str(), out) == 1;
}

bool parse_ip6(const std::string &text, struct in6_addr *out)
{
	return inet_pton(AF_INET6, text.c_str(), out) == 1;
}

}  // namespace

std::string kel_dhcp_endpoint(const char *keluuid)
{
	// FNV-1a: stable across hosts and releases, which the name must be for a host to find
	// its own link again after a restart of keld.
	uint32_t hash = 2166136261u;
	for (const char *c = keluuid; *c != '\0'; c++)
		hash = (hash ^ static_cast<unsigned char>(*c)) * 16777619u;
	char name[16];
	std::snprintf(name, sizeof(name), "%s%07x", kDhcpEndpointPrefix, hash & 0xfffffffu);
	return name;
}

std::string kel_lease_text(const kelcntl_KELImplInfo *implinfo, bool endpoint)
{
	const kelcntl_KELInfo *k = implinfo->ekelii_kelinfo;
	if (k == nullptr || k->ekeli_uuid == nullptr || k->ekeli_vports_count < 1 || k->ekeli_ipnets_count < 1 ||
	    k->ekeli_ipnets[0] == nullptr)
		return "";
	if (const char *mode = kel_prop(k, "dhcp:server"); mode != nullptr && strcasecmp(mode, "off") == 0)
		return "";
	const kelcntl_VPortInfo *vp = k->ekeli_vports[0];
	const char *ip = kel_propattrset_lookup(vp->evpi_props, vp->evpi_props_count, "ipaddr");
	if (ip == nullptr)
		return "";
	wexo::fabric::Lease lease;
	lease.kel = k->ekeli_uuid;
	lease.endpoint = endpoint;
	const std::string text = ip;
	const size_t slash = text.find('/');
	if (slash == std::string::npos)
		return "";
	if (parse_ip6(text.substr(0, slash), &lease.addr6))
		lease.family = AF_INET6;
	else if (!parse_ip(text.substr(0, slash), &lease.addr))
		return "";
	lease.plen = std::atoi(text.c_str() + slash + 1);
	const kelcntl_IPnetInfo *net = k->ekeli_ipnets[0];
	const char *r = kel_propattrset_lookup(net->eipi_props, net->eipi_props_count, "defrouter");
	struct in_addr router;
	// An IPv6 router is not handed out (DHCPv6 has no such option): guests learn it from
	// the router's own advertisements.
	if (lease.family == AF_INET && r != nullptr && parse_ip(r, &router) && router.s_addr != INADDR_ANY)
		lease.router = router;
	// "dhcp:dns" lists the name servers of either family, by commas or spaces; what is
	// not an address is left out.
	if (const char *dns = kel_prop(k, "dhcp:dns")) {
		const std::string list = dns;
		for (size_t start = 0; start < list.size() && lease.dns.size() + lease.dns6.size() < 8;) {
			size_t end = list.find_first_of(", ", start);
			if (end == std::string::npos)
				end = list.size();
			struct in_addr a;
			struct in6_addr a6;
			if (parse_ip(list.substr(start, end - start), &a))
				lease.dns.push_back(a);
			else if (parse_ip6(list.substr(start, end - start), &a6))
				lease.dns6.push_back(a6);
			start = end + 1;
		}
	}
	return wexo::fabric::lease_text(lease);
}
