// The service configuration repository: typed properties in property groups of service
// instances, kept as one human-readable file per instance under $KEL_ROOT/etc/kel/svc/
// ("svc:/network/kel:default" is network/kel/default.conf). Writes are transactions on
// one property group: a commit that finds the group changed since the transaction
// started answers 0, and the caller updates and retries.
//
// Every call that fails leaves its error number for vur_error() (per thread).
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

extern "C" {

typedef enum { VUR_TYPE_ASTRING = 5, VUR_TYPE_NET_ADDR = 304 } vur_type_t;

// Error numbers, as vur_error() reports them.
#define VUR_ERROR_NONE                1000
#define VUR_ERROR_NOT_BOUND           1001
#define VUR_ERROR_NOT_SET             1002
#define VUR_ERROR_NOT_FOUND           1003
#define VUR_ERROR_TYPE_MISMATCH       1004
#define VUR_ERROR_IN_USE              1005
#define VUR_ERROR_INVALID_ARGUMENT    1007
#define VUR_ERROR_NO_MEMORY           1008
#define VUR_ERROR_CONSTRAINT_VIOLATED 1009
#define VUR_ERROR_EXISTS              1010
#define VUR_ERROR_PERMISSION_DENIED   1013
#define VUR_ERROR_BACKEND_ACCESS      1014

typedef struct vur_handle vur_handle_t;
typedef struct vur_instance vur_instance_t;
typedef struct vur_propertygroup vur_propertygroup_t;
typedef struct vur_property vur_property_t;
typedef struct vur_value vur_value_t;
typedef struct vur_transaction vur_transaction_t;
typedef struct vur_transaction_entry vur_transaction_entry_t;
typedef struct vur_iter vur_iter_t;

// The view a composed read sees; this repository keeps no snapshots.
typedef struct vur_snapshot vur_snapshot_t;

int vur_error(void);
const char *vur_strerror(int err);

vur_handle_t *vur_handle_create(int version);
int vur_handle_bind(vur_handle_t *h);
int vur_handle_unbind(vur_handle_t *h);
void vur_handle_destroy(vur_handle_t *h);

vur_instance_t *vur_instance_create(vur_handle_t *h);
void vur_instance_destroy(vur_instance_t *inst);
// Points `inst` at the instance named "svc:/SERVICE:INSTANCE"; a name without an
// instance part is refused (VUR_ERROR_CONSTRAINT_VIOLATED).
int vur_handle_decode_fmri(vur_handle_t *h, const char *fmri, void *scope, void *service, vur_instance_t *inst,
    void *pg, void *prop, int flags);

vur_propertygroup_t *vur_pg_create(vur_handle_t *h);
void vur_pg_destroy(vur_propertygroup_t *pg);
vur_property_t *vur_property_create(vur_handle_t *h);
void vur_property_destroy(vur_property_t *prop);
vur_value_t *vur_value_create(vur_handle_t *h);
void vur_value_destroy(vur_value_t *val);

// Fetches group `name` of the instance (composed: this repository has instance
// properties only, so it is the instance's own group).
int vur_instance_get_pg_composed(const vur_instance_t *inst, const vur_snapshot_t *snap, const char *name,
    vur_propertygroup_t *pg);
int vur_instance_get_pg(const vur_instance_t *inst, const char *name, vur_propertygroup_t *pg);
// Creates group `name` of `type`; VUR_ERROR_EXISTS when it is there already.
int vur_instance_add_pg(const vur_instance_t *inst, const char *name, const char *type, uint32_t flags,
    vur_propertygroup_t *pg);
int vur_pg_delete(vur_propertygroup_t *pg);
// Re-reads the group; -1 when it no longer exists.
int vur_pg_update(vur_propertygroup_t *pg);
ssize_t vur_pg_get_name(const vur_propertygroup_t *pg, char *buf, size_t size);

int vur_pg_get_property(const vur_propertygroup_t *pg, const char *name, vur_property_t *prop);
ssize_t vur_property_get_name(const vur_property_t *prop, char *buf, size_t size);
int vur_property_get_value(const vur_property_t *prop, vur_value_t *val);

ssize_t vur_value_get_astring(const vur_value_t *val, char *buf, size_t size);
ssize_t vur_value_get_as_string(const vur_value_t *val, char *buf, size_t size);
ssize_t vur_value_get_as_string_typed(const vur_value_t *val, vur_type_t type, char *buf, size_t size);
int vur_value_set_astring(vur_value_t *val, const char *text);
// A NET_ADDR value must be an IPv4 or IPv6 address, optionally with "/prefix".
int vur_value_set_from_string(vur_value_t *val, vur_type_t type, const char *text);

vur_transaction_t *vur_transaction_create(vur_handle_t *h);
void vur_transaction_destroy(vur_transaction_t *tx);
vur_transaction_entry_t *vur_entry_create(vur_handle_t *h);
void vur_entry_destroy(vur_transaction_entry_t *entry);
int vur_transaction_start(vur_transaction_t *tx, vur_propertygroup_t *pg);
// Declares a new property (VUR_ERROR_EXISTS when the group has it), a changed one
// (VUR_ERROR_NOT_FOUND when it has not) or a deleted one (likewise).
int vur_transaction_property_new(vur_transaction_t *tx, vur_transaction_entry_t *entry, const char *name,
    vur_type_t type);
int vur_transaction_property_change(vur_transaction_t *tx, vur_transaction_entry_t *entry, const char *name,
    vur_type_t type);
int vur_transaction_property_delete(vur_transaction_t *tx, vur_transaction_entry_t *entry, const char *name);
int vur_entry_add_value(vur_transaction_entry_t *entry, vur_value_t *val);
// 1 committed; 0 the group changed since the transaction started; -1 failure.
int vur_transaction_commit(vur_transaction_t *tx);
void vur_transaction_reset(vur_transaction_t *tx);

vur_iter_t *vur_iter_create(vur_handle_t *h);
void vur_iter_destroy(vur_iter_t *iter);
void vur_iter_reset(vur_iter_t *iter);
int vur_iter_instance_pgs_typed_composed(vur_iter_t *iter, const vur_instance_t *inst, const vur_snapshot_t *snap,
    const char *type);
int vur_iter_pg_properties(vur_iter_t *iter, const vur_propertygroup_t *pg);
// 1 one more, 0 at the end, -1 failure.
int vur_iter_next_pg(vur_iter_t *iter, vur_propertygroup_t *pg);
int vur_iter_next_property(vur_iter_t *iter, vur_property_t *prop);

// Asks the running daemon to re-read its configuration (SIGHUP through the pid file
// under /run/kel); succeeds when none runs. 0 on success, -1 with vur_error().
int tog_refresh_instance(const char *fmri);
}
