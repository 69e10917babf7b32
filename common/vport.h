// Ports of switches.
#pragma once

#include "libkel.h"

// Writes one binding state of `vport`: status, VNIC, host, and "vmid" (kept from `props`
// when bound, dropped when freed).
int kel_db_assign_vport_common(kel_dbhandle_t h, kel_vport_t *vport, const char *vnicname,
    const char *hostname, attrset_t *props, vport_status_t status);

// Marks a bound port as moving to `host`.
int kel_db_set_vport_migration(kel_dbhandle_t h, kel_vport_t *vport, const char *host);
// Ends a migration seen from `host`: the old host letting go hands the port to the
// destination; the destination letting go leaves it where it was.
int kel_db_clear_vport_migration(kel_dbhandle_t h, kel_vport_t *vport, const char *host,
    const char *filter);
