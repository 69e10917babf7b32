// Switches: create-kel, delete-kel, show-kel.
#include <uuid/uuid.h>

#include <cstdio>
#include <string>
#include <unordered_map>

#include "keladm.h"
#include "owners.h"

namespace keladm {
namespace {

// The 16 UUID bytes as a map key: a port names its switch by UUID.
std::string uuid_key(const uuid_t uu)
{
	return std::string(reinterpret_cast<const char *>(uu), sizeof(uuid_t));
}

// The switch's VLAN ID or VNI, "--" for a flat switch.
std::string kel_id(attrset_t *props)
{
	const std::string type = prop(props, "l2-type");
	const std::string id = prop(props, type == "vxlan" ? "vni" : "vlanid");
	return type == "flat" || id.empty() ? "--" : id;
}

// Field `field` of kKelFields for switch `k`, whose ports are `vports`.
std::string kel_field(const kel_t *k, size_t field, const std::string &vports)
{
	switch (field) {
	case 0: return k->kel_name;
	case 1: return k->kel_tenantname;
	case 2: return prop(k->kel_props, "l2-type");
	case 3: return kel_id(k->kel_props);
	case 4: return k->kel_status == KEL_STATUS_BUSY ? "busy" : "idle";
	case 5: {
		char uu[KEL_UUID_TEXT_LEN];
		uuid_unparse_lower(k->kel_uuid, uu);
		return uu;
	}
	default: return vports;
	}
}

// After a kel was refused for its bound ports: which are bound where.
void say_bound_ports(kel_dbhandle_t h, const Options &opts, const std::string &kel)
{
	char filter[KEL_FILTER_LEN];
	if (kel_create_attrstr(filter, sizeof(filter), nullptr, 2, "tenant", opts.tenant.c_str(), "kel", kel.c_str()) !=
	    KEL_SUCCESS)
		return;
	std::string list;
	auto each = [](const kel_vport_t *vp, void *arg) {
		if (vp->evp_status == VPORT_STATUS_USED) {
			std::string &l = *static_cast<std::string *>(arg);
			l += (l.empty() ? "" : ", ") + std::string(vp->evp_name) + " (VNIC " + vp->evp_vnicname +
			    " on " + vp->evp_hostname + ")";
		}
		return 0;
	};
	if (kel_db_walk_vports(h, filter, KEL_WALK_NO_PROPS, each, &list) == KEL_SUCCESS && !list.empty())
		std::fprintf(stderr, "keladm: its bound vports: %s; delete their VNICs first\n", list.c_str());
}

// "kel=a,b" for the names given (with the tenant), or the tenant alone.
std::string kel_filter(const Options &opts)
{
	std::string filter = opts.all_tenants ? "" : "tenant=" + opts.tenant;
	if (!opts.operands.empty()) {
		filter += filter.empty() ? "kel=" : ",kel=";
		for (size_t i = 0; i < opts.operands.size(); i++)
			filter += std::string(i ? "," : "") + opts.operands[i];
	}
	return filter;
}

}  // namespace

int create_kel(const Subcommand &cmd, const Options &opts)
{
	Output out;
	if (opts.echo && !out.configure(cmd.fields, opts.fields, opts.format))
		return kExitUsage;
	if (opts.operands.size() > 1)
		return usage_error(cmd, "create-kel takes at most one name");
	const char *name = opts.operands.empty() ? nullptr : opts.operands[0];
	kel::StoreHandle store;
	if (open_store(&store, true) != KEL_SUCCESS)
		return kExitFailed;
	kel_t *made = nullptr;
	// Operators name switches "web-1": the CLI always allows '-' in names.
	int rc = kel_db_create_kel(store.get(), opts.tenant.c_str(), name,
	    opts.props.empty() ? nullptr : opts.props.c_str(), KEL_NAME_DASH_OK, &made);
	kel::KelPtr kel(made);
	if (rc == KEL_E_EXISTS && opts.may_exist && name != nullptr) {
		// The one there is what a script goes on with.
		kel::RecordList<kel_t> there;
		if (there.read([&](list_t *l) {
			    return kel_db_get_kellist(store.get(), opts.tenant.c_str(), name, l, KEL_LIST_NO_MEMBERS);
		    }) == KEL_SUCCESS) {
			if (opts.echo) {
				out.add_with([&](size_t f) { return kel_field(*there.begin(), f, ""); });
				out.print();
			}
			return kExitOk;
		}
	}
	if (rc != KEL_SUCCESS)
		return fail_here(store.get(), opts,
		    std::string("cannot create kel") + (name ? std::string(" '") + name + "'" : ""), rc,
		    name ? name : "");
	if (opts.echo) {
		out.add_with([&](size_t f) { return kel_field(kel.get(), f, ""); });
		out.print();
	} else {
		std::printf("created kel %s (%s %s)\n", kel->kel_name, prop(kel->kel_props, "l2-type").c_str(),
		    kel_id(kel->kel_props).c_str());
	}
	return kExitOk;
}

int delete_kel(const Subcommand &cmd, const Options &opts)
{
	if (opts.operands.size() != 1)
		return usage_error(cmd, "delete-kel takes one name");
	kel::StoreHandle store;
	if (open_store(&store, true) != KEL_SUCCESS)
		return kExitFailed;
	int rc = kel_db_delete_kel(store.get(), opts.tenant.c_str(), opts.operands[0], 0);
	if (rc == KEL_E_KEL_NOTFOUND && opts.if_exists)
		return kExitOk;
	if (rc == KEL_E_VPORT_INUSE) {
		fail(std::string("cannot delete kel '") + opts.operands[0] + "'", rc);
		say_bound_ports(store.get(), opts, opts.operands[0]);
		return kExitFailed;
	}
	if (rc != KEL_SUCCESS)
		return fail_here(store.get(), opts, std::string("cannot delete kel '") + opts.operands[0] + "'", rc,
		    opts.operands[0]);
	return kExitOk;
}

int sync_flood(const Subcommand &cmd, const Options &opts)
{
	if (opts.operands.size() != 1)
		return usage_error(cmd, "sync-flood takes one kel name");
	kel::StoreHandle store;
	if (open_store(&store, false) != KEL_SUCCESS)
		return kExitFailed;
	const int rc = kel_sync_vxlan_flood(store.get(), opts.tenant.c_str(), opts.operands[0]);
	if (rc == KEL_E_HOST_CONNECT) {
		fail(std::string("cannot join every host of kel '") + opts.operands[0] + "'", rc);
		say_silent_hosts(store.get(), opts, opts.operands[0], "", "run sync-flood again");
		return kExitFailed;
	}
	if (rc != KEL_SUCCESS)
		return fail_here(store.get(), opts,
		    std::string("cannot join every host of kel '") + opts.operands[0] + "'", rc, opts.operands[0]);
	return kExitOk;
}

int show_kel(const Subcommand &cmd, const Options &opts)
{
	Output out;
	if (!out.configure(cmd.fields, opts.fields, opts.format))
		return kExitUsage;
	// The names become alternatives of one filter key: each must be one name.
	for (const char *name : opts.operands)
		if (!kel_valid_name(name))
			return usage_error(cmd, std::string("'") + name + "' is not a kel name");
	kel::StoreHandle store;
	if (open_store(&store, false) != KEL_SUCCESS)
		return kExitFailed;
	kel::RecordList<kel_t> kels;
	const std::string filter = kel_filter(opts);
	int rc = kels.read([&](list_t *l) {
		return kel_db_get_filtered_kellist(store.get(), filter.c_str(), l, KEL_LIST_NO_MEMBERS);
	});
	// An empty fabric is nothing to show, not a failure; a named switch that is not there is.
	if (rc == KEL_E_KEL_NOTFOUND && opts.operands.empty()) {
		if (unknown_tenant(store.get(), opts))
			return kExitFailed;
		out.print();
		return kExitOk;
	}
	if (rc != KEL_SUCCESS)
		return fail_here(store.get(), opts, "cannot list kels", rc,
		    opts.operands.size() == 1 ? opts.operands[0] : "");
	// The ports' names, read one port at a time and only for the column that lists them.
	std::unordered_map<std::string, std::string> vports;
	if (out.shows("vports")) {
		auto each = [](const kel_vport_t *vp, void *arg) {
			std::string &names = (*static_cast<std::unordered_map<std::string, std::string> *>(
			    arg))[uuid_key(vp->evp_keluuid)];
			names += (names.empty() ? "" : ",") + std::string(vp->evp_name);
			return 0;
		};
		rc = kel_db_walk_vports(store.get(), filter.c_str(), KEL_WALK_NO_PROPS, each, &vports);
		if (rc != KEL_SUCCESS && rc != KEL_E_VPORT_NOTFOUND)
			return fail("cannot list kels", rc);
	}
	for (kel_t *k : kels) {
		auto names = vports.find(uuid_key(k->kel_uuid));
		out.add_with([&](size_t f) { return kel_field(k, f, names != vports.end() ? names->second : ""); });
	}
	out.print();
	return kExitOk;
}

}  // namespace keladm
