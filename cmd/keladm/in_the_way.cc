// After a refusal: what is in the way, named with its tenant, so that the operator need
// not hunt for it. The object that holds a name, an address, a MAC address or a network;
// the ports that keep a network; a kel without a network; a tenant nobody uses.
#include <arpa/inet.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "keladm.h"
#include "owners.h"

namespace keladm {
namespace {

// The value of setting `name` in "name=value,..." text, or "".
std::string setting_value(const std::string &settings, const std::string &name)
{
	for (const std::string &s : split_settings(settings))
		if (s.compare(0, name.size() + 1, name + "=") == 0)
			return s.substr(name.size() + 1);
	return "";
}

// An IP network's first and last address, from "ADDRESS/PREFIX" (host bits cleared).
struct Span {
	int af = AF_UNSPEC;
	unsigned char first[16] = {}, last[16] = {};
	size_t len = 0;
	unsigned prefix = 0;

	bool parse(const std::string &text)
	{
		const size_t slash = text.find('/');
		if (slash == std::string::npos || slash + 1 >= text.size() || text.size() - slash > 4)
			return false;
		const std::string addr = text.substr(0, slash), bits = text.substr(slash + 1);
		if (bits.find_first_not_of("0123456789") != std::string::npos)
			return false;
		af = addr.find(':') == std::string::npos ? AF_INET : AF_INET6;
		len = af == AF_INET ? 4 : 16;
		prefix = static_cast<unsigned>(std::stoul(bits));
		if (prefix > len * 8 || inet_pton(af, addr.c_str(), first) != 1)
			return false;
		for (size_t i = 0; i < len; i++) {
			const unsigned keep = prefix >= (i + 1) * 8 ? 8 : prefix > i * 8 ? prefix - i * 8 : 0;
			const unsigned char mask = static_cast<unsigned char>(0xff00u >> keep);
			first[i] = static_cast<unsigned char>(first[i] & mask);
			last[i] = static_cast<unsigned char>(first[i] | ~mask);
		}
		return true;
	}
	bool overlaps(const Span &o) const
	{
		return af == o.af && std::memcmp(first, o.last, len) <= 0 && std::memcmp(o.first, last, len) <= 0;
	}
	std::string network() const
	{
		char text[INET6_ADDRSTRLEN];
		return inet_ntop(af, first, text, sizeof(text)) ? text + ("/" + std::to_string(prefix)) : "";
	}
};

// A MAC address's six bytes, however its hexadecimal is written.
bool mac_bytes(const std::string &text, unsigned (&b)[6])
{
	char tail;
	return std::sscanf(text.c_str(), "%x:%x:%x:%x:%x:%x%c", &b[0], &b[1], &b[2], &b[3], &b[4], &b[5], &tail) == 6;
}

// Calls fn(port) for each port `filter` selects, with its properties.
template <class Fn>
void each_vport(kel_dbhandle_t h, const char *filter, Fn &&fn)
{
	auto call = [](const kel_vport_t *vp, void *arg) {
		(*static_cast<Fn *>(arg))(vp);
		return 0;
	};
	(void)kel_db_walk_vports(h, filter, 0, call, &fn);
}

std::string vport_name(const kel_vport_t *vp)
{
	return std::string("vport ") + vp->evp_kelname + "/" + vp->evp_name + " (tenant " + vp->evp_tenantname + ")";
}

void say_mac_holder(kel_dbhandle_t h, const std::string &mac)
{
	unsigned want[6];
	if (!mac_bytes(mac, want))
		return;
	each_vport(h, "", [&](const kel_vport_t *vp) {
		unsigned have[6];
		if (mac_bytes(prop(vp->evp_props, "macaddr"), have) && std::memcmp(have, want, sizeof(want)) == 0)
			std::fprintf(stderr, "keladm: MAC address %s is in use by %s\n", mac.c_str(),
			    vport_name(vp).c_str());
	});
}

void say_address_holder(kel_dbhandle_t h, const Options &opts, const std::string &kel, const std::string &addr)
{
	char filter[KEL_FILTER_LEN];
	if (kel_create_attrstr(filter, sizeof(filter), nullptr, 2, "tenant", opts.tenant.c_str(), "kel", kel.c_str()) !=
	    KEL_SUCCESS)
		return;
	bool held = false;
	each_vport(h, filter, [&](const kel_vport_t *vp) {
		const std::string ip = prop(vp->evp_props, "ipaddr");
		if (!held && ip.substr(0, ip.find('/')) == addr) {
			held = true;
			std::fprintf(stderr, "keladm: address %s is in use by %s\n", addr.c_str(),
			    vport_name(vp).c_str());
		}
	});
	if (!held)
		std::fprintf(stderr, "keladm: address %s is the router of kel '%s'\n", addr.c_str(), kel.c_str());
}

void say_overlapping(kel_dbhandle_t h, const std::string &subnet)
{
	Span given;
	if (!given.parse(subnet))
		return;
	kel::RecordList<kel_ipnet_t> nets;
	if (nets.read([&](list_t *l) { return kel_db_get_filtered_ipnetlist(h, "", l, 0); }) != KEL_SUCCESS)
		return;
	for (kel_ipnet_t *n : nets) {
		Span there;
		if (there.parse(n->ei_subnet) && there.overlaps(given))
			std::fprintf(stderr, "keladm: %s overlaps ipnet %s/%s (%s, tenant %s)\n", subnet.c_str(),
			    n->ei_kelname, n->ei_name, n->ei_subnet, n->ei_tenantname);
	}
}

// The ipnet of `kel`, for "more than one ipnet", and the ports that keep it, for "in use".
void say_kel_members(kel_dbhandle_t h, const Options &opts, const std::string &kel, int reason)
{
	if (reason == KEL_E_ONE_IPNET) {
		kel::RecordList<kel_ipnet_t> nets;
		if (nets.read([&](list_t *l) {
			    return kel_db_get_ipnetlist(h, opts.tenant.c_str(), kel.c_str(), "", l, 0);
		    }) == KEL_SUCCESS)
			std::fprintf(stderr, "keladm: kel '%s' has ipnet %s/%s (%s)\n", kel.c_str(), kel.c_str(),
			    nets.front()->ei_name, nets.front()->ei_subnet);
		return;
	}
	char filter[KEL_FILTER_LEN];
	if (kel_create_attrstr(filter, sizeof(filter), nullptr, 2, "tenant", opts.tenant.c_str(), "kel", kel.c_str()) !=
	    KEL_SUCCESS)
		return;
	std::string names;
	size_t count = 0;
	each_vport(h, filter, [&](const kel_vport_t *vp) {
		if (count++ < 10)
			names += (names.empty() ? "" : ", ") + std::string(vp->evp_name);
	});
	if (count > 10)
		names += ", and " + std::to_string(count - 10) + " more";
	if (count > 0)
		std::fprintf(stderr, "keladm: kel '%s' still has vports: %s (keladm remove-vport %s/NAME)\n",
		    kel.c_str(), names.c_str(), kel.c_str());
}

void say_existing(kel_dbhandle_t h, const Options &opts, const std::string &kel, const char *member_key,
    const std::string &member)
{
	const char *tenant = opts.tenant.c_str();
	if (member_key != nullptr && std::strcmp(member_key, "ipnet") == 0)
		return say_kel_members(h, opts, kel, KEL_E_ONE_IPNET);
	if (member_key == nullptr) {
		kel::RecordList<kel_t> kels;
		if (kels.read([&](list_t *l) {
			    return kel_db_get_kellist(h, tenant, kel.c_str(), l, KEL_LIST_NO_MEMBERS);
		    }) == KEL_SUCCESS) {
			attrset_t *props = kels.front()->kel_props;
			const std::string type = prop(props, "l2-type");
			const std::string id = type == "flat" ? ""
			                                      : " " + prop(props, type == "vxlan" ? "vni" : "vlanid");
			std::fprintf(stderr, "keladm: tenant %s has kel '%s' already (%s%s)\n", tenant, kel.c_str(),
			    type.c_str(), id.c_str());
		}
		return;
	}
	char filter[KEL_FILTER_LEN];
	if (kel_create_attrstr(filter, sizeof(filter), nullptr, 3, "tenant", tenant, "kel", kel.c_str(), "vport",
	        member.c_str()) != KEL_SUCCESS)
		return;
	each_vport(h, filter, [&](const kel_vport_t *vp) {
		std::fprintf(stderr, "keladm: %s is there already (%s, %s)\n", vport_name(vp).c_str(),
		    prop(vp->evp_props, "ipaddr").c_str(), prop(vp->evp_props, "macaddr").c_str());
	});
}

}  // namespace

bool unknown_tenant(kel_dbhandle_t h, const Options &opts)
{
	if (opts.all_tenants || opts.tenant == KEL_DEFAULT_TENANT)
		return false;
	char filter[KEL_FILTER_LEN];
	if (kel_create_attrstr(filter, sizeof(filter), nullptr, 1, "tenant", opts.tenant.c_str()) != KEL_SUCCESS)
		return false;
	kel::RecordList<kel_t> kels;
	if (kels.read([&](list_t *l) { return kel_db_get_filtered_kellist(h, filter, l, KEL_LIST_NO_MEMBERS); }) !=
	    KEL_E_KEL_NOTFOUND)
		return false;
	std::fprintf(stderr,
	    "keladm: there is no tenant '%s': no kel is in it (keladm show-kel -T all -o name,tenant)\n",
	    opts.tenant.c_str());
	return true;
}

void say_in_the_way(kel_dbhandle_t h, const Options &opts, int code, const std::string &kel, const char *member_key,
    const std::string &member)
{
	switch (KEL_ERR_REASON(code)) {
	case KEL_E_EXISTS: say_existing(h, opts, kel, member_key, member); break;
	case KEL_E_MACADDR_INUSE: say_mac_holder(h, setting_value(opts.props, "macaddr")); break;
	case KEL_E_IPADDR_INUSE: say_address_holder(h, opts, kel, setting_value(opts.props, "ipaddr")); break;
	case KEL_E_IPNET_OVERLAP: say_overlapping(h, setting_value(opts.props, "subnet")); break;
	case KEL_E_ONE_IPNET:
	case KEL_E_IPNET_INUSE: say_kel_members(h, opts, kel, KEL_ERR_REASON(code)); break;
	case KEL_E_INVALID_SUBNET: {
		const std::string subnet = setting_value(opts.props, "subnet");
		Span span;
		if (span.parse(subnet) && span.network() != subnet)
			std::fprintf(stderr, "keladm: %s has host bits set: its network is %s\n", subnet.c_str(),
			    span.network().c_str());
		break;
	}
	case KEL_E_IPNET_NOTFOUND:
		// A port draws its address from its kel's network: without one there is none.
		if (member_key != nullptr && std::strcmp(member_key, "vport") == 0)
			std::fprintf(stderr,
			    "keladm: kel '%s' has no ipnet to give the port an address: add one first "
			    "(keladm add-ipnet -p subnet=ADDRESS/PREFIX %s/NAME)\n",
			    kel.c_str(), kel.c_str());
		break;
	case KEL_E_INVALID_PROP: say_unknown_props(opts, opts.props); break;
	default: break;
	}
}

}  // namespace keladm
