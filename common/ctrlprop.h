// Controller properties: the table, listing, the set entry point, and the setters of
// the fabric's ranges, L2 type, URI template, uplinks and VXLAN endpoints.
#pragma once

#include <sys/socket.h>

#include <cstddef>

#include "libkel.h"

typedef enum {
	KEL_CTRL_PROP_HOST = 1,
	KEL_CTRL_PROP_GLOBAL = 2
} kel_ctrlprop_scope_t;

typedef int kel_ctrlprop_setfn_t(kel_dbhandle_t handle, void *cbarg, const char *host);

struct kel_ctrlprop_desc_t {
	const char *ecpd_pname;
	kel_ctrlprop_setfn_t *ecpd_setfn;	// NULL: read-only
	const char *ecpd_defvalue;
	const char *ecpd_perm;
	int ecpd_scope;				// kel_ctrlprop_scope_t bits
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

const kel_ctrlprop_desc_t *kel_get_controller_pdesc_entry(const char *name, boolean_t host);
int kel_parse_ctrlprop(attrset_t *props, char **pname, char **pval, kel_ctrlprop_cbarg_t *cbarg);
// ctrl_pval of row (pname, host), or of the global row for host NULL.
int kel_db_get_one_hostprop(kel_dbhandle_t h, const char *host, const char *pname,
    data_type_t type, void *buf, size_t size);
// Writes row (pname, host) (host NULL: the global row), or deletes it for value NULL.
int kel_db_set_one_hostprop(kel_dbhandle_t h, const char *host, const char *pname,
    const char *value);

// Setters (type kel_ctrlprop_setfn_t).
int kel_set_uri_template(kel_dbhandle_t h, void *cbarg, const char *host);
int kel_set_l2network(kel_dbhandle_t h, void *cbarg, const char *host);
int kel_set_newrange(kel_dbhandle_t h, void *cbarg, const char *host);
int kel_set_mgroup(kel_dbhandle_t h, void *cbarg, const char *host);
int kel_set_ipvers(kel_dbhandle_t h, void *cbarg, const char *host);
int kel_set_addr(kel_dbhandle_t h, void *cbarg, const char *host);
int kel_set_uplinkport(kel_dbhandle_t h, void *cbarg, const char *host);

int kel_update_uport_or_vxlanaddr(kel_dbhandle_t h, char *newrange, boolean_t vlan,
    boolean_t *manual);
int kel_db_validate_subrange(kel_dbhandle_t h, const char *subrange, const char *fullrange,
    boolean_t vlan, const char *host, const char *pname, const char *pval, char **normalized);
int kel_check_host_subranges_compatibility(kel_dbhandle_t h, const char *subrange,
    boolean_t vlan, const char *host, const char *pname, const char *pval, const char *fullrange);
int kel_compat_with_mgroup(kel_dbhandle_t h, sa_family_t af, boolean_t addr);
int kel_db_set_uport_or_vaddr_hostprop(kel_dbhandle_t h, const char *host, const char *pname,
    kel_ctrlprop_cbarg_t *cbarg);
int kel_db_get_uport_or_vaddr_hostprop(kel_dbhandle_t h, attrset_t *props, const char *host,
    const char *pname, char *buf, size_t size);
