// Changing one property of a switch, port or network: in the store and, for link
// properties of bound ports, live on the ports' hosts.
#pragma once

#include <kel/libkel.h>
#include "harl.h"
#include "nuq_types.h"

int kel_db_set_one_kelprop(kel_dbhandle_t h, kel_t *kel, const char *name, const char *value, uint32_t flags);
int kel_db_set_one_vportprop(kel_dbhandle_t h, kel_vport_t *vport, const char *name, const char *value, uint32_t flags);
int kel_db_set_one_ipnetprop(kel_dbhandle_t h, kel_ipnet_t *ipnet, const char *name, const char *value, uint32_t flags);
// The link properties a binding's caller gave ("maxbw", "protection", ...), each checked
// as set-vportprop checks it and stored on the port being bound; the binding's own
// ("vmid", "containerid") are left to it. KEL_E_INVALID_PROP for anything else.
int kel_db_set_bind_props(kel_dbhandle_t h, kel_vport_t *vport, attrset_t *props);
// The available pool that `newpool` (normalised) leaves: KEL_E_RANGE_INUSE unless it keeps
// every address in use. *newavail is the caller's to free.
int kel_db_validate_newpool(kel_dbhandle_t h, kel_ipnet_t *ipnet, const char *newpool, char **newavail);
// Sets one link property on a port's VNIC (an empty value: the catalogue default).
int kel_host_set_one_linkprop(nuq_instance_t *link, attrset_t *kelprops, attrset_t *vportprops, const char *name,
    const char *value, uint32_t flags);
// After a protection change: the port's address as the only allowed source under
// ip-nospoof, else none. On failure the protection is put back and the failed call's
// result returned (its error record left in *err).
int kel_set_allowed_ips(nuq_instance_t *link, attrset_t *kelprops, attrset_t *vportprops, const char *name,
    const char *protection, int flags, harl_DatalinkError **err);
