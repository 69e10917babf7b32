// The node side of a VNIC's attachment: the calls to the controller and the lower link.
#pragma once

#include <cstring>
#include <string>

#include <kel/libkel_node.h>

#include "kelcntl.h"
#include "names.h"

// Asks the controller to bind a port of the kel to `vnicname` on `hostname`.
int kel_assign_vport(const char *tenant, const char *kelname, const char *vportname, const char *vnicname,
    const char *hostname, const char *extra, kelcntl_KELImplInfo **implinfo);
// Releases the port of `vnicname` on `hostname` (with `extra`: the port "vnic" and
// `extra` select); KEL_SUCCESS when none is bound.
int kel_unassign_vport(const char *vnicname, const char *hostname, const char *extra,
    const kel_vport_counters_t *last = nullptr);
// The ports the controller lists for `filter`.
int kel_get_vnic_kelvport(nuq_conn_t *conn, const char *filter, kelcntl_VPortInfo ***array, int *count);

// The name of a kel's address responder link on a host (see names.h): "kel-dhcp" and
// seven hex digits of a hash of the kel's UUID (a link name has at most 15 characters).
std::string kel_dhcp_endpoint(const char *keluuid);
// What the responder hands the guest of the port `implinfo` binds (or, for the responder's
// own link, answers from), as the "field=value" lines the host records with the binding;
// "" when the kel has no network or its operator turned the responder off
// ("dhcp:server=off").
std::string kel_lease_text(const kelcntl_KELImplInfo *implinfo, bool endpoint);

// The lower link for the kel `implinfo` describes: the uplink, or the kel's VXLAN link
// (made unless it exists).
int kel_setup_l2network(wexo_handle_t handle, datalink_id_t *linkid, kelcntl_KELImplInfo *implinfo);
// The VXLAN parameters of `args` with the host's part filled in; a datalink status.
wexo_status_t kel_vxlan_props2kparams(wexo_handle_t handle, const wexo_arg_list_t *args, vxlan_kparams_t *kparams);
