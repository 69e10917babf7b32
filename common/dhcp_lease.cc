// What a host's address responder hands a guest, taken from the binding the controller
// returned, and the name of the responder's own link on a kel.
#include <arpa/inet.h>
#include <strings.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fabric_links.h"
#include "libkel.h"
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
	// An IPv6 network is not served: its guests configure themselves.
	if (slash == std::string::npos || !parse_ip(text.substr(0, slash), &lease.addr))
		return "";
	lease.plen = std::atoi(text.c_str() + slash + 1);
	const kelcntl_IPnetInfo *net = k->ekeli_ipnets[0];
	struct in_addr router;
	if (const char *r = kel_propattrset_lookup(net->eipi_props, net->eipi_props_count, "defrouter");
	    r != nullptr && parse_ip(r, &router) && router.s_addr != INADDR_ANY)
		lease.router = router;
	// "dhcp:dns" lists the name servers, by commas or spaces; what is not an IPv4 address
	// is left out.
	if (const char *dns = kel_prop(k, "dhcp:dns")) {
		const std::string list = dns;
		for (size_t start = 0; start < list.size() && lease.dns.size() < 8;) {
			size_t end = list.find_first_of(", ", start);
			if (end == std::string::npos)
				end = list.size();
			struct in_addr a;
			if (parse_ip(list.substr(start, end - start), &a))
				lease.dns.push_back(a);
			start = end + 1;
		}
	}
	return wexo::fabric::lease_text(lease);
}
