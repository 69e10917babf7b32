// The controller's remote interface. "kelcntl.KEL" objects are the switches, found by
// "name" and "tenant" (tenant "sys-global" when not given); they bind and unbind ports
// for a host's VNICs. The one "kelcntl.KELController" object (no keys) lists ports by a
// filter. Records own their strings and arrays and are freed with their free functions.
// Methods return 0, 1 when the controller answered with a kelcntl_KELError, or a remote
// administration error.
#pragma once

#include "client.h"
#include "server.h"

extern "C" {

typedef struct kelcntl_PropertyNV {
	char *epnv_name;
	char *epnv_value;
} kelcntl_PropertyNV;

typedef struct kelcntl_KELError {
	int ekele_err;		// the library's error code, unchanged
	char *ekele_errmsg;
} kelcntl_KELError;

typedef enum { EVPS_FREE = 0, EVPS_USED = 1 } kelcntl_VPortStatus;
typedef enum { EIPV_IPV4 = 0, EIPV_IPV6 = 1 } kelcntl_IPVersion;
typedef enum { EKELS_IDLE = 0, EKELS_BUSY = 1 } kelcntl_KELStatus;

typedef struct kelcntl_VPortInfo {
	char *evpi_name;
	char *evpi_uuid;
	char *evpi_kelname;
	char *evpi_keluuid;
	char *evpi_tenantname;
	kelcntl_VPortStatus evpi_status;
	char *evpi_vnicname;
	kelcntl_PropertyNV **evpi_props;
	int evpi_props_count;
	char *evpi_hostname;
} kelcntl_VPortInfo;

typedef struct kelcntl_IPnetInfo {
	char *eipi_name;
	char *eipi_uuid;
	char *eipi_kelname;
	char *eipi_keluuid;
	char *eipi_tenantname;
	kelcntl_PropertyNV **eipi_props;
	int eipi_props_count;
	char *eipi_start;
	char *eipi_end;
	char *eipi_range;
	kelcntl_IPVersion eipi_ipvers;
} kelcntl_IPnetInfo;

typedef struct kelcntl_KELInfo {
	char *ekeli_name;
	char *ekeli_uuid;
	char *ekeli_tenantname;
	kelcntl_PropertyNV **ekeli_props;
	int ekeli_props_count;
	kelcntl_KELStatus ekeli_status;
	kelcntl_VPortInfo **ekeli_vports;
	int ekeli_vports_count;
	kelcntl_IPnetInfo **ekeli_ipnets;
	int ekeli_ipnets_count;
} kelcntl_KELInfo;

// What a binding returns: the switch (its first port is the one bound) and, for the
// VNIC's host, the uplink, VXLAN endpoint, multicast group and IP version ("v4", "v6").
typedef struct kelcntl_KELImplInfo {
	kelcntl_KELInfo *ekelii_kelinfo;
	char *ekelii_uplink_port;
	char *ekelii_vxlan_localaddr;
	char *ekelii_vxlan_mgroup;
	char *ekelii_vxlan_ipvers;
} kelcntl_KELImplInfo;

void kelcntl_PropertyNV_free(kelcntl_PropertyNV *nv);
void kelcntl_KELError_free(kelcntl_KELError *err);
void kelcntl_VPortInfo_free(kelcntl_VPortInfo *vport);
void kelcntl_VPortInfo_array_free(kelcntl_VPortInfo **array, int count);
void kelcntl_IPnetInfo_free(kelcntl_IPnetInfo *ipnet);
void kelcntl_KELInfo_free(kelcntl_KELInfo *kel);
void kelcntl_KELImplInfo_free(kelcntl_KELImplInfo *info);

// Finds a switch by (key, value) pairs: "name", and "tenant" (a NULL value is not sent,
// leaving the tenant to default).
int kelcntl_KEL__nuq_lookup(nuq_conn_t *conn, int strict, nuq_instance_t **inst, int nkeys, ...);
// Binds a port of the switch (`vportname`, or a new system port when NULL) to `vnicname`
// on `hostname`; `extra` is passed to the binding as its property text (may be NULL).
int kelcntl_KEL_assignVPort(nuq_instance_t *inst, const char *vnicname, const char *hostname,
    const char *vportname, const char *extra, kelcntl_KELImplInfo **implinfo,
    kelcntl_KELError **err);
// Unbinds the port of `vnicname` on `hostname`; `extra` as the unbinding's filter.
int kelcntl_KEL_unAssignVPort(nuq_instance_t *inst, const char *vnicname, const char *hostname,
    const char *extra, kelcntl_KELError **err);
int kelcntl_KELController__nuq_lookup(nuq_conn_t *conn, int strict, nuq_instance_t **inst,
    int nkeys, ...);
// The ports matching a filter text; none is an empty array (*count 0), not an error.
int kelcntl_KELController_getVPortInfo(nuq_instance_t *inst, const char *filter,
    kelcntl_VPortInfo ***array, int *count, kelcntl_KELError **err);

}

namespace kelcntl {

// The server side, for keld on the controller: each call opens the store for itself.
nuq::Interface kel_interface();
nuq::Interface controller_interface();

}  // namespace kelcntl
