// The controller's remote interface. "kelcntl.KEL" objects are the switches, found by
// "name" and "tenant" (tenant "sys-global" when not given); they bind and unbind ports
// for a host's VNICs. The one "kelcntl.KELController" object (no keys) lists ports by a
// filter. The records (public, libkel_node.h) own their strings and arrays and are
// freed with their free functions.
// Methods return 0, 1 when the controller answered with a kelcntl_KELError, or a remote
// administration error.
#pragma once

#include "nuq_types.h"
#include <kel/libkel_node.h>

extern "C" {

// Finds a switch by (key, value) pairs: "name", and "tenant" (a NULL value is not sent,
// leaving the tenant to default).
int kelcntl_KEL__nuq_lookup(nuq_conn_t *conn, int strict, nuq_instance_t **inst, int nkeys, ...);
// Binds a port of the switch (`vportname`, or a new system port when NULL) to `vnicname`
// on `hostname`; `extra` is passed to the binding as its property text (may be NULL).
int kelcntl_KEL_assignVPort(nuq_instance_t *inst, const char *vnicname, const char *hostname,
    const char *vportname, const char *extra, kelcntl_KELImplInfo **implinfo,
    kelcntl_KELError **err);
// Unbinds the port of `vnicname` on `hostname`; `extra` as the unbinding's filter; `last`
// (NULL: none) the counters the VNIC carried, for the port to keep.
int kelcntl_KEL_unAssignVPort(nuq_instance_t *inst, const char *vnicname, const char *hostname,
    const char *extra, const kel_vport_counters_t *last, kelcntl_KELError **err);
// Joins the switch's hosts again when it is a VXLAN switch without a multicast group
// (each host's VXLAN link floods to the others).
int kelcntl_KEL_syncFlood(nuq_instance_t *inst, kelcntl_KELError **err);
int kelcntl_KELController__nuq_lookup(nuq_conn_t *conn, int strict, nuq_instance_t **inst,
    int nkeys, ...);
// The ports matching a filter text; none is an empty array (*count 0), not an error.
int kelcntl_KELController_getVPortInfo(nuq_instance_t *inst, const char *filter,
    kelcntl_VPortInfo ***array, int *count, kelcntl_KELError **err);

}

