// Switches: create-kel, delete-kel, show-kel.
#include <uuid/uuid.h>

#include <cstdio>
#include <string>

#include "keladm.h"
#include "owners.h"

namespace keladm {
namespace {

// The switch's VLAN ID or VNI, "--" for a flat switch.
std::string kel_id(attrset_t *props)
{
	const std::string type = prop(props, "l2-type");
	const std::string id = prop(props, type == "vxlan" ? "vni" : "vlanid");
	return type == "flat" || id.empty() ? "--" : id;
}

// "kel=a,b" for the names given (with the tenant), or the tenant alone.
std::string kel_filter(const Options &opts)
{
	std::string filter = "tenant=" + opts.tenant;
	if (!opts.operands.empty()) {
		filter += ",kel=";
		for (size_t i = 0; i < opts.operands.size(); i++)
			filter += std::string(i ? "," : "") + opts.operands[i];
	}
	return filter;
}

}  // namespace

int create_kel(const Subcommand &cmd, const Options &opts)
{
	if (opts.operands.size() > 1)
		return usage_error(cmd, "create-kel takes at most one name");
	const char *name = opts.operands.empty() ? nullptr : opts.operands[0];
	Store store;
	if (store.open(true) != KEL_SUCCESS)
		return kExitFailed;
	kel_t *kel = nullptr;
	// Operators name switches "web-1": the CLI always allows '-' in names.
	int rc = kel_db_create_kel(store.get(), opts.tenant.c_str(), name,
	    opts.props.empty() ? nullptr : opts.props.c_str(), KEL_NAME_DASH_OK, &kel);
	if (rc != KEL_SUCCESS)
		return fail(std::string("cannot create kel") + (name ? std::string(" '") + name + "'" : ""), rc);
	std::printf("created kel %s (%s %s)\n", kel->kel_name, prop(kel->kel_props, "l2-type").c_str(),
	    kel_id(kel->kel_props).c_str());
	kel_free_kel(kel);
	return kExitOk;
}

int delete_kel(const Subcommand &cmd, const Options &opts)
{
	if (opts.operands.size() != 1)
		return usage_error(cmd, "delete-kel takes one name");
	Store store;
	if (store.open(true) != KEL_SUCCESS)
		return kExitFailed;
	int rc = kel_db_delete_kel(store.get(), opts.tenant.c_str(), opts.operands[0], 0);
	if (rc != KEL_SUCCESS)
		return fail(std::string("cannot delete kel '") + opts.operands[0] + "'", rc);
	return kExitOk;
}

int sync_flood(const Subcommand &cmd, const Options &opts)
{
	if (opts.operands.size() != 1)
		return usage_error(cmd, "sync-flood takes one kel name");
	Store store;
	if (store.open(false) != KEL_SUCCESS)
		return kExitFailed;
	const int rc = kel_sync_vxlan_flood(store.get(), opts.tenant.c_str(), opts.operands[0]);
	if (rc != KEL_SUCCESS)
		return fail(std::string("cannot join every host of kel '") + opts.operands[0] + "'", rc);
	return kExitOk;
}

int show_kel(const Subcommand &cmd, const Options &opts)
{
	Output out;
	if (!out.configure({{"name"}, {"tenant"}, {"l2type"}, {"id"}, {"status"}, {"uuid"}, {"vports"}},
	        opts.fields, opts.format))
		return kExitUsage;
	// The names become alternatives of one filter key: each must be one name.
	for (const char *name : opts.operands)
		if (!kel_valid_name(name))
			return usage_error(cmd, std::string("'") + name + "' is not a kel name");
	Store store;
	if (store.open(false) != KEL_SUCCESS)
		return kExitFailed;
	kel::RecordList<kel_t> kels;
	const std::string filter = kel_filter(opts);
	int rc = kels.read([&](list_t *l) { return kel_db_get_filtered_kellist(store.get(), filter.c_str(), l, 0); });
	// An empty fabric is nothing to show, not a failure; a named switch that is not there is.
	if (rc == KEL_E_KEL_NOTFOUND && opts.operands.empty()) {
		out.print();
		return kExitOk;
	}
	if (rc != KEL_SUCCESS)
		return fail("cannot list kels", rc);
	for (kel_t *k : kels) {
		char uu[KEL_UUID_TEXT_LEN];
		uuid_unparse_lower(k->kel_uuid, uu);
		std::string vports;
		for (kel_vport_t *vp : kel::each<kel_vport_t>(&k->kel_ports))
			vports += (vports.empty() ? "" : ",") + std::string(vp->evp_name);
		out.add({k->kel_name, k->kel_tenantname, prop(k->kel_props, "l2-type"), kel_id(k->kel_props),
		    k->kel_status == KEL_STATUS_BUSY ? "busy" : "idle", uu, vports});
	}
	out.print();
	return kExitOk;
}

}  // namespace keladm
