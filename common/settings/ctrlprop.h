// Controller properties: the table, listing, the set entry point, and the setters of
// the fabric's ranges, L2 type, URI template, uplinks and VXLAN endpoints.
#pragma once

#include <sys/socket.h>

#include <cstddef>

#include <kel/libkel.h>

typedef enum { KEL_CTRL_PROP_HOST = 1, KEL_CTRL_PROP_GLOBAL = 2 } kel_ctrlprop_scope_t;

typedef int kel_ctrlprop_setfn_t(kel_dbhandle_t handle, void *cbarg, const char *host);

struct kel_ctrlprop_desc_t {
	const char *ecpd_pname;
	kel_ctrlprop_setfn_t *ecpd_setfn;  // NULL: read-only
	const char *ecpd_defvalue;
	const char *ecpd_perm;
	int ecpd_scope;  // kel_ctrlprop_scope_t bits
};

// What the set entry point hands a setter: the property, its new value (NULL: reset)
// and the attributes given with it.
struct kel_ctrlprop_cbarg_t {
	const kel_ctrlprop_desc_t *ecc_pdp;
	void *ecc_arg;
	char *ecc_vlanrange;
	char *ecc_vxlanrange;
	char *ecc_flatstr;
	boolean_t ecc_reset_vlanrange;
	boolean_t ecc_reset_vxlanrange;
	boolean_t ecc_reset_flat;
};

extern const kel_ctrlprop_desc_t kel_ctrlprop_table[];

// The table row of property `name`; NULL when there is none, or when `host` is set (the
// property is being set for one host) and the property has no per-host rows.
const kel_ctrlprop_desc_t *kel_get_controller_pdesc_entry(const char *name, boolean_t host);
// Reads the caller's "name=value,attribute=value..." set: *pname and *pval point into
// `props` (which must outlive them), and *cbarg gets the attributes (vlan-range,
// vxlan-range, flat) that may come with uplink-port and vxlan-addr. KEL_E_UPLINK_ATTRS
// or KEL_E_VXLANADDR_ATTRS for an attribute the property does not take,
// KEL_E_INVALID_ARGS for more than one property.
int kel_parse_ctrlprop(attrset_t *props, char **pname, char **pval, kel_ctrlprop_cbarg_t *cbarg);
// ctrl_pval of row (pname, host), or of the global row for host NULL.
int kel_db_get_one_hostprop(kel_dbhandle_t h, const char *host, const char *pname, data_type_t type, void *buf,
    size_t size);
// Writes row (pname, host) (host NULL: the global row), or deletes it for value NULL.
int kel_db_set_one_hostprop(kel_dbhandle_t h, const char *host, const char *pname, const char *value);

// Setters (type kel_ctrlprop_setfn_t): `cbarg` is a kel_ctrlprop_cbarg_t, `host` NULL
// sets the fabric-wide row. Each validates the value and writes within the caller's
// store lock; a setter that changes a range also moves the rows that share it.
int kel_set_uri_template(kel_dbhandle_t h, void *cbarg, const char *host);
int kel_set_l2network(kel_dbhandle_t h, void *cbarg, const char *host);
int kel_set_newrange(kel_dbhandle_t h, void *cbarg, const char *host);
int kel_set_mgroup(kel_dbhandle_t h, void *cbarg, const char *host);
int kel_set_ipvers(kel_dbhandle_t h, void *cbarg, const char *host);
int kel_set_addr(kel_dbhandle_t h, void *cbarg, const char *host);
int kel_set_uplinkport(kel_dbhandle_t h, void *cbarg, const char *host);

// After the fabric's VLAN range (`vlan` true) or VXLAN range (false) became `newrange`:
// when a single uplink-port row (and, for VXLAN, a single vxlan-addr row) serves it,
// that row's share follows the new range. With two or more rows, nothing is moved and
// *manual is set: the operator must share the range out again.
int kel_update_uport_or_vxlanaddr(kel_dbhandle_t h, char *newrange, boolean_t vlan, boolean_t *manual);
// Checks a row's share `subrange` of `fullrange` (the fabric's VLAN range when `vlan`,
// else its VXLAN range) for row (pname, pval) of `host`, and returns it normalised in
// *normalized (the caller frees it). KEL_E_RANGE_PARTIAL (with *normalized set) when
// the rows together leave part of the range unserved; see below for overlaps.
int kel_db_validate_subrange(kel_dbhandle_t h, const char *subrange, const char *fullrange, boolean_t vlan,
    const char *host, const char *pname, const char *pval, char **normalized);
// Whether `subrange` and the shares of the other rows of `pname` on `host` (all but the
// one whose value is `pval`) fit inside `fullrange` without overlapping:
// KEL_E_RANGE_OVERLAP when two overlap, KEL_E_RANGE_PARTIAL when together they leave
// part of it unserved. `vlan` picks the VLAN shares, else the VXLAN shares.
int kel_check_host_subranges_compatibility(kel_dbhandle_t h, const char *subrange, boolean_t vlan, const char *host,
    const char *pname, const char *pval, const char *fullrange);
// Whether the fabric's multicast group (when set) is of family `af`: the mismatch is
// KEL_E_ADDR_MGROUP_MISMATCH when `addr` (an endpoint address is being set), else
// KEL_E_IPVERS_MGROUP_MISMATCH (the IP version is).
int kel_compat_with_mgroup(kel_dbhandle_t h, sa_family_t af, boolean_t addr);
// Writes the rows of `pname` ("uplink-port" or "vxlan-addr") for `host` (NULL: the
// fabric's) from cbarg's value and ranges, in one transaction.
int kel_db_set_uport_or_vaddr_hostprop(kel_dbhandle_t h, const char *host, const char *pname,
    kel_ctrlprop_cbarg_t *cbarg);
// Appends to `buf` the value of the row of `pname` on `host` that serves the kel whose
// properties are `props`: the row whose share holds the kel's "vlanid" or "vni", or,
// for a flat kel, the row that carries flat kels. KEL_E_NOTFOUND when none does.
int kel_db_get_uport_or_vaddr_hostprop(kel_dbhandle_t h, attrset_t *props, const char *host, const char *pname,
    char *buf, size_t size);
