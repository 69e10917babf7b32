// Ports of switches.
#pragma once

#include "libkel.h"

// Writes one binding state of `vport`: status, VNIC, host, and "vmid" (kept from `props`
// when bound, dropped when freed).
int kel_db_assign_vport_common(kel_dbhandle_t h, kel_vport_t *vport, const char *vnicname,
    const char *hostname, attrset_t *props, vport_status_t status);
