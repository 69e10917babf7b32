// IP networks: add-ipnet, remove-ipnet, show-ipnet. A network is named with its switch
// as KEL/IPNET.
#include <cstdio>
#include <string>

#include "keladm.h"

namespace keladm {
namespace {

// Splits KEL/IPNET; false (after a usage message) when either part is missing or bad.
bool split(const Subcommand &cmd, const char *text, std::string *kel, std::string *ipnet)
{
	char k[KEL_NAME_LEN], n[KEL_NAME_LEN];
	if (!kel_parse_kelipnetname(text, k, n) || *k == '\0' || *n == '\0') {
		usage_error(cmd, std::string("'") + text + "' is not KEL/IPNET");
		return false;
	}
	*kel = k;
	*ipnet = n;
	return true;
}

}  // namespace

int add_ipnet(std::span<char *> args)
{
	const Subcommand &cmd = subcommand("add-ipnet");
	Options opts;
	if (!parse_options(cmd, args, kChange, &opts))
		return kExitUsage;
	std::string kel, name;
	if (opts.operands.size() != 1)
		return usage_error(cmd, "add-ipnet takes one KEL/IPNET");
	if (!split(cmd, opts.operands[0], &kel, &name))
		return kExitUsage;
	if (opts.props.empty())
		return usage_error(cmd, "add-ipnet needs -p subnet=ADDRESS/PREFIX");
	Store store;
	if (store.open(true) != KEL_SUCCESS)
		return kExitFailed;
	kel_ipnet_t *ip = nullptr;
	int rc = kel_db_add_ipnet(store.get(), opts.tenant.c_str(), kel.c_str(), name.c_str(),
	    opts.props.c_str(), &ip, KEL_NAME_DASH_OK);
	if (rc != KEL_SUCCESS)
		return fail("cannot add ipnet '" + kel + "/" + name + "'", rc);
	std::printf("added ipnet %s/%s (%s, router %s, pool %s)\n", kel.c_str(), ip->ei_name,
	    ip->ei_subnet, prop(ip->ei_props, "defrouter").c_str(), prop(ip->ei_props, "pool").c_str());
	kel_free_ipnet(ip);
	return kExitOk;
}

int remove_ipnet(std::span<char *> args)
{
	const Subcommand &cmd = subcommand("remove-ipnet");
	Options opts;
	if (!parse_options(cmd, args, kChange, &opts))
		return kExitUsage;
	std::string kel, name;
	if (opts.operands.size() != 1)
		return usage_error(cmd, "remove-ipnet takes one KEL/IPNET");
	if (!split(cmd, opts.operands[0], &kel, &name))
		return kExitUsage;
	Store store;
	if (store.open(true) != KEL_SUCCESS)
		return kExitFailed;
	int rc = kel_db_remove_ipnet(store.get(), opts.tenant.c_str(), kel.c_str(), name.c_str(), 0);
	if (rc != KEL_SUCCESS)
		return fail("cannot remove ipnet '" + kel + "/" + name + "'", rc);
	return kExitOk;
}

int show_ipnet(std::span<char *> args)
{
	const Subcommand &cmd = subcommand("show-ipnet");
	Options opts;
	if (!parse_options(cmd, args, kShow, &opts))
		return kExitUsage;
	if (opts.operands.size() > 1)
		return usage_error(cmd, "show-ipnet takes at most one KEL or KEL/IPNET");
	Output out;
	if (!out.configure({{"name"}, {"kel"}, {"tenant"}, {"subnet"}, {"defrouter"}, {"pool"},
	                       {"available"}},
	        opts.fields, opts.format))
		return kExitUsage;
	char kel[KEL_NAME_LEN] = "", name[KEL_NAME_LEN] = "";
	if (!opts.operands.empty()) {
		// "KEL" alone names the switch; "KEL/IPNET" one network.
		const std::string text = opts.operands[0];
		const bool compound = text.find('/') != std::string::npos;
		if (!kel_parse_kelipnetname(compound ? text.c_str() : (text + "/").c_str(), kel, name))
			return usage_error(cmd, "'" + text + "' is not KEL or KEL/IPNET");
	}
	Store store;
	if (store.open(false) != KEL_SUCCESS)
		return kExitFailed;
	list_t list;
	int rc = kel_db_get_ipnetlist(store.get(), opts.tenant.c_str(), kel, name, &list, 0);
	if (rc == KEL_E_IPNET_NOTFOUND && opts.operands.empty()) {
		out.print();
		return kExitOk;
	}
	if (rc != KEL_SUCCESS)
		return fail("cannot list ipnets", rc);
	for (auto *ip = static_cast<kel_ipnet_t *>(list_head(&list)); ip;
	     ip = static_cast<kel_ipnet_t *>(list_next(&list, ip)))
		out.add({ip->ei_name, ip->ei_kelname, ip->ei_tenantname, ip->ei_subnet,
		    prop(ip->ei_props, "defrouter"), prop(ip->ei_props, "pool"), ip->ei_availrange});
	kel_free_ipnetlist(&list);
	out.print();
	return kExitOk;
}

}  // namespace keladm
