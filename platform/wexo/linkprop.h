// Link properties applied live on a host's link:
//   maxbw=<bandwidth>    a token-bucket (tbf) root qdisc; "maxbw=" removes it
//   priority=low|medium|high   the packets' priority, set on the link's ingress
//   cos=0-7              the 802.1p class on a VLAN link (every packet priority maps to
//                        it); links without tags keep it and report it
//   protection=<flags>   mac-nospoof, ip-nospoof, dhcp-nospoof, restricted; "" clears
//   allowed-ips=<addrs>  the addresses ip-nospoof lets through, changed in place
//   allowed-mac=<mac>    the source address mac-nospoof lets through (default: the
//                        link's own)
// Filters act on the link's ingress, where the traffic of a VNIC's tenant enters the
// host. Each link has one nftables table, "netdev kel_<link>", rebuilt from the link's
// kept settings on every change.
#pragma once

#include "wexo.h"

extern "C" {

wexo_status_t wexo_set_linkprop(wexo_handle_t handle, datalink_id_t id, const char *name,
    const char *value);
// The kept value of a property ("" when unset).
wexo_status_t wexo_get_linkprop(wexo_handle_t handle, datalink_id_t id, const char *name,
    char *value, size_t size);

}
