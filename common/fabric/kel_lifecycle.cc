#include "kel_lifecycle.h"

#include <uuid/uuid.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "allocator.h"
#include "attrset_ptr.h"
#include "audit.h"
#include "c_boundary.h"
#include "filter.h"
#include "names.h"
#include "owners.h"
#include "prop_catalogue.h"
#include "sql.h"
#include "text.h"

namespace {

using kel::AttrSetPtr;

// Parses the caller's properties into a unique-name set (an empty one for none) and
// checks them against the catalogue for `type`.
int parse_props(const char *props, kel_proptype_t type, AttrSetPtr *out)
{
	const int rc = kel::read_props(props, out);
	return rc != KEL_SUCCESS ? rc : kel_check_prop(out->get(), type);
}

// The reserved or drawn ID of a VLAN or VXLAN switch; `key` is "vlanid" or "vni".
// *drawn is set once an ID is taken, even when a later step fails: the caller gives it
// back.
int take_id(kel_dbhandle_t h, attrset_t *set, kel_l2ntype_t type, int *id, bool *drawn)
{
	const bool vlan = type == KEL_L2NTYPE_VLAN;
	const char *key = vlan ? "vlanid" : "vni";
	if (attrset_exists(set, vlan ? "vni" : "vlanid"))
		return KEL_E_L2TYPE_INCOMPAT;
	char *given = nullptr;
	int rc;
	if (attrset_lookup_string(set, key, &given) == 0) {
		if ((rc = kel_str2int(given, id)) != KEL_SUCCESS)
			return rc;
		rc = vlan ? kel_db_get_this_vlanid(h, *id) : kel_db_get_this_vni(h, *id);
		*drawn = rc == KEL_SUCCESS;
		return rc;
	}
	rc = vlan ? kel_db_get_next_vlanid(h, id) : kel_db_get_next_vni(h, id);
	if (rc != KEL_SUCCESS)
		return rc;
	*drawn = true;
	return attrset_add_string(set, key, std::to_string(*id).c_str()) == 0 ? KEL_SUCCESS : KEL_E_NOMEM;
}

// Step 2, under the lock: a switch given no name takes one from its UUID (into
// `derived`); a name given must be free in the tenant.
int pick_name(kel_dbhandle_t h, const char *tenant, const char *uuidtext, const char **name,
    char (&derived)[KEL_UUID_TEXT_LEN])
{
	if (*name == nullptr) {
		kel_uuidstr2name(uuidtext, derived, sizeof(derived));
		*name = derived;
		return KEL_SUCCESS;
	}
	return kel_db_kel_exists(h, tenant, *name) ? KEL_E_EXISTS : KEL_SUCCESS;
}

// Step 3: the L2 type asked for, or the fabric's, which the switch then records.
int settle_l2type(kel_dbhandle_t h, attrset_t *set, kel_l2ntype_t *type)
{
	char *l2type = nullptr;
	if (attrset_lookup_string(set, "l2-type", &l2type) == 0) {
		kel_str2ntype(l2type, type);
		return KEL_SUCCESS;
	}
	char ctrltype[32];
	if (int rc = kel_get_l2type_info(h, type, ctrltype, sizeof(ctrltype)); rc != KEL_SUCCESS)
		return rc;
	return attrset_add_string(set, "l2-type", ctrltype) == 0 ? KEL_SUCCESS : KEL_E_NOMEM;
}

int create_kel(kel_dbhandle_t h, const char *tenant, const char *name, const char *props, uint32_t flags, kel_t **kelp)
{
	// Step 1: the caller's names and properties.
	if (name != nullptr && !kel::valid_new_name(name, flags))
		return KEL_E_INVALID_NAME;
	if (tenant == nullptr)
		tenant = KEL_DEFAULT_TENANT;
	else if (!kel_valid_name(tenant))
		return KEL_E_INVALID_NAME;
	AttrSetPtr set;
	int rc = parse_props(props, KEL_PROPTYPE_KEL, &set);
	if (rc != KEL_SUCCESS)
		return rc;
	char uuidtext[KEL_UUID_TEXT_LEN];
	kel_take_uuid(set.get(), uuidtext);

	kel::WriteScope write(h);
	char derived[KEL_UUID_TEXT_LEN];
	kel_l2ntype_t type = KEL_L2NTYPE_UNKNOWN;
	if ((rc = write.locked()) != KEL_SUCCESS ||
	    (rc = pick_name(h, tenant, uuidtext, &name, derived)) != KEL_SUCCESS ||
	    (rc = settle_l2type(h, set.get(), &type)) != KEL_SUCCESS)
		return rc;
	// Step 4: draw and insert commit together; a crash at any instant keeps both or
	// neither.
	if ((rc = write.begin()) != KEL_SUCCESS)
		return rc;
	int drawn_id = 0;
	bool drawn = false;
	// After the write scope: gives the ID back inside the transaction, before its rollback.
	kel::Hold id(
	    [&] { (void)(type == KEL_L2NTYPE_VLAN ? kel_db_free_vlanid(h, drawn_id) : kel_db_free_vni(h, drawn_id)); });
	if (type != KEL_L2NTYPE_FLAT) {
		rc = take_id(h, set.get(), type, &drawn_id, &drawn);
		if (drawn)
			id.arm();
		if (rc != KEL_SUCCESS)
			return rc;
	}
	kel::Text text;
	if ((rc = kel::props_text(set.get(), &text)) != KEL_SUCCESS)
		return rc;
	rc = kel::exec(h,
	    "INSERT INTO kel_tbl (kel_uuid, kel_name, kel_tenant_name, kel_props) "
	    "VALUES (?, ?, ?, ?)",
	    {uuidtext, name, tenant, text.get()});
	// Step 5: the new switch read back before the commit, so that failing to read it
	// leaves nothing behind.
	kel::RecordList<kel_t> made;
	if (rc == KEL_SUCCESS)
		rc = made.read([&](list_t *l) { return kel_db_get_kellist(h, tenant, name, l, 0); });
	if (rc == KEL_SUCCESS && (rc = write.commit()) == KEL_SUCCESS) {
		*kelp = made.take(made.front());
		id.keep();
	}
	return rc;
}

// Gives back the ID named in a deleted switch's properties. A row without "l2-type" or
// its ID cannot come from creation; it holds nothing to give back, and is deleted.
int give_back_id(kel_dbhandle_t h, attrset_t *props)
{
	char *l2type = nullptr, *idtext = nullptr;
	kel_l2ntype_t type = KEL_L2NTYPE_UNKNOWN;
	if (attrset_lookup_string(props, "l2-type", &l2type) == 0)
		kel_str2ntype(l2type, &type);
	const char *key = type == KEL_L2NTYPE_VLAN ? "vlanid" : "vni";
	if ((type != KEL_L2NTYPE_VLAN && type != KEL_L2NTYPE_VXLAN) || attrset_lookup_string(props, key, &idtext) != 0)
		return KEL_SUCCESS;
	int id = 0;
	int rc = kel_str2int(idtext, &id);
	if (rc != KEL_SUCCESS)
		return rc;
	return type == KEL_L2NTYPE_VLAN ? kel_db_free_vlanid(h, id) : kel_db_free_vni(h, id);
}

int delete_kel(kel_dbhandle_t h, const char *tenant, const char *name)
{
	if (!kel_valid_name(name))
		return KEL_E_INVALID_NAME;
	if (tenant == nullptr)
		tenant = KEL_DEFAULT_TENANT;
	char filter[KEL_FILTER_LEN];
	int rc = kel::names_filter(filter, tenant, name);
	if (rc != KEL_SUCCESS)
		return rc;
	kel::WriteScope write(h);
	if ((rc = write.locked()) != KEL_SUCCESS)
		return rc;
	// Whether a port is bound is all that is asked of its ports: the free ones go unread.
	kel::RecordList<kel_t> kels;
	if ((rc = kels.read([&](list_t *l) {
		    return kel_db_get_filtered_kellist(h, filter, l, KEL_LIST_BOUND_PORTS);
	    })) != KEL_SUCCESS)
		return rc;
	kel_t *kel = kels.front();
	if (kel->kel_status == KEL_STATUS_BUSY)
		rc = KEL_E_VPORT_INUSE;
	char keluuid[KEL_UUID_TEXT_LEN];
	uuid_unparse_lower(kel->kel_uuid, keluuid);
	if (rc == KEL_SUCCESS)
		rc = write.begin();
	if (rc == KEL_SUCCESS)
		rc = kel::exec(h, "DELETE FROM vport_tbl WHERE vport_keluuid = ?", {keluuid});
	if (rc == KEL_SUCCESS)
		rc = kel::exec(h, "DELETE from kel_tbl where kel_uuid = ?", {keluuid});
	for (auto *ip = static_cast<kel_ipnet_t *>(list_head(&kel->kel_ipnets)); rc == KEL_SUCCESS && ip != nullptr;
	     ip = static_cast<kel_ipnet_t *>(list_next(&kel->kel_ipnets, ip))) {
		char ipuuid[KEL_UUID_TEXT_LEN];
		uuid_unparse_lower(ip->ei_uuid, ipuuid);
		rc = kel::exec(h, "DELETE FROM ipnet_tbl WHERE ipnet_uuid = ?", {ipuuid});
	}
	// The give-back is an UPDATE inside the transaction: a rollback undoes it too.
	if (rc == KEL_SUCCESS)
		rc = give_back_id(h, kel->kel_props);
	if (rc == KEL_SUCCESS)
		rc = write.commit();
	return rc;
}

}  // namespace

int kel_get_l2type_info(kel_dbhandle_t h, kel_l2ntype_t *type, char *buf, int buflen)
{
	buf[0] = '\0';
	int rc = kel_db_get_filtered_value(h, "ctrl_tbl", "ctrl_pval", "ctrl_pname=l2-type", buf, buflen,
	    DATA_TYPE_STRING);
	if (rc != KEL_SUCCESS)
		return rc;
	kel_str2ntype(buf, type);
	return *type == KEL_L2NTYPE_UNKNOWN ? KEL_E_INVALID_L2TYPE : KEL_SUCCESS;
}

extern "C" {

int kel_db_create_kel(kel_dbhandle_t h, const char *tenant, const char *name, const char *props, uint32_t flags,
    kel_t **kelp) noexcept
{
	if (kelp == nullptr)
		return KEL_E_INVALID_ARGS;
	*kelp = nullptr;
	if (h == nullptr)
		return KEL_E_INVALID_ARGS;
	return kel::audit::logged(
	    [&] {
		    // A kel made without a name gets one: the record names what was made.
		    const char *made = *kelp != nullptr ? (*kelp)->kel_name : name;
		    return kel::audit::on("create-kel", tenant, kel::audit::text(made), props);
	    },
	    [&] { return create_kel(h, tenant, name, props, flags, kelp); });
}

int kel_db_delete_kel(kel_dbhandle_t h, const char *tenant, const char *name, uint32_t) noexcept
{
	if (h == nullptr)
		return KEL_E_INVALID_ARGS;
	if (!kel::names_valid({tenant}))
		return KEL_E_INVALID_NAME;
	return kel::audit::logged([&] { return kel::audit::on("delete-kel", tenant, kel::audit::text(name)); },
	    [&] { return delete_kel(h, tenant, name); });
}

}  // extern "C"
