// Object properties: set-kelprop, set-vportprop, set-ipnetprop and their show-* forms.
// Ports and networks are named with their switch as KEL/NAME.
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "keladm.h"
#include "owners.h"

namespace keladm {
namespace {

// What differs between switches, ports and networks.
struct Kind {
	const char *noun;    // "kel", "vport", "ipnet": the first column and messages
	const char *member;  // "VPORT", "IPNET"; NULL for switches
	kel_proptype_t type;
	MemberParser parse;
};

constexpr Kind kKel = {"kel", nullptr, KEL_PROPTYPE_KEL, nullptr};
constexpr Kind kVport = {"vport", "VPORT", KEL_PROPTYPE_VPORT, kel_parse_kelvportname};
constexpr Kind kIpnet = {"ipnet", "IPNET", KEL_PROPTYPE_IPNET, kel_parse_kelipnetname};

// Sets one property ("name=value") of the object `m` names.
int set_one(kel_dbhandle_t h, const Options &opts, const Kind &kind, const Member &m, const std::string &setting)
{
	const char *tenant = opts.tenant.c_str(), *prop = setting.c_str();
	const int rc = kind.type == KEL_PROPTYPE_KEL ? kel_set_kelprop(h, tenant, m.kel.c_str(), prop, 0)
	    : kind.type == KEL_PROPTYPE_VPORT ? kel_set_vportprop(h, tenant, m.kel.c_str(), m.name.c_str(), prop, 0)
	                                      : kel_set_ipnetprop(h, tenant, m.kel.c_str(), m.name.c_str(), prop, 0);
	const std::string object = m.kel + (m.name.empty() ? "" : "/" + m.name);
	if (rc == KEL_E_PROP_PARTIAL || (KEL_ERR_REASON(rc) == KEL_E_HOST_CONNECT && kind.type == KEL_PROPTYPE_VPORT)) {
		fail(rc == KEL_E_PROP_PARTIAL
		        ? "set '" + setting + "' on kel '" + object + "' (stored; some hosts missed it)"
		        : "cannot set '" + setting + "' on vport '" + object + "'",
		    rc);
		say_silent_hosts(h, opts, m.kel, m.name, "set the property again");
		return kExitFailed;
	}
	if (rc == KEL_E_RANGE_INUSE && kind.type == KEL_PROPTYPE_IPNET && setting.rfind("pool=", 0) == 0) {
		fail("cannot set '" + setting + "' on ipnet '" + object + "'", rc);
		say_outside_pool(h, opts, m.kel, setting.substr(5));
		return kExitFailed;
	}
	if (rc != KEL_SUCCESS) {
		return fail_here(h, opts, "cannot set '" + setting + "' on " + kind.noun + " '" + object + "'", rc,
		    m.kel, kind.member ? kind.noun : nullptr, m.name);
	}
	return kExitOk;
}

int set_prop(const Subcommand &cmd, const Options &opts, const Kind &kind)
{
	if (opts.props.empty())
		return usage_error(cmd, std::string(cmd.name) + " needs -p name=value");
	Member m;
	if (kind.member == nullptr) {
		if (opts.operands.size() != 1)
			return usage_error(cmd, std::string(cmd.name) + " takes one KEL");
		m.kel = opts.operands[0];
	} else if (!one_member(cmd, opts, kind.parse, kind.member, &m)) {
		return kExitUsage;
	}
	kel::StoreHandle store;
	if (open_store(&store, true) != KEL_SUCCESS)
		return kExitFailed;
	// The library changes one property a call, each live on the hosts: several are set
	// in the order given, and the first refused stops the rest (those before it stay set,
	// and the operator is told which).
	const std::vector<std::string> settings = split_settings(opts.props);
	for (size_t i = 0; i < settings.size(); i++)
		if (set_one(store.get(), opts, kind, m, settings[i]) != kExitOk) {
			std::string done, left;
			for (size_t j = 0; j < settings.size(); j++) {
				std::string &list = j < i ? done : left;
				if (j != i)
					list += (list.empty() ? "" : ", ") + settings[j];
			}
			if (!done.empty() || !left.empty())
				std::fprintf(stderr, "keladm: %s%s%s%s%s\n",
				    done.empty() ? "" : "set before it: ", done.c_str(),
				    !done.empty() && !left.empty() ? "; " : "",
				    left.empty() ? "" : "not tried: ", left.c_str());
			return kExitFailed;
		}
	return kExitOk;
}

// An object a property listing reports on: its name as the first column shows it, and
// its tenant.
struct Object {
	std::string name, tenant;
};

// The selected objects in the order the listing reports them.
int objects_of(kel_dbhandle_t h, const char *filter, const Kind &kind, std::vector<Object> *out)
{
	if (kind.type == KEL_PROPTYPE_KEL) {
		kel::RecordList<kel_t> kels;
		if (int rc = kels.read(
		        [&](list_t *l) { return kel_db_get_filtered_kellist(h, filter, l, KEL_LIST_NO_MEMBERS); });
		    rc != KEL_SUCCESS)
			return rc;
		for (kel_t *k : kels)
			out->push_back({k->kel_name, k->kel_tenantname});
	} else if (kind.type == KEL_PROPTYPE_VPORT) {
		kel::RecordList<kel_vport_t> ports;
		if (int rc = ports.read([&](list_t *l) { return kel_db_get_filtered_vportlist(h, filter, l, 0); });
		    rc != KEL_SUCCESS)
			return rc;
		for (kel_vport_t *v : ports)
			out->push_back({std::string(v->evp_kelname) + "/" + v->evp_name, v->evp_tenantname});
	} else {
		kel::RecordList<kel_ipnet_t> nets;
		if (int rc = nets.read([&](list_t *l) { return kel_db_get_filtered_ipnetlist(h, filter, l, 0); });
		    rc != KEL_SUCCESS)
			return rc;
		for (kel_ipnet_t *n : nets)
			out->push_back({std::string(n->ei_kelname) + "/" + n->ei_name, n->ei_tenantname});
	}
	return KEL_SUCCESS;
}

int show_prop(const Subcommand &cmd, const Options &opts, const Kind &kind)
{
	Output out;
	if (!out.configure(cmd.fields, opts.fields, opts.format, opts.all_tenants ? "tenant" : nullptr))
		return kExitUsage;
	char kel[KEL_NAME_LEN] = "", member[KEL_NAME_LEN] = "";
	if (kind.member == nullptr) {
		if (opts.operands.size() > 1)
			return usage_error(cmd, std::string(cmd.name) + " takes at most one KEL");
		if (!opts.operands.empty() && !kel_valid_name(opts.operands[0]))
			return usage_error(cmd, std::string("'") + opts.operands[0] + "' is not a kel name");
		if (!opts.operands.empty())
			std::snprintf(kel, sizeof(kel), "%s", opts.operands[0]);
	} else if (!member_selection(cmd, opts, kind.parse, kind.member, kel, member)) {
		return kExitUsage;
	}
	char filter[KEL_FILTER_LEN];
	// Pairs with an empty value are left out: no KEL or member selects more.
	int rc = kel_create_attrstr(filter, sizeof(filter), nullptr, 3, "tenant", listed_tenant(opts).c_str(), "kel",
	    kel, kind.noun, member);
	const std::string what = std::string("cannot list ") + kind.noun + " properties";
	if (rc != KEL_SUCCESS)
		return fail(what, rc);
	kel::StoreHandle store;
	if (open_store(&store, false) != KEL_SUCCESS)
		return kExitFailed;
	std::vector<Object> objects;
	if ((rc = objects_of(store.get(), filter, kind, &objects)) != KEL_SUCCESS) {
		// Nothing to show is an empty table unless an object was named.
		if (opts.operands.empty() &&
		    (rc == KEL_E_KEL_NOTFOUND || rc == KEL_E_VPORT_NOTFOUND || rc == KEL_E_IPNET_NOTFOUND)) {
			out.print();
			return kExitOk;
		}
		return fail_here(store.get(), opts, what, rc, kel, kind.member ? kind.noun : nullptr, member);
	}
	kel::RecordList<kel_prop_t> props;
	const char *names = opts.names.empty() ? nullptr : opts.names.c_str();
	if ((rc = props.read([&](list_t *l) {
		    return kel_db_get_filtered_proplist(store.get(), filter, names, l, kind.type);
	    })) != KEL_SUCCESS)
		return fail(what, rc);
	// Every object has the same number of records, in the objects' order.
	const size_t per_object = std::max<size_t>(1,
	    kel_list_count(props.get()) / std::max<size_t>(1, objects.size()));
	size_t i = 0;
	for (kel_prop_t *p : props) {
		const Object &o = objects[i / per_object];
		out.add({o.name, o.tenant, p->ep_propname, p->ep_perm, p->ep_current != nullptr ? p->ep_current : "",
		    p->ep_default, p->ep_possible});
		i++;
	}
	out.print();
	return kExitOk;
}

}  // namespace

int set_kelprop(const Subcommand &cmd, const Options &opts)
{
	return set_prop(cmd, opts, kKel);
}

int set_vportprop(const Subcommand &cmd, const Options &opts)
{
	return set_prop(cmd, opts, kVport);
}

int set_ipnetprop(const Subcommand &cmd, const Options &opts)
{
	return set_prop(cmd, opts, kIpnet);
}

int show_kelprop(const Subcommand &cmd, const Options &opts)
{
	return show_prop(cmd, opts, kKel);
}

int show_vportprop(const Subcommand &cmd, const Options &opts)
{
	return show_prop(cmd, opts, kVport);
}

int show_ipnetprop(const Subcommand &cmd, const Options &opts)
{
	return show_prop(cmd, opts, kIpnet);
}

}  // namespace keladm
