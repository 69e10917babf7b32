// IP networks: add-ipnet, remove-ipnet, show-ipnet. A network is named with its switch
// as KEL/IPNET.
#include <cstdio>
#include <string>

#include "keladm.h"
#include "owners.h"

namespace keladm {
namespace {

// Field `field` of kIpnetFields for network `ip`.
std::string ipnet_field(const kel_ipnet_t *ip, size_t field)
{
	switch (field) {
	case 0: return ip->ei_name;
	case 1: return ip->ei_kelname;
	case 2: return ip->ei_tenantname;
	case 3: return ip->ei_subnet;
	case 4: return prop(ip->ei_props, "defrouter");
	case 5: return prop(ip->ei_props, "pool");
	default: return ip->ei_availrange;
	}
}

}  // namespace

int add_ipnet(const Subcommand &cmd, const Options &opts)
{
	Output out;
	if (opts.echo && !out.configure(cmd.fields, opts.fields, opts.format))
		return kExitUsage;
	Member m;
	if (!one_member(cmd, opts, kel_parse_kelipnetname, "IPNET", &m))
		return kExitUsage;
	const std::string &kel = m.kel, &name = m.name;
	if (opts.props.empty())
		return usage_error(cmd, "add-ipnet needs -p subnet=ADDRESS/PREFIX");
	kel::StoreHandle store;
	if (open_store(&store, true) != KEL_SUCCESS)
		return kExitFailed;
	kel_ipnet_t *made = nullptr;
	int rc = kel_db_add_ipnet(store.get(), opts.tenant.c_str(), kel.c_str(), name.c_str(), opts.props.c_str(),
	    &made, KEL_NAME_DASH_OK);
	kel::Owned<kel_ipnet_t, kel_free_ipnet> ip(made);
	kel::RecordList<kel_ipnet_t> there;
	if (rc == KEL_E_EXISTS && opts.may_exist && there.read([&](list_t *l) {
		    return kel_db_get_ipnetlist(store.get(), opts.tenant.c_str(), kel.c_str(), name.c_str(), l, 0);
	    }) == KEL_SUCCESS) {
		// The one there is what a script goes on with.
		if (opts.echo) {
			out.add_with([&](size_t f) { return ipnet_field(*there.begin(), f); });
			out.print();
		}
		return kExitOk;
	}
	if (rc != KEL_SUCCESS)
		return fail_here(store.get(), opts, "cannot add ipnet '" + kel + "/" + name + "'", rc, kel, "ipnet",
		    name);
	if (opts.echo) {
		out.add_with([&](size_t f) { return ipnet_field(ip.get(), f); });
		out.print();
	} else {
		std::printf("added ipnet %s/%s (%s, router %s, pool %s)\n", kel.c_str(), ip->ei_name, ip->ei_subnet,
		    prop(ip->ei_props, "defrouter").c_str(), prop(ip->ei_props, "pool").c_str());
	}
	return kExitOk;
}

int remove_ipnet(const Subcommand &cmd, const Options &opts)
{
	Member m;
	if (!one_member(cmd, opts, kel_parse_kelipnetname, "IPNET", &m))
		return kExitUsage;
	const std::string &kel = m.kel, &name = m.name;
	kel::StoreHandle store;
	if (open_store(&store, true) != KEL_SUCCESS)
		return kExitFailed;
	int rc = kel_db_remove_ipnet(store.get(), opts.tenant.c_str(), kel.c_str(), name.c_str(), 0);
	if (opts.if_exists && (rc == KEL_E_IPNET_NOTFOUND || rc == KEL_E_KEL_NOTFOUND))
		return kExitOk;
	if (rc != KEL_SUCCESS)
		return fail_here(store.get(), opts, "cannot remove ipnet '" + kel + "/" + name + "'", rc, kel, "ipnet",
		    name);
	return kExitOk;
}

int show_ipnet(const Subcommand &cmd, const Options &opts)
{
	Output out;
	if (!out.configure(cmd.fields, opts.fields, opts.format))
		return kExitUsage;
	char kel[KEL_NAME_LEN], name[KEL_NAME_LEN];
	if (!member_selection(cmd, opts, kel_parse_kelipnetname, "IPNET", kel, name))
		return kExitUsage;
	kel::StoreHandle store;
	if (open_store(&store, false) != KEL_SUCCESS)
		return kExitFailed;
	kel::RecordList<kel_ipnet_t> nets;
	const std::string tenant = listed_tenant(opts);
	int rc = nets.read(
	    [&](list_t *l) { return kel_db_get_ipnetlist(store.get(), tenant.c_str(), kel, name, l, 0); });
	if (rc == KEL_E_IPNET_NOTFOUND && opts.operands.empty()) {
		if (unknown_tenant(store.get(), opts))
			return kExitFailed;
		out.print();
		return kExitOk;
	}
	if (rc != KEL_SUCCESS)
		return fail_here(store.get(), opts, "cannot list ipnets", rc, kel, "ipnet", name);
	for (kel_ipnet_t *ip : nets)
		out.add_with([&](size_t f) { return ipnet_field(ip, f); });
	out.print();
	return kExitOk;
}

}  // namespace keladm
