// Binding ports to VNICs on hosts, and moving them with a migrating virtual machine.
#include <uuid/uuid.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "attrset_ptr.h"
#include "audit.h"
#include "c_boundary.h"
#include "ctrlprop.h"
#include "filter.h"
#include "kelnet.h"
#include "names.h"
#include "owners.h"
#include "prop_update.h"
#include "sql.h"
#include "text.h"
#include "vport.h"
#include "vport_counters.h"

namespace {

constexpr const char *kMigrating = "kel:migrating_to";

using kel::KelPtr;
constexpr const char *kDefaultProtection = "mac-nospoof,ip-nospoof";

// Writes the port's properties, keyed by its UUID: the one row, whatever filter found it.
int write_props(kel_dbhandle_t h, kel_vport_t *vp)
{
	kel::Text text;
	if (int rc = kel::props_text(vp->evp_props, &text); rc != KEL_SUCCESS)
		return rc;
	const std::string filter = "vport=" + kel::uuid_text(vp->evp_uuid);
	return kel_db_set_filtered_value(h, "vport_tbl", "vport_props", filter.c_str(), text.get(), DATA_TYPE_STRING);
}

// A global controller value into buf ("" when absent).
int read_ctrl(kel_dbhandle_t h, const char *pname, char *buf, size_t size)
{
	const std::string filter = std::string("ctrl_pname=") + pname;
	buf[0] = '\0';
	return kel_db_get_filtered_value(h, "ctrl_tbl", "ctrl_pval", filter.c_str(), buf, static_cast<int>(size),
	    DATA_TYPE_STRING);
}

// The host's row of `pname` serving the kel, else the fabric's; "" when neither has one.
int host_or_global(kel_dbhandle_t h, attrset_t *props, const char *host, const char *pname, char *buf, size_t size)
{
	buf[0] = '\0';
	int rc = kel_db_get_uport_or_vaddr_hostprop(h, props, host, pname, buf, size);
	if (rc == KEL_E_NOTFOUND || (rc == KEL_SUCCESS && *buf == '\0')) {
		buf[0] = '\0';
		rc = kel_db_get_uport_or_vaddr_hostprop(h, props, nullptr, pname, buf, size);
	}
	if (rc == KEL_E_NOTFOUND) {
		buf[0] = '\0';
		rc = KEL_SUCCESS;
	}
	return rc;
}

}  // namespace

// What the node needs to plumb the VNIC: protection's default, uplink, VXLAN settings.
int kel_fill_node_view(kel_dbhandle_t h, kel_t *k, const char *host)
{
	if (k->kel_props == nullptr && attrset_create(&k->kel_props, ATTRSET_UNIQUE_NAME) != 0)
		return KEL_E_NOMEM;
	if (!attrset_exists(k->kel_props, "protection") &&
	    attrset_add_string(k->kel_props, "protection", kDefaultProtection) != 0)
		return KEL_E_NOMEM;
	char *l2type = nullptr;
	(void)attrset_lookup_string(k->kel_props, "l2-type", &l2type);
	const bool vxlan = l2type != nullptr && std::strcmp(l2type, "vxlan") == 0;
	int rc = KEL_SUCCESS;
	if (vxlan) {
		if ((rc = read_ctrl(h, "vxlan-mgroup", k->kel_mgroup, sizeof(k->kel_mgroup))) != KEL_SUCCESS ||
		    (rc = read_ctrl(h, "vxlan-ipvers", k->kel_ipvers, sizeof(k->kel_ipvers))) != KEL_SUCCESS ||
		    (rc = host_or_global(h, k->kel_props, host, "vxlan-addr", k->kel_localaddr,
		         sizeof(k->kel_localaddr))) != KEL_SUCCESS)
			return rc;
		if (kel_address_unspecified(k->kel_mgroup))
			k->kel_mgroup[0] = '\0';
		if (kel_address_unspecified(k->kel_localaddr))
			k->kel_localaddr[0] = '\0';
	}
	if ((rc = host_or_global(h, k->kel_props, host, "uplink-port", k->kel_uport, sizeof(k->kel_uport))) !=
	    KEL_SUCCESS)
		return rc;
	if (k->kel_uport[0] == '\0' && (!vxlan || k->kel_localaddr[0] == '\0'))
		return KEL_E_UPLINK_REQUIRED;
	return KEL_SUCCESS;
}

namespace {

// The binding of `vnic` on `host` in the tenant, if there is one: *found is the kel.
int existing_binding(kel_dbhandle_t h, const char *tenant, const char *vnic, const char *host, kel_t **found)
{
	*found = nullptr;
	char filter[KEL_FILTER_LEN];
	int rc = kel_create_attrstr(filter, sizeof(filter), nullptr, 3, "tenant", tenant, "vnic", vnic, "host", host);
	kel::RecordList<kel_t> kels;
	if (rc == KEL_SUCCESS)
		rc = kels.read([&](list_t *l) { return kel_db_get_filtered_kellist(h, filter, l, 0); });
	if (rc == KEL_E_KEL_NOTFOUND || rc == KEL_E_VPORT_NOTFOUND)
		return KEL_SUCCESS;
	if (rc != KEL_SUCCESS)
		return rc;
	if (kel_t *k = kels.front(); !list_is_empty(&k->kel_ports))
		*found = kels.take(k);
	return KEL_SUCCESS;
}

// Binds the port read into `k`, or starts its migration; the transaction is open.
int bind(kel_dbhandle_t h, kel_t *k, const char *vnic, const char *host, attrset_t *props)
{
	auto *vp = static_cast<kel_vport_t *>(list_head(&k->kel_ports));
	if (vp->evp_status == VPORT_STATUS_FREE)
		return kel_db_assign_vport_common(h, vp, vnic, host, props, VPORT_STATUS_USED);
	char *theirs = nullptr, *ours = nullptr;
	const bool same_vm = std::strcmp(vp->evp_hostname, host) != 0 &&
	    attrset_lookup_string(props, "vmid", &ours) == 0 &&
	    attrset_lookup_string(vp->evp_props, "vmid", &theirs) == 0 && std::strcmp(ours, theirs) == 0;
	if (!same_vm)
		return KEL_E_VPORT_INUSE;
	kel::audit::refine("migrate-start", std::string("from ") + vp->evp_hostname + " to " + host);
	return kel_db_set_vport_migration(h, vp, host);
}

int assign(kel_dbhandle_t h, const char *tenant, const char *kelname, const char *vportname, const char *vnic,
    const char *host, const char *props, kel_t **kelp)
{
	if (!kel_valid_name(kelname) || !kel_valid_name(tenant) ||
	    (vportname != nullptr && !kel_valid_name(vportname)) || !kel_valid_zonevnicname(vnic) || host == nullptr ||
	    !valid_hostname(host))
		return KEL_E_INVALID_ARGS;
	kel::AttrSetPtr set;
	int rc = kel::read_props(props, &set, {.malformed = KEL_E_INVALID_ARGS});
	if (rc != KEL_SUCCESS)
		return rc;
	kel::WriteScope write(h);
	if ((rc = write.begin()) != KEL_SUCCESS)
		return rc;
	KelPtr k;
	kel_t *raw = nullptr;
	if ((rc = existing_binding(h, tenant, vnic, host, &raw)) != KEL_SUCCESS)
		return rc;
	k.reset(raw);
	if (k == nullptr) {
		char sysname[KEL_NAME_LEN];
		const char *name = vportname;
		if (name == nullptr) {
			if ((rc = kel_db_add_system_vport(h, tenant, kelname, sysname)) != KEL_SUCCESS)
				return rc;
			name = sysname;
		}
		if ((rc = kel_db_get_kelvport(h, tenant, kelname, name, &raw)) != KEL_SUCCESS)
			return rc;
		k.reset(raw);
		// A host's address responder sends only what keld builds, nothing of a guest's: its
		// port carries no guest's guard (which would drop its router advertisements), and
		// a change to the kel's protection passes it by.
		auto *vp = static_cast<kel_vport_t *>(list_head(&k->kel_ports));
		if (vportname == nullptr && kel_is_dhcp_endpoint(vnic) &&
		    (rc = kel_db_set_one_vportprop(h, vp, "protection", "none", 0)) != KEL_SUCCESS)
			return rc;
		// Link properties the caller gave with the binding are the port's from now on, as
		// set-vportprop would make them.
		if ((rc = kel_db_set_bind_props(h, vp, set.get())) != KEL_SUCCESS)
			return rc;
		rc = bind(h, k.get(), vnic, host, set.get());
		k.reset();
		if (rc == KEL_SUCCESS && (rc = kel_db_get_kelvport(h, tenant, kelname, name, &raw)) == KEL_SUCCESS)
			k.reset(raw);
	}
	if (rc == KEL_SUCCESS)
		rc = kel_fill_node_view(h, k.get(), host);
	if (rc == KEL_SUCCESS)
		rc = write.commit();
	if (rc != KEL_SUCCESS)
		return rc;
	*kelp = k.release();
	return KEL_SUCCESS;
}

// Adds the counters of the VNIC going away to those `vp` keeps (written with its properties).
int keep_counters(kel_vport_t *vp, const kel_vport_counters_t &last)
{
	if (vp->evp_props == nullptr && attrset_create(&vp->evp_props, ATTRSET_UNIQUE_NAME) != 0)
		return KEL_E_NOMEM;
	return kel::add_counters_gone(vp->evp_props, last);
}

int unassign(kel_dbhandle_t h, const char *vnic, const char *host, const char *extra, const kel_vport_counters_t *last)
{
	// Both go into a filter: a comma in either would add an alternative to it.
	if (!kel_valid_zonevnicname(vnic) || !valid_hostname(host))
		return KEL_E_INVALID_ARGS;
	char filter[KEL_FILTER_LEN];
	int rc = kel_create_attrstr(filter, sizeof(filter), nullptr, 2, "host", host, "vnic", vnic);
	if (rc != KEL_SUCCESS)
		return rc;
	kel::WriteScope write(h);
	if ((rc = write.locked()) != KEL_SUCCESS)
		return rc;
	kel::RecordList<kel_vport_t> ports;
	const auto lister = [&](list_t *l) { return kel_db_get_filtered_vportlist(h, filter, l, 0); };
	rc = ports.read(lister);
	if (rc != KEL_SUCCESS && extra != nullptr) {
		if ((rc = kel_create_attrstr(filter, sizeof(filter), extra, 1, "vnic", vnic)) != KEL_SUCCESS)
			return rc;
		rc = ports.read(lister);
	}
	if (rc != KEL_SUCCESS)
		return rc;
	if ((rc = write.begin()) != KEL_SUCCESS)
		return rc;
	kel_vport_t *vp = ports.front();
	// The store these operations write never holds two ports of one VNIC and host, nor
	// a free port under a VNIC; should it, nothing is changed.
	if (kel_list_count(ports.get()) != 1)
		rc = KEL_E_FAILED;
	else if (vp->evp_status != VPORT_STATUS_USED)
		rc = KEL_E_VPORT_NOTFOUND;
	// The VNIC's counters join the port's in the same transaction as the unbinding: kept
	// exactly when the port is let go, whichever way it goes below.
	else if (last == nullptr || (rc = keep_counters(vp, *last)) == KEL_SUCCESS) {
		if (attrset_exists(vp->evp_props, kMigrating)) {
			// One host of a migration lets go: the move completes, or is called off.
			kel::audit::refine("migrate-end",
			    std::string(vp->evp_kelname) + "/" + vp->evp_name + ": " + host + " let go of VNIC " +
			        vnic);
			rc = kel_db_clear_vport_migration(h, vp, host, filter);
		} else if ((rc = kel_db_assign_vport_common(h, vp, "", "", nullptr, VPORT_STATUS_FREE)) ==
		        KEL_SUCCESS &&
		    kel_is_system_vport(vp->evp_name))
			rc = kel_db_remove_system_vport(h, vp->evp_tenantname, vp->evp_kelname, vp->evp_name);
	}
	return rc != KEL_SUCCESS ? rc : write.commit();
}

}  // namespace

int kel_db_set_vport_migration(kel_dbhandle_t h, kel_vport_t *vp, const char *host)
{
	if (attrset_add_string(vp->evp_props, kMigrating, host) != 0)
		return KEL_E_NOMEM;
	return write_props(h, vp);
}

int kel_db_clear_vport_migration(kel_dbhandle_t h, kel_vport_t *vp, const char *host, const char *)
{
	char *dest = nullptr;
	if (attrset_lookup_string(vp->evp_props, kMigrating, &dest) != 0)
		return KEL_SUCCESS;
	char destination[1025];
	kel::copy_text(destination, dest, sizeof(destination));
	(void)attrset_remove(vp->evp_props, kMigrating, DATA_TYPE_STRING);
	kel::Transaction tx(h);
	int rc = tx.begin();
	if (rc == KEL_SUCCESS)
		rc = write_props(h, vp);
	// The old host letting go hands the port to the destination.
	if (rc == KEL_SUCCESS && std::strcmp(vp->evp_hostname, host) == 0) {
		const std::string filter = "vport=" + kel::uuid_text(vp->evp_uuid);
		rc = kel_db_set_filtered_value(h, "vport_tbl", "vport_hostname", filter.c_str(), destination,
		    DATA_TYPE_STRING);
	}
	return rc != KEL_SUCCESS ? rc : tx.commit();
}

extern "C" {

int kel_db_assign_vport(kel_dbhandle_t h, const char *tenant, const char *kel, const char *vport, const char *vnic,
    const char *host, const char *props, kel_t **kelp) noexcept
{
	if (kelp == nullptr)
		return KEL_E_INVALID_ARGS;
	*kelp = nullptr;
	if (h == nullptr)
		return KEL_E_INVALID_ARGS;
	return kel::audit::logged(
	    [&] {
		    kel::audit::Change c = kel::audit::on("bind", tenant, kel::audit::member(kel, vport), props);
		    c.detail = "VNIC " + kel::audit::text(vnic) + " on " + kel::audit::text(host) +
		        (c.detail.empty() ? "" : ", " + c.detail);
		    return c;
	    },
	    [&] { return assign(h, tenant, kel, vport, vnic, host, props, kelp); });
}

int kel_db_unassign_vport(kel_dbhandle_t h, const char *vnic, const char *host, const char *filter) noexcept
{
	return kel_db_unassign_vport_counted(h, vnic, host, filter, nullptr);
}

int kel_db_unassign_vport_counted(kel_dbhandle_t h, const char *vnic, const char *host, const char *filter,
    const kel_vport_counters_t *last) noexcept
{
	if (h == nullptr || vnic == nullptr || host == nullptr)
		return KEL_E_INVALID_ARGS;
	return kel::audit::logged(
	    [&] {
		    return kel::audit::Change{"release", "",
		        "VNIC " + kel::audit::text(vnic) + " on " + kel::audit::text(host), kel::audit::text(filter)};
	    },
	    [&] { return unassign(h, vnic, host, filter, last); });
}

}  // extern "C"
