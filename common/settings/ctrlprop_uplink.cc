// Uplink ports and VXLAN endpoints per host, with the share of the fabric's IDs each one
// carries, and the fabric's VXLAN multicast group and IP version.
#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "ctrlprop.h"
#include "filter.h"
#include "kel_assert.h"
#include "kelnet.h"
#include "names.h"
#include "owners.h"
#include "range.h"
#include "sql.h"
#include "subnet.h"

namespace {

using kel::SqlText;

int read_global(kel_dbhandle_t h, const char *pname, char *buf, size_t size)
{
	const std::string filter = std::string("ctrl_pname=") + pname;
	buf[0] = '\0';
	return kel_db_get_filtered_value(h, "ctrl_tbl", "ctrl_pval", filter.c_str(), buf, static_cast<int>(size),
	    DATA_TYPE_STRING);
}

int write_global(kel_dbhandle_t h, const char *pname, const char *value)
{
	const std::string filter = std::string("ctrl_pname=") + pname;
	return kel_db_set_filtered_value(h, "ctrl_tbl", "ctrl_pval", filter.c_str(), value, DATA_TYPE_STRING);
}

bool parses_as(int af, const std::string &text)
{
	unsigned char buf[sizeof(struct in6_addr)];
	return inet_pton(af, text.c_str(), buf) == 1;
}

// Every configured "vxlan-addr" value (prefix cut off) must be of family `af`.
int addrs_of_family(kel_dbhandle_t h, int af)
{
	kel::RecordList<kel_ctrlprop_t> rows;
	int rc = rows.read([&](list_t *l) { return kel_db_get_ctrlprop(h, "vxlan-addr", nullptr, l); });
	if (rc != KEL_SUCCESS)
		return rc;
	for (kel_ctrlprop_t *p : rows) {
		std::string addr = p->ecp_propval;
		addr = addr.substr(0, addr.find('/'));
		if (!kel_address_unspecified(addr.c_str()) && !parses_as(af, addr))
			return KEL_E_MGROUP_IPVERS_MISMATCH;
	}
	return KEL_SUCCESS;
}

// Checks a given sub-range (when there is one) and replaces it with its normalised form,
// kept in `owned`. KEL_E_RANGE_PARTIAL goes to *warning.
int check_subrange(kel_dbhandle_t h, char **range, kel::Text *owned, const char *fullrange, bool vlan, const char *host,
    const char *pname, const char *pval, int *warning)
{
	if (*range == nullptr || **range == '\0')
		return KEL_SUCCESS;
	char *norm = nullptr;
	int rc = kel_db_validate_subrange(h, *range, fullrange, vlan ? B_TRUE : B_FALSE, host, pname, pval, &norm);
	owned->reset(norm);
	if (rc == KEL_E_RANGE_PARTIAL)
		*warning = rc;
	else if (rc != KEL_SUCCESS)
		return rc;
	*range = owned->get();
	return KEL_SUCCESS;
}

int read_range(kel_dbhandle_t h, const char *pname, kel::Text *out)
{
	const std::string filter = std::string("ctrl_pname=") + pname;
	char *raw = nullptr;
	int rc = kel_db_get_filtered_value(h, "ctrl_tbl", "ctrl_pval", filter.c_str(), &raw, -1, DATA_TYPE_STRING);
	out->reset(raw);
	if (rc == KEL_SUCCESS && raw == nullptr) {
		out->reset(strdup(""));
		if (*out == nullptr)
			rc = KEL_E_NOMEM;
	}
	return rc;
}

bool row_exists(kel_dbhandle_t h, const char *pname, const char *value, const char *host)
{
	return kel_db_value_exists(h, "AND", nullptr, "ctrl_tbl", 3, "ctrl_pname", DATA_TYPE_STRING, pname, "ctrl_pval",
	    DATA_TYPE_STRING, value, "ctrl_host", DATA_TYPE_STRING, host);
}

// The rows of one property of one host, with their sub-ranges.
// The row of (pname, value, host): the host's placeholder row takes the value, or a
// new row is added unless there is one.
int write_value_row(kel_dbhandle_t h, const char *host, const char *pname, const char *def, const char *value)
{
	const bool placeholder = kel_db_value_exists(h, "AND", nullptr, "ctrl_tbl", 6, "ctrl_pname", DATA_TYPE_STRING,
	    pname, "ctrl_host", DATA_TYPE_STRING, host, "ctrl_pval", DATA_TYPE_STRING, def, "ctrl_vlan_range",
	    DATA_TYPE_STRING, "", "ctrl_vxlan_range", DATA_TYPE_STRING, "", "ctrl_flat_range", DATA_TYPE_STRING, "");
	if (placeholder)
		return kel::exec(h,
		    SqlText("UPDATE %s SET %s = ? WHERE %s = ? AND %s = ? AND %s = ? AND %s = ? AND %s = ?", "ctrl_tbl",
		        "ctrl_pval", "ctrl_pname", "ctrl_host", "ctrl_vlan_range", "ctrl_vxlan_range",
		        "ctrl_flat_range"),
		    {value, pname, host, "", "", ""});
	if (row_exists(h, pname, value, host))
		return KEL_SUCCESS;
	return kel::exec(h,
	    SqlText("INSERT INTO %s (%s, %s, %s) VALUES (?, ?, ?)", "ctrl_tbl", "ctrl_pname", "ctrl_pval", "ctrl_host"),
	    {pname, value, host});
}

// The row's shares of the VLAN and VXLAN ranges, when given.
int write_shares(kel_dbhandle_t h, const char *host, const char *pname, const char *value,
    const kel_ctrlprop_cbarg_t *arg)
{
	const SqlText set_column_sql[] = {SqlText("UPDATE %s SET %s = ? WHERE %s = ? AND %s = ? AND %s = ? ",
	                                      "ctrl_tbl", "ctrl_vlan_range", "ctrl_pname", "ctrl_pval", "ctrl_host"),
	    SqlText("UPDATE %s SET %s = ? WHERE %s = ? AND %s = ? AND %s = ? ", "ctrl_tbl", "ctrl_vxlan_range",
	        "ctrl_pname", "ctrl_pval", "ctrl_host")};
	int rc = KEL_SUCCESS;
	if (arg->ecc_vlanrange != nullptr)
		rc = kel::exec(h, set_column_sql[0], {arg->ecc_vlanrange, pname, value, host});
	if (rc == KEL_SUCCESS && arg->ecc_vxlanrange != nullptr)
		rc = kel::exec(h, set_column_sql[1], {arg->ecc_vxlanrange, pname, value, host});
	return rc;
}

// Whether the uplink row carries the flat kels; at most one port of a host does.
int write_flat(kel_dbhandle_t h, const char *host, const char *value, const char *flat)
{
	const bool yes = std::strcmp(flat, "yes") == 0;
	int rc = KEL_SUCCESS;
	if (yes) {
		const std::string filter = std::string("ctrl_host=") + host + ",ctrl_pname=uplink-port";
		rc = kel_db_set_filtered_value(h, "ctrl_tbl", "ctrl_flat_range", filter.c_str(), "", DATA_TYPE_STRING);
	}
	if (rc == KEL_SUCCESS)
		rc = kel::exec(h,
		    SqlText("UPDATE %s SET %s = ? WHERE %s = ? AND %s = ? AND %s = ?", "ctrl_tbl", "ctrl_flat_range",
		        "ctrl_pname", "ctrl_pval", "ctrl_host"),
		    {yes ? "0" : "", "uplink-port", value, host});
	return rc;
}

// A row left serving nothing after a reset goes.
int drop_if_empty(kel_dbhandle_t h, const char *host, const char *pname, const char *value)
{
	return kel::exec(h,
	    SqlText("DELETE FROM %s WHERE %s = ? AND %s == ? AND %s = ? AND %s = ? AND %s = ? AND %s = ?", "ctrl_tbl",
	        "ctrl_pname", "ctrl_pval", "ctrl_host", "ctrl_flat_range", "ctrl_vlan_range", "ctrl_vxlan_range"),
	    {pname, value, host, "", "", ""});
}

// The fabric keeps a global row of the property, a placeholder at least.
int keep_global_row(kel_dbhandle_t h, const char *pname, const char *def)
{
	if (kel_db_value_exists(h, "AND", nullptr, "ctrl_tbl", 2, "ctrl_pname", DATA_TYPE_STRING, pname, "ctrl_host",
	        DATA_TYPE_STRING, ""))
		return KEL_SUCCESS;
	return kel::exec(h,
	    SqlText("INSERT INTO %s (%s, %s, %s) VALUES (?, ?, ?)", "ctrl_tbl", "ctrl_pname", "ctrl_pval", "ctrl_host"),
	    {pname, def, ""});
}

int write_rows(kel_dbhandle_t h, const char *host, const char *pname, const char *def, kel_ctrlprop_cbarg_t *arg)
{
	const char *value = static_cast<const char *>(arg->ecc_arg);
	int rc;
	if (value == nullptr) {
		rc = kel::exec(h,
		    SqlText("DELETE FROM %s WHERE %s = ? AND %s = ?", "ctrl_tbl", "ctrl_pname", "ctrl_host"),
		    {pname, host});
	} else {
		rc = write_value_row(h, host, pname, def, value);
		if (rc == KEL_SUCCESS)
			rc = write_shares(h, host, pname, value, arg);
		if (rc == KEL_SUCCESS && arg->ecc_flatstr != nullptr)
			rc = write_flat(h, host, value, arg->ecc_flatstr);
		if (rc == KEL_SUCCESS && (arg->ecc_reset_vlanrange || arg->ecc_reset_vxlanrange || arg->ecc_reset_flat))
			rc = drop_if_empty(h, host, pname, value);
	}
	return rc == KEL_SUCCESS ? keep_global_row(h, pname, def) : rc;
}

// Whether a row's range column holds `id`.
bool serves(const char *range, const char *id)
{
	return range != nullptr && *range != '\0' &&
	    kel_rsrc_range_contains(range, id, KEL_RANGE_NUMBER) == KEL_SUCCESS;
}

}  // namespace

int kel_compat_with_mgroup(kel_dbhandle_t h, sa_family_t af, boolean_t addr)
{
	char mgroup[50];
	int rc = read_global(h, "vxlan-mgroup", mgroup, sizeof(mgroup));
	if (rc != KEL_SUCCESS || *mgroup == '\0' || kel_address_unspecified(mgroup))
		return rc;
	if (parses_as(af, mgroup))
		return KEL_SUCCESS;
	return addr ? KEL_E_ADDR_MGROUP_MISMATCH : KEL_E_IPVERS_MGROUP_MISMATCH;
}

int kel_set_ipvers(kel_dbhandle_t h, void *cbarg, const char *)
{
	const auto *arg = static_cast<kel_ctrlprop_cbarg_t *>(cbarg);
	const char *value = arg->ecc_arg ? static_cast<const char *>(arg->ecc_arg) : "v4";
	const bool v4 = std::strcmp(value, "v4") == 0;
	if (!v4 && std::strcmp(value, "v6") != 0)
		return KEL_E_INVALID_IPVERS;
	int rc = kel_compat_with_mgroup(h, v4 ? AF_INET : AF_INET6, B_FALSE);
	return rc != KEL_SUCCESS ? rc : write_global(h, "vxlan-ipvers", value);
}

int kel_set_mgroup(kel_dbhandle_t h, void *cbarg, const char *)
{
	const auto *arg = static_cast<kel_ctrlprop_cbarg_t *>(cbarg);
	const char *value = static_cast<const char *>(arg->ecc_arg);
	if (value == nullptr)
		return write_global(h, "vxlan-mgroup", "0.0.0.0");
	char ipvers[3];
	int rc = read_global(h, "vxlan-ipvers", ipvers, sizeof(ipvers));
	if (rc != KEL_SUCCESS)
		return rc;
	int af;
	if (parses_as(AF_INET, value)) {
		if (kel_ipcmp(AF_INET, value, "224.0.0.0") < 0 || kel_ipcmp(AF_INET, value, "239.255.255.255") > 0)
			return KEL_E_INVALID_MGROUP;
		af = AF_INET;
	} else {
		if (!parses_as(AF_INET6, value) || kel_ipcmp(AF_INET6, value, "ff00::") < 0 ||
		    kel_ipcmp(AF_INET6, value, "ff40::") > 0)
			return KEL_E_INVALID_MGROUP;
		af = AF_INET6;
	}
	if (std::strcmp(ipvers, af == AF_INET ? "v4" : "v6") != 0)
		return KEL_E_MGROUP_IPVERS_MISMATCH;
	if ((rc = addrs_of_family(h, af)) != KEL_SUCCESS)
		return rc;
	return write_global(h, "vxlan-mgroup", value);
}

int kel_set_uplinkport(kel_dbhandle_t h, void *cbarg, const char *host)
{
	auto *arg = static_cast<kel_ctrlprop_cbarg_t *>(cbarg);
	const char *name = static_cast<const char *>(arg->ecc_arg);
	int warning = KEL_SUCCESS, rc;
	kel::Text vlanrange, vxlanrange, vlannorm, vxlannorm;
	if (name != nullptr) {
		if (!dlparse_drvppa(name, nullptr, 0, nullptr))
			return KEL_E_INVALID_UPLINK;
		if ((rc = read_range(h, "vlan-range", &vlanrange)) != KEL_SUCCESS ||
		    (rc = read_range(h, "vxlan-range", &vxlanrange)) != KEL_SUCCESS)
			return rc;
		// Without attributes the port carries the whole fabric, flat kels included.
		if (!arg->ecc_vlanrange && !arg->ecc_vxlanrange && !arg->ecc_flatstr) {
			arg->ecc_vlanrange = vlanrange.get();
			arg->ecc_vxlanrange = vxlanrange.get();
			arg->ecc_flatstr = const_cast<char *>("yes");
		}
		if ((rc = check_subrange(h, &arg->ecc_vlanrange, &vlannorm, vlanrange.get(), true, host, "uplink-port",
		         name, &warning)) != KEL_SUCCESS ||
		    (rc = check_subrange(h, &arg->ecc_vxlanrange, &vxlannorm, vxlanrange.get(), false, host,
		         "uplink-port", name, &warning)) != KEL_SUCCESS)
			return rc;
		if (arg->ecc_flatstr != nullptr && *arg->ecc_flatstr != '\0' &&
		    std::strcmp(arg->ecc_flatstr, "yes") != 0 && std::strcmp(arg->ecc_flatstr, "no") != 0)
			return KEL_E_INVALID_ARGS;
	} else if (arg->ecc_vlanrange && arg->ecc_vxlanrange && arg->ecc_flatstr) {
		return KEL_E_INVALID_ARGS;
	}
	rc = kel_db_set_uport_or_vaddr_hostprop(h, host, "uplink-port", arg);
	return rc != KEL_SUCCESS ? rc : warning;
}

int kel_set_addr(kel_dbhandle_t h, void *cbarg, const char *host)
{
	auto *arg = static_cast<kel_ctrlprop_cbarg_t *>(cbarg);
	const char *value = static_cast<const char *>(arg->ecc_arg);
	int warning = KEL_SUCCESS, rc;
	kel::Text fabric, norm;
	if (value != nullptr) {
		int af;
		if (std::strchr(value, '/') == nullptr) {
			if (host == nullptr)
				return KEL_E_INVALID_SUBNET;  // the fabric-wide endpoint is a subnet
			if (parses_as(AF_INET, value))
				af = AF_INET;
			else if (parses_as(AF_INET6, value))
				af = AF_INET6;
			else
				return KEL_E_INVALID_IPADDR;
		} else {
			kel_ipnet_t net;
			if (kel_parse_ipnet(value, &net) != KEL_SUCCESS)
				return KEL_E_INVALID_IPADDR;
			af = net.ei_af;
		}
		if ((rc = kel_compat_with_mgroup(h, static_cast<sa_family_t>(af), B_TRUE)) != KEL_SUCCESS ||
		    (rc = read_range(h, "vxlan-range", &fabric)) != KEL_SUCCESS)
			return rc;
		if (arg->ecc_vxlanrange == nullptr)
			arg->ecc_vxlanrange = fabric.get();
		if ((rc = check_subrange(h, &arg->ecc_vxlanrange, &norm, fabric.get(), false, host, "vxlan-addr", value,
		         &warning)) != KEL_SUCCESS)
			return rc;
	} else if (arg->ecc_vxlanrange != nullptr) {
		return KEL_E_INVALID_ARGS;
	}
	rc = kel_db_set_uport_or_vaddr_hostprop(h, host, "vxlan-addr", arg);
	return rc != KEL_SUCCESS ? rc : warning;
}

int kel_db_set_uport_or_vaddr_hostprop(kel_dbhandle_t h, const char *host, const char *pname,
    kel_ctrlprop_cbarg_t *cbarg)
{
	const char *def = std::strcmp(pname, "uplink-port") == 0 ? "" : "0.0.0.0";
	kel::Transaction tx(h);
	int rc = tx.begin();
	if (rc == KEL_SUCCESS)
		rc = write_rows(h, host != nullptr ? host : "", pname, def, cbarg);
	return rc != KEL_SUCCESS ? rc : tx.commit();
}

int kel_db_get_uport_or_vaddr_hostprop(kel_dbhandle_t h, attrset_t *props, const char *host, const char *pname,
    char *buf, size_t size)
{
	char *vlanid = nullptr, *vni = nullptr, *l2type = nullptr;
	const bool by_vlan = attrset_lookup_string(props, "vlanid", &vlanid) == 0;
	const bool by_vni = !by_vlan && attrset_lookup_string(props, "vni", &vni) == 0;
	if (!by_vlan && !by_vni)
		KEL_ASSERT(kel::kAreaCtrlProp,
		    attrset_lookup_string(props, "l2-type", &l2type) == 0 && std::strcmp(l2type, "flat") == 0);
	kel::RecordList<kel_ctrlprop_t> rows;
	int rc = rows.read([&](list_t *l) { return kel_db_get_ctrlprop(h, pname, host != nullptr ? host : "", l); });
	if (rc != KEL_SUCCESS)
		return rc;
	rc = KEL_E_NOTFOUND;
	for (kel_ctrlprop_t *p : rows) {
		const bool fits = by_vlan ? serves(p->ecp_vlanrange, vlanid)
		    : by_vni              ? serves(p->ecp_vxlanrange, vni)
		                          : std::strcmp(p->ecp_flatrange, "0") == 0;
		if (fits && size > 0) {
			std::strncat(buf, p->ecp_propval, size - std::strlen(buf) - 1);
			rc = KEL_SUCCESS;
			break;
		}
	}
	return rc;
}
