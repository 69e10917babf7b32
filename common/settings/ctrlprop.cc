// The controller property table, its listing, the set entry point and row access.
#include "ctrlprop.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "attrset_ptr.h"
#include "audit.h"
#include "c_boundary.h"
#include "filter.h"
#include "kel_assert.h"
#include "kelnet.h"
#include "schema.h"
#include "service_config.h"
#include "sql.h"
#include "text.h"

const kel_ctrlprop_desc_t kel_ctrlprop_table[] = {
    {"uri-template", kel_set_uri_template, "ssh://", "rw", 3},
    {"uuid", nullptr, "", "r-", 2},
    {"l2-type", kel_set_l2network, "vlan", "rw", 2},
    {"vlan-range", kel_set_newrange, "", "rw", 2},
    {"vlan-range-avail", nullptr, "", "r-", 2},
    {"vxlan-range", kel_set_newrange, "", "rw", 2},
    {"vxlan-range-avail", nullptr, "", "r-", 2},
    {"vxlan-mgroup", kel_set_mgroup, "0.0.0.0", "rw", 2},
    {"vxlan-ipvers", kel_set_ipvers, "v4", "rw", 2},
    {"vxlan-addr", kel_set_addr, "0.0.0.0", "rw", 3},
    {"uplink-port", kel_set_uplinkport, "", "rw", 3},
    {nullptr, nullptr, nullptr, nullptr, 0},
};

namespace {

using kel::AttrSetPtr;

void free_ctrlprop(kel_ctrlprop_t *rec)
{
	std::free(rec->ecp_propval);
	std::free(rec->ecp_vlanrange);
	std::free(rec->ecp_vxlanrange);
	std::free(rec->ecp_flatrange);
	std::free(rec);
}

char *dup_column(const kel::Statement &stmt, int col, bool *ok)
{
	const char *t = stmt.text(col);
	char *copy = strdup(t != nullptr ? t : "");
	*ok = *ok && copy != nullptr;
	return copy;
}

int kel_dbrow2cprop(const kel::Statement &stmt, kel_ctrlprop_t **out)
{
	auto *rec = static_cast<kel_ctrlprop_t *>(std::calloc(1, sizeof(kel_ctrlprop_t)));
	if (rec == nullptr)
		return KEL_E_NOMEM;
	const char *name = stmt.text(kel::schema::kCtrlPname);
	const char *host = stmt.text(kel::schema::kCtrlHost);
	kel::copy_text(rec->ecp_propname, name ? name : "", sizeof(rec->ecp_propname));
	if (host != nullptr && *host != '\0') {
		kel::copy_text(rec->ecp_host, host, sizeof(rec->ecp_host));
		kel::copy_text(rec->ecp_perm, "rw", sizeof(rec->ecp_perm));
	} else {
		const kel_ctrlprop_desc_t *row = kel_get_controller_pdesc_entry(name, B_FALSE);
		KEL_ASSERT(kel::kAreaCtrlProp, row != NULL);
		kel::copy_text(rec->ecp_perm, row->ecpd_perm, sizeof(rec->ecp_perm));
		kel::copy_text(rec->ecp_defvalue, row->ecpd_defvalue, sizeof(rec->ecp_defvalue));
	}
	bool ok = true;
	rec->ecp_propval = dup_column(stmt, kel::schema::kCtrlPval, &ok);
	rec->ecp_vlanrange = dup_column(stmt, kel::schema::kCtrlVlanRange, &ok);
	rec->ecp_vxlanrange = dup_column(stmt, kel::schema::kCtrlVxlanRange, &ok);
	rec->ecp_flatrange = dup_column(stmt, kel::schema::kCtrlFlatRange, &ok);
	if (!ok) {
		free_ctrlprop(rec);
		return KEL_E_NOMEM;
	}
	*out = rec;
	return KEL_SUCCESS;
}

int kel_dbrow2cproplist(const kel::Statement &stmt, void *list)
{
	kel_ctrlprop_t *rec = nullptr;
	int rc = kel_dbrow2cprop(stmt, &rec);
	if (rc == KEL_SUCCESS)
		list_insert_tail(static_cast<list_t *>(list), rec);
	return rc;
}

// The filter for the listing, and whether the uuid record is wanted.
int listing_filter(attrset_t *names, const char *host, std::string *filter, bool *uuid, bool *rows)
{
	*uuid = host == nullptr && (names == nullptr || attrset_exists(names, "uuid"));
	*rows = true;
	std::string pnames;
	for (attrset_entry_t *e = attrset_next_entry(names, nullptr); e; e = attrset_next_entry(names, e))
		if (std::strcmp(attrset_entry_name(e), "uuid") != 0)
			pnames += (pnames.empty() ? "" : ",") + std::string(attrset_entry_name(e));
	if (names != nullptr && pnames.empty())
		*rows = false;  // "uuid" alone: no store row
	if (!pnames.empty())
		*filter = "ctrl_pname=" + pnames;
	if (host != nullptr)
		*filter += (filter->empty() ? "" : ",") + std::string("ctrl_host=") + host;
	return filter->size() >= KEL_FILTER_LEN ? KEL_E_NOSPACE : KEL_SUCCESS;
}

int list_ctrlprops(kel_dbhandle_t h, const char *propnames, const char *host, list_t *list)
{
	// The host goes into a filter; "" names the fabric-wide rows.
	if (host != nullptr && *host != '\0' && !valid_hostname(host))
		return KEL_E_INVALID_HOSTNAME;
	attrset_t *parsed = nullptr;
	if (propnames != nullptr) {
		int rc = kel_str2attrset(propnames, &parsed, B_FALSE, ATTRSET_UNIQUE_NAME);
		if (rc != KEL_SUCCESS)
			return rc;
	}
	AttrSetPtr names(parsed);
	for (attrset_entry_t *e = attrset_next_entry(parsed, nullptr); e; e = attrset_next_entry(parsed, e))
		if (kel_get_controller_pdesc_entry(attrset_entry_name(e), B_FALSE) == nullptr)
			return KEL_E_INVALID_CTRLPROP;
	std::string filter;
	bool uuid, rows;
	int rc = listing_filter(parsed, host, &filter, &uuid, &rows);
	if (rc != KEL_SUCCESS)
		return rc;
	kel::StoreLock lock(h);
	if ((rc = lock.status()) != KEL_SUCCESS)
		return rc;
	kel::RecordList<kel_ctrlprop_t> built;
	list_t *rows_read = built.start();
	if (rows)
		rc = kel_db_get_filtered_common(h, "ctrl_tbl", nullptr, nullptr, nullptr, filter.c_str(), rows_read,
		    kel_dbrow2cproplist);
	if (rc == KEL_SUCCESS && uuid) {
		char value[KEL_UUID_TEXT_LEN];
		rc = kel_tog_get_one_value(KEL_CONTROLLER_FMRI, "config", "uuid", VUR_TYPE_ASTRING, value,
		    sizeof(value));
		kel_ctrlprop_t *rec = rc == KEL_SUCCESS ? built.append() : nullptr;
		if (rc == KEL_SUCCESS && (rec == nullptr || (rec->ecp_propval = strdup(value)) == nullptr))
			rc = KEL_E_NOMEM;
		if (rc == KEL_SUCCESS) {
			kel::copy_text(rec->ecp_propname, "uuid", sizeof(rec->ecp_propname));
			kel::copy_text(rec->ecp_perm, "r-", sizeof(rec->ecp_perm));
		}
	}
	if (rc == KEL_SUCCESS)
		built.release(list);
	return rc;
}

int set_ctrlprop(kel_dbhandle_t h, const char *propstr, const char *host)
{
	if (host != nullptr && (*host == '\0' || !valid_hostname(host)))
		return KEL_E_INVALID_HOSTNAME;
	AttrSetPtr props;
	int rc = kel::read_props(propstr, &props,
	    {.null_text = KEL_E_INVALID_ARGS, .malformed = KEL_E_INVALID_ARGS, .empty = KEL_E_INVALID_ARGS});
	if (rc != KEL_SUCCESS)
		return rc;
	char *pname = nullptr, *pval = nullptr;
	kel_ctrlprop_cbarg_t cbarg;
	if ((rc = kel_parse_ctrlprop(props.get(), &pname, &pval, &cbarg)) != KEL_SUCCESS)
		return rc;
	const kel_ctrlprop_desc_t *row = kel_get_controller_pdesc_entry(pname, host ? B_TRUE : B_FALSE);
	if (row == nullptr)
		return KEL_E_INVALID_CTRLPROP;
	if (std::strchr(row->ecpd_perm, 'w') == nullptr || row->ecpd_setfn == nullptr)
		return KEL_E_READONLY;
	kel::StoreLock lock(h);
	if ((rc = lock.status()) != KEL_SUCCESS)
		return rc;
	cbarg.ecc_pdp = row;
	cbarg.ecc_arg = *pval != '\0' ? pval : nullptr;
	return row->ecpd_setfn(h, &cbarg, host);
}

}  // namespace

const kel_ctrlprop_desc_t *kel_get_controller_pdesc_entry(const char *name, boolean_t host)
{
	for (const kel_ctrlprop_desc_t *row = kel_ctrlprop_table; name && row->ecpd_pname; row++)
		if (std::strcmp(row->ecpd_pname, name) == 0)
			return !host || (row->ecpd_scope & KEL_CTRL_PROP_HOST) ? row : nullptr;
	return nullptr;
}

int kel_parse_ctrlprop(attrset_t *props, char **pname, char **pval, kel_ctrlprop_cbarg_t *cbarg)
{
	std::memset(cbarg, 0, sizeof(*cbarg));
	const int count = kel_attrset_count(props);
	auto value_of = [&](const char *name) {
		char *v = nullptr;
		return attrset_lookup_string(props, name, &v) == 0 ? v : nullptr;
	};
	auto only = [&](std::initializer_list<const char *> allowed) {
		for (attrset_entry_t *e = attrset_next_entry(props, nullptr); e; e = attrset_next_entry(props, e)) {
			bool ok = false;
			for (const char *a : allowed)
				ok = ok || std::strcmp(attrset_entry_name(e), a) == 0;
			if (!ok)
				return false;
		}
		return true;
	};
	if (attrset_exists(props, "uplink-port")) {
		if (count > 4)
			return KEL_E_INVALID_ARGS;
		if (!only({"vlan-range", "vxlan-range", "uplink-port", "flat"}))
			return KEL_E_UPLINK_ATTRS;
		*pname = const_cast<char *>("uplink-port");
		*pval = value_of("uplink-port");
		cbarg->ecc_vlanrange = value_of("vlan-range");
		cbarg->ecc_vxlanrange = value_of("vxlan-range");
		cbarg->ecc_flatstr = value_of("flat");
	} else if (attrset_exists(props, "vxlan-addr")) {
		if (count > 2)
			return KEL_E_INVALID_ARGS;
		if (!only({"vxlan-range", "vxlan-addr"}))
			return KEL_E_VXLANADDR_ATTRS;
		*pname = const_cast<char *>("vxlan-addr");
		*pval = value_of("vxlan-addr");
		cbarg->ecc_vxlanrange = value_of("vxlan-range");
	} else {
		if (count != 1)
			return KEL_E_INVALID_ARGS;
		attrset_entry_t *e = attrset_next_entry(props, nullptr);
		*pname = const_cast<char *>(attrset_entry_name(e));
		(void)attrset_entry_value_string(e, pval);
	}
	cbarg->ecc_reset_vlanrange = cbarg->ecc_vlanrange && !*cbarg->ecc_vlanrange ? B_TRUE : B_FALSE;
	cbarg->ecc_reset_vxlanrange = cbarg->ecc_vxlanrange && !*cbarg->ecc_vxlanrange ? B_TRUE : B_FALSE;
	cbarg->ecc_reset_flat = cbarg->ecc_flatstr && !*cbarg->ecc_flatstr ? B_TRUE : B_FALSE;
	return KEL_SUCCESS;
}

int kel_db_get_one_hostprop(kel_dbhandle_t h, const char *host, const char *pname, data_type_t type, void *buf,
    size_t size)
{
	if (host != nullptr && *host != '\0' && !valid_hostname(host))
		return KEL_E_INVALID_HOSTNAME;
	const std::string filter = std::string("ctrl_pname=") + pname + ",ctrl_host=" + (host ? host : "");
	if (!kel_db_value_exists(h, "AND", nullptr, "ctrl_tbl", 2, "ctrl_pname", DATA_TYPE_STRING, pname, "ctrl_host",
	        DATA_TYPE_STRING, host ? host : ""))
		return KEL_E_NOTFOUND;
	return kel_db_get_filtered_value(h, "ctrl_tbl", "ctrl_pval", filter.c_str(), buf, static_cast<int>(size), type);
}

int kel_db_set_one_hostprop(kel_dbhandle_t h, const char *host, const char *pname, const char *value)
{
	const char *where = host != nullptr ? host : "";
	kel::Transaction tx(h);
	int rc = tx.begin();
	if (rc != KEL_SUCCESS)
		return rc;
	if (value == nullptr)
		rc = kel::exec(h,
		    kel::SqlText("DELETE FROM %s WHERE %s = ? AND %s = ?", "ctrl_tbl", "ctrl_pname", "ctrl_host"),
		    {pname, where});
	else if (kel_db_value_exists(h, "AND", nullptr, "ctrl_tbl", 2, "ctrl_host", DATA_TYPE_STRING, where,
	             "ctrl_pname", DATA_TYPE_STRING, pname))
		rc = kel::exec(h,
		    kel::SqlText("UPDATE %s SET %s = ? WHERE %s = ? AND %s = ?", "ctrl_tbl", "ctrl_pval", "ctrl_pname",
		        "ctrl_host"),
		    {value, pname, where});
	else
		rc = kel::exec(h,
		    kel::SqlText("INSERT INTO %s (%s, %s, %s) VALUES (?, ?, ?)", "ctrl_tbl", "ctrl_pname", "ctrl_pval",
		        "ctrl_host"),
		    {pname, value, where});
	return rc != KEL_SUCCESS ? rc : tx.commit();
}

extern "C" {

int kel_db_get_ctrlprop(kel_dbhandle_t h, const char *propnames, const char *host, list_t *list) noexcept
{
	if (h == nullptr || list == nullptr)
		return KEL_E_INVALID_ARGS;
	return kel::c_boundary([&] { return list_ctrlprops(h, propnames, host, list); });
}

void kel_free_ctrlproplist(list_t *list) noexcept
{
	if (list == nullptr)
		return;
	while (auto *rec = static_cast<kel_ctrlprop_t *>(list_remove_head(list)))
		free_ctrlprop(rec);
	list_destroy(list);
}

int kel_db_set_ctrlprop(kel_dbhandle_t h, const char *propstr, const char *host) noexcept
{
	if (h == nullptr || propstr == nullptr)
		return KEL_E_INVALID_ARGS;
	return kel::audit::logged(
	    [&] {
		    return kel::audit::Change{"set-controlprop", "",
		        host != nullptr && *host ? "host " + kel::audit::text(host) : "fabric", propstr};
	    },
	    [&] { return set_ctrlprop(h, propstr, host); });
}

}  // extern "C"
