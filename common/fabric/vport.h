// Ports of switches.
#pragma once

#include <kel/libkel.h>

// Writes one binding state of `vport`: status, VNIC, host, and "vmid" (kept from `props`
// when bound, dropped when freed).
int kel_db_assign_vport_common(kel_dbhandle_t h, kel_vport_t *vport, const char *vnicname, const char *hostname,
    attrset_t *props, vport_status_t status);

// Marks a bound port as moving to `host`.
int kel_db_set_vport_migration(kel_dbhandle_t h, kel_vport_t *vport, const char *host);
// Ends a migration seen from `host`: the old host letting go hands the port to the
// destination; the destination letting go leaves it where it was.
int kel_db_clear_vport_migration(kel_dbhandle_t h, kel_vport_t *vport, const char *host, const char *filter);

// Completes switch `k` with what a node on `host` needs to plumb a VNIC: the default
// protection when it has none, the host's uplink port and, for VXLAN, its endpoint,
// multicast group and IP version. KEL_E_UPLINK_REQUIRED when the host has neither.
int kel_fill_node_view(kel_dbhandle_t h, kel_t *k, const char *host);
