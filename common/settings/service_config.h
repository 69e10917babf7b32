// Access to the service configuration repository: the node's client settings and the
// controller's identity live there, not in the store.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include <kel/libkel.h>
#include "owners.h"
#include "store_setting.h"
#include "vur.h"

inline constexpr const char *KEL_NODE_FMRI = "svc:/network/kel:default";
inline constexpr const char *KEL_CONTROLLER_FMRI = kel::store::kControllerInstance;

// One open service instance, with the objects of the read or write under way.
struct kel_vur_state_t {
	vur_handle_t *ess_handle;
	vur_instance_t *ess_inst;
	vur_transaction_t *ess_trans;
	vur_transaction_entry_t *ess_tent;
	vur_propertygroup_t *ess_pg;
	vur_property_t *ess_prop;
};

typedef int kel_tog_setfn_t(kel_dbhandle_t handle, void *descriptor, const char *pgname, void *value);

// One client setting: where it lives, its default, how it is set.
struct kel_tog_pdesc_t {
	const char *espd_pname;
	const char *espd_pgname;
	const char *espd_defvalue;
	vur_type_t espd_ptype;
	kel_tog_setfn_t *espd_setfn;
	const char *espd_perm;
};

// The client settings, ended by a row whose name is NULL.
extern const kel_tog_pdesc_t kel_tog_client_table[];

// Opens the service instance `instance` (an FMRI such as KEL_NODE_FMRI) into *state,
// which kel_vur_close releases (also after a failed open; NULL is accepted).
int kel_vur_open(const char *instance, kel_vur_state_t *state);
void kel_vur_close(kel_vur_state_t *state);
// Reads the group `pgname` of the open instance, as composed from the instance and its
// service, into state->ess_pg (with a property object in state->ess_prop):
// KEL_E_NOTFOUND when there is no such group. kel_drop_composed releases what a read or
// a write left in *state; the instance stays open.
int kel_get_composed_properties(const char *pgname, kel_vur_state_t *state);
void kel_drop_composed(kel_vur_state_t *state);
// Reads property pgname/pname as text into buf: KEL_E_NOTFOUND when the group or the
// property is missing, KEL_E_VUR with the repository's error otherwise.
int kel_tog_get_value(kel_vur_state_t *state, const char *pgname, const char *pname, vur_type_t type, void *buf,
    size_t size);
// The same on an instance opened and closed for the one read.
int kel_tog_get_one_value(const char *instance, const char *pgname, const char *pname, vur_type_t type, void *buf,
    size_t size);
// Writes `value` (text), or deletes the property when `value` is NULL. A write retries
// while another writer changes the group; a failed write into a group it created
// removes the group again.
int kel_tog_set_value(kel_vur_state_t *state, const char *pgname, const char *pname, vur_type_t type, void *value);
// The same on an instance opened and closed for the one write (telling a running keld
// is the caller's part).
int kel_tog_set_one_value(const char *instance, const char *pgname, const char *pname, vur_type_t type, void *value);
// The row of setting `name` in `table`; NULL when it has none.
const kel_tog_pdesc_t *kel_get_tog_pdesc_entry(const kel_tog_pdesc_t *table, const char *name);
// Appends a kel_togprop_t to `list` for each client setting of `instance` (only the node
// instance has them) named in `names` (NULL: all), with its value or default.
int kel_walk_togprop(const char *instance, attrset_t *names, kel::RecordList<kel_togprop_t> *list);
namespace kel {

// The controllers a host's "controller" setting names, in its order: URIs separated by
// commas, blanks around them ignored. An empty setting names none.
std::vector<std::string> controller_list(const std::string &setting);

}  // namespace kel

// The setter of "controller": `descriptor` is its kel_tog_pdesc_t row, `value` the URI
// text (unix:// or ssh://; "" resets it to the default). KEL_E_INVALID_URI for any
// other text. The handle is unused: the setting is not in the store.
int kel_set_controller(kel_dbhandle_t handle, void *descriptor, const char *pgname, void *value);
