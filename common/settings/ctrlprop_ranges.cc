// The fabric's L2 type, its VLAN and VXLAN ID ranges, the host URI template, and the
// checks on the sub-ranges that uplink ports and VXLAN endpoints carry.

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "ctrlprop.h"
#include "filter.h"
#include "kel_assert.h"
#include "owners.h"
#include "range.h"
#include "sql.h"
#include "xml_uri.h"

namespace {

using kel::Text;

// The bounds of IDs in the VLAN range (`vlan`) or the VXLAN range.
const char *min_id(bool vlan)
{
	return vlan ? "1" : "0";
}
const char *max_id(bool vlan)
{
	return vlan ? "4094" : "16777215";
}

// ctrl_pval of the global row `pname` as a new string ("" for none).
int read_global(kel_dbhandle_t h, const char *pname, std::string *out)
{
	const std::string filter = std::string("ctrl_pname=") + pname;
	return kel_db_get_filtered_text(h, "ctrl_tbl", "ctrl_pval", filter.c_str(), out);
}

int write_global(kel_dbhandle_t h, const char *pname, const char *value)
{
	const std::string filter = std::string("ctrl_pname=") + pname;
	return kel_db_set_filtered_value(h, "ctrl_tbl", "ctrl_pval", filter.c_str(), value, DATA_TYPE_STRING);
}

int diff(const std::string &a, const std::string &b, std::string *out)
{
	char *raw = nullptr;
	const int rc = kel_rsrc_range_diff(a.c_str(), b.c_str(), &raw, -1, KEL_RANGE_NUMBER);
	const Text text(raw);
	if (rc == KEL_SUCCESS)
		*out = text.get();
	return rc;
}

int normalise(const char *range, std::string *out)
{
	std::string buf(std::strlen(range) + 1, '\0');
	int rc = kel_rsrc_range_merge(range, buf.data(), buf.size(), KEL_RANGE_NUMBER);
	if (rc == KEL_SUCCESS)
		*out = buf.c_str();
	return rc;
}

// The number of rows of `pname` (all hosts and global), and the value of the global one.
int count_rows(kel_dbhandle_t h, const char *pname, int *count, std::string *global)
{
	kel::RecordList<kel_ctrlprop_t> rows;
	int rc = rows.read([&](list_t *l) { return kel_db_get_ctrlprop(h, pname, nullptr, l); });
	if (rc != KEL_SUCCESS)
		return rc;
	*count = 0;
	for (kel_ctrlprop_t *p : rows) {
		(*count)++;
		if (p->ecp_host[0] == '\0')
			*global = p->ecp_propval;
	}
	return KEL_SUCCESS;
}

int set_subrange_column(kel_dbhandle_t h, const char *pname, const char *column, const char *range)
{
	const std::string filter = std::string("ctrl_pname=") + pname;
	return kel_db_set_filtered_value(h, "ctrl_tbl", column, filter.c_str(), range, DATA_TYPE_STRING);
}

}  // namespace

int kel_set_l2network(kel_dbhandle_t h, void *cbarg, const char *)
{
	const auto *arg = static_cast<kel_ctrlprop_cbarg_t *>(cbarg);
	const char *value = arg->ecc_arg ? static_cast<const char *>(arg->ecc_arg) : "vlan";
	if (std::strcmp(value, "vlan") != 0 && std::strcmp(value, "vxlan") != 0 && std::strcmp(value, "flat") != 0)
		return KEL_E_INVALID_L2TYPE;
	return write_global(h, "l2-type", value);
}

int kel_set_newrange(kel_dbhandle_t h, void *cbarg, const char *)
{
	const auto *arg = static_cast<kel_ctrlprop_cbarg_t *>(cbarg);
	const char *pname = arg->ecc_pdp->ecpd_pname;
	const bool vlan = std::strcmp(pname, "vlan-range") == 0;
	KEL_ASSERT(kel::kAreaCtrlProp, vlan || std::strcmp(pname, "vxlan-range") == 0);
	const std::string availname = std::string(pname) + "-avail";

	std::string newrange;
	int rc;
	if (arg->ecc_arg != nullptr) {
		const char *value = static_cast<const char *>(arg->ecc_arg);
		if ((rc = kel_rsrc_valid_range(value, KEL_RANGE_NUMBER, min_id(vlan), max_id(vlan), nullptr)) !=
		        KEL_SUCCESS ||
		    (rc = normalise(value, &newrange)) != KEL_SUCCESS)
			return rc;
	}
	std::string range, avail, allocated, newavail;
	if ((rc = read_global(h, pname, &range)) != KEL_SUCCESS ||
	    (rc = read_global(h, availname.c_str(), &avail)) != KEL_SUCCESS ||
	    (rc = diff(range, avail, &allocated)) != KEL_SUCCESS)
		return rc;
	if (kel_rsrc_range_contains(newrange.c_str(), allocated.c_str(), KEL_RANGE_NUMBER) != KEL_SUCCESS)
		return KEL_E_RANGE_INUSE;
	if ((rc = diff(newrange, allocated, &newavail)) != KEL_SUCCESS)
		return rc;
	boolean_t manual = B_FALSE;
	kel::Transaction tx(h);
	if ((rc = tx.begin()) == KEL_SUCCESS && (rc = write_global(h, pname, newrange.c_str())) == KEL_SUCCESS &&
	    (rc = write_global(h, availname.c_str(), newavail.c_str())) == KEL_SUCCESS &&
	    (rc = kel_update_uport_or_vxlanaddr(h, newrange.data(), vlan ? B_TRUE : B_FALSE, &manual)) == KEL_SUCCESS)
		rc = tx.commit();
	if (rc != KEL_SUCCESS)
		return rc;
	return manual ? KEL_E_RANGE_MANUAL : KEL_SUCCESS;
}

int kel_update_uport_or_vxlanaddr(kel_dbhandle_t h, char *newrange, boolean_t vlan, boolean_t *manual)
{
	*manual = B_FALSE;
	int count = 0;
	std::string global;
	int rc = count_rows(h, "vxlan-addr", &count, &global);
	if (rc != KEL_SUCCESS)
		return rc;
	if (count >= 2)
		*manual = B_TRUE;
	else if (!vlan && global != "0.0.0.0" &&
	    (rc = set_subrange_column(h, "vxlan-addr", "ctrl_vxlan_range", newrange)) != KEL_SUCCESS)
		return rc;
	global.clear();
	if ((rc = count_rows(h, "uplink-port", &count, &global)) != KEL_SUCCESS)
		return rc;
	if (count >= 2)
		*manual = B_TRUE;
	else if (!global.empty())
		rc = set_subrange_column(h, "uplink-port", vlan ? "ctrl_vlan_range" : "ctrl_vxlan_range", newrange);
	return rc;
}

int kel_set_uri_template(kel_dbhandle_t h, void *cbarg, const char *host)
{
	const auto *arg = static_cast<kel_ctrlprop_cbarg_t *>(cbarg);
	const char *value = static_cast<const char *>(arg->ecc_arg);
	if (value != nullptr) {
		const kel::xml_uri::Ptr uri = kel::xml_uri::parse(value);
		const bool ok = uri != nullptr && uri->scheme != nullptr && uri->server == nullptr &&
		    uri->path == nullptr &&
		    (std::strncmp(value, "unix://", 7) == 0 || std::strncmp(value, "ssh://", 6) == 0);
		if (!ok)
			return KEL_E_INVALID_URI_TEMPLATE;
	} else if (host == nullptr) {
		value = arg->ecc_pdp->ecpd_defvalue;
	}
	return kel_db_set_one_hostprop(h, host, "uri-template", value);
}

int kel_db_validate_subrange(kel_dbhandle_t h, const char *subrange, const char *fullrange, boolean_t vlan,
    const char *host, const char *pname, const char *pval, char **normalized)
{
	KEL_ASSERT(kel::kAreaCtrlProp, subrange != NULL);
	*normalized = nullptr;
	if (*fullrange == '\0' && *subrange != '\0')
		return vlan ? KEL_E_NO_VLANID : KEL_E_NO_VNI;
	int rc = kel_rsrc_valid_range(subrange, KEL_RANGE_NUMBER, min_id(vlan), max_id(vlan), nullptr);
	std::string norm;
	if (rc != KEL_SUCCESS || (rc = normalise(subrange, &norm)) != KEL_SUCCESS)
		return rc;
	if (kel_rsrc_range_contains(fullrange, norm.c_str(), KEL_RANGE_NUMBER) != KEL_SUCCESS)
		return KEL_E_RANGE_NOT_SUBSET;
	rc = kel_check_host_subranges_compatibility(h, norm.c_str(), vlan, host, pname, pval, fullrange);
	if (rc != KEL_SUCCESS && rc != KEL_E_RANGE_PARTIAL)
		return rc;
	if ((*normalized = strdup(norm.c_str())) == nullptr)
		return KEL_E_NOMEM;
	return rc;
}

int kel_check_host_subranges_compatibility(kel_dbhandle_t h, const char *subrange, boolean_t vlan, const char *host,
    const char *pname, const char *pval, const char *fullrange)
{
	kel::RecordList<kel_ctrlprop_t> rows;
	int rc = rows.read([&](list_t *l) { return kel_db_get_ctrlprop(h, pname, host != nullptr ? host : "", l); });
	if (rc != KEL_SUCCESS)
		return rc;
	std::string remaining;
	rc = diff(fullrange, subrange, &remaining);
	for (kel_ctrlprop_t *p : rows) {
		if (rc != KEL_SUCCESS)
			break;
		if (std::strcmp(p->ecp_propval, pval) == 0)
			continue;  // the row being set: its old sub-range is replaced
		const char *theirs = vlan ? p->ecp_vlanrange : p->ecp_vxlanrange;
		if (kel_rsrc_range_contains(remaining.c_str(), theirs, KEL_RANGE_NUMBER) != KEL_SUCCESS)
			rc = KEL_E_RANGE_OVERLAP;
		else
			rc = diff(remaining, theirs, &remaining);
	}
	if (rc == KEL_SUCCESS && !remaining.empty())
		rc = KEL_E_RANGE_PARTIAL;
	return rc;
}
