// Operands that name a switch or a member of a switch (an ipnet, a vport) as KEL/NAME,
// and what to say when the one named is not in the tenant given.
#include <cstdio>
#include <set>

#include "keladm.h"
#include "owners.h"

namespace keladm {

bool one_member(const Subcommand &cmd, const Options &opts, MemberParser parse, const char *what, Member *out)
{
	if (opts.operands.size() != 1) {
		usage_error(cmd, std::string(cmd.name) + " takes one KEL/" + what);
		return false;
	}
	char k[KEL_NAME_LEN], n[KEL_NAME_LEN];
	if (!parse(opts.operands[0], k, n) || *k == '\0' || *n == '\0') {
		usage_error(cmd, std::string("'") + opts.operands[0] + "' is not KEL/" + what);
		return false;
	}
	out->kel = k;
	out->name = n;
	return true;
}

bool member_selection(const Subcommand &cmd, const Options &opts, MemberParser parse, const char *what,
    char (&kel)[KEL_NAME_LEN], char (&name)[KEL_NAME_LEN])
{
	kel[0] = name[0] = '\0';
	if (opts.operands.size() > 1) {
		usage_error(cmd, std::string(cmd.name) + " takes at most one KEL or KEL/" + what);
		return false;
	}
	if (opts.operands.empty())
		return true;
	// "KEL" alone names the switch; "KEL/NAME" one member.
	const std::string text = opts.operands[0];
	const bool compound = text.find('/') != std::string::npos;
	if (!parse(compound ? text.c_str() : (text + "/").c_str(), kel, name)) {
		usage_error(cmd, "'" + text + "' is not KEL or KEL/" + what);
		return false;
	}
	return true;
}

namespace {

// The tenants holding what `filter` selects: switches, or ports or networks (`member_key`).
std::set<std::string> tenants_of(kel_dbhandle_t h, const char *filter, const char *member_key)
{
	std::set<std::string> out;
	if (member_key == nullptr) {
		kel::RecordList<kel_t> kels;
		if (kels.read([&](list_t *l) {
			    return kel_db_get_filtered_kellist(h, filter, l, KEL_LIST_NO_MEMBERS);
		    }) == KEL_SUCCESS)
			for (kel_t *k : kels)
				out.insert(k->kel_tenantname);
	} else if (std::string(member_key) == "vport") {
		auto each = [](const kel_vport_t *vp, void *arg) {
			static_cast<std::set<std::string> *>(arg)->insert(vp->evp_tenantname);
			return 0;
		};
		(void)kel_db_walk_vports(h, filter, KEL_WALK_NO_PROPS, each, &out);
	} else {
		kel::RecordList<kel_ipnet_t> nets;
		if (nets.read([&](list_t *l) { return kel_db_get_filtered_ipnetlist(h, filter, l, 0); }) == KEL_SUCCESS)
			for (kel_ipnet_t *n : nets)
				out.insert(n->ei_tenantname);
	}
	return out;
}

}  // namespace

int fail_here(kel_dbhandle_t h, const Options &opts, const std::string &what, int code, const std::string &kel,
    const char *member_key, const std::string &member)
{
	fail(what, code);
	const int reason = KEL_ERR_REASON(code);
	if ((reason == KEL_E_KEL_NOTFOUND || reason == KEL_E_VPORT_NOTFOUND || reason == KEL_E_IPNET_NOTFOUND) &&
	    unknown_tenant(h, opts))
		return kExitFailed;
	say_in_the_way(h, opts, code, kel, member_key, member);
	if (opts.all_tenants || kel.empty() ||
	    (reason != KEL_E_KEL_NOTFOUND && reason != KEL_E_VPORT_NOTFOUND && reason != KEL_E_IPNET_NOTFOUND))
		return kExitFailed;
	// A missing switch is looked for alone; a missing member with its switch.
	if (reason == KEL_E_KEL_NOTFOUND || member.empty())
		member_key = nullptr;
	char filter[KEL_FILTER_LEN];
	if (kel_create_attrstr(filter, sizeof(filter), nullptr, 2, "kel", kel.c_str(), member_key ? member_key : "",
	        member_key ? member.c_str() : "") != KEL_SUCCESS)
		return kExitFailed;
	std::set<std::string> tenants = tenants_of(h, filter, member_key);
	tenants.erase(opts.tenant);
	if (tenants.empty())
		return kExitFailed;
	std::string list;
	for (const std::string &t : tenants)
		list += (list.empty() ? "" : ", ") + t;
	const std::string object = member_key ? std::string(member_key) + " '" + kel + "/" + member + "'"
	                                      : "kel '" + kel + "'";
	std::fprintf(stderr, "keladm: %s is in tenant%s %s: give -T %s\n", object.c_str(),
	    tenants.size() > 1 ? "s" : "", list.c_str(), tenants.size() > 1 ? "TENANT" : tenants.begin()->c_str());
	return kExitFailed;
}

}  // namespace keladm
