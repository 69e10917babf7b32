// Datalink administration on rtnetlink: a handle is a netlink socket, a datalink ID is
// the link's ifindex. Everything acts on the network namespace of the calling thread.
// The records, statuses and the calls a VNIC's maker uses are public (kel/libkel_node.h),
// those keld serves are kel/sys/fabric.h's; this header adds what only the library uses.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

#include <kel/libkel_node.h>
#include <kel/sys/fabric.h>

extern "C" {

// The properties of `args` that belong to links of `dlclass` into *props: for
// DATALINK_CLASS_VXLAN a mac_vxlan_props_t ("vni", "addr" with an optional prefix
// length, "mgroup", "ipvers", "interface"), with the mask bits of those given. Other
// names are left alone; a value that does not parse is WEXO_STATUS_BADVAL. `linkid`
// and `flags` are unused (the properties are those of a link still to be made).
wexo_status_t wexo_link_proplist_extract(wexo_handle_t handle, datalink_id_t linkid, datalink_class_t dlclass,
    const wexo_arg_list_t *args, void *props, uint32_t flags);

// Makes the VXLAN link `name` from `kparams` (VNI, local endpoint, the link under it,
// multicast group; destination port 4789), up, with the MTU of its underlay (the link
// holding the endpoint, else the link under it) less the encapsulation, 50 bytes over
// IPv4 and 70 over IPv6, and sets the properties of `args` that are not VXLAN
// properties on it. WEXO_STATUS_EXIST, with nothing changed, when a link
// of that name exists; WEXO_STATUS_NOADDR when the endpoint address is set but is not
// one of this host's (vk_ifindex 0). `flags` must hold WEXO_OPT_ACTIVE.
wexo_status_t wexo_vxlan_create(wexo_handle_t handle, const char *name, vxlan_kparams_t *kparams,
    const wexo_arg_list_t *args, uint32_t flags, datalink_id_t *linkidp);
// Deletes the VXLAN link `linkid`, unless another link is made over it or enslaved to
// it: then WEXO_STATUS_LINKBUSY and nothing is deleted (Linux would delete those links
// with it). `flags` must hold WEXO_OPT_ACTIVE.
wexo_status_t wexo_vxlan_delete(wexo_handle_t handle, datalink_id_t linkid, uint32_t flags);

// Makes the VLAN link `name` tagging `vid` (1-4094) on `uplink`, up. WEXO_STATUS_EXIST,
// with nothing changed, when a link of that name exists; WEXO_STATUS_NOTSUP when the
// kernel has no VLAN links. `flags` must hold WEXO_OPT_ACTIVE.
wexo_status_t wexo_vlan_create(wexo_handle_t handle, const char *name, datalink_id_t uplink, uint16_t vid,
    uint32_t flags, datalink_id_t *linkidp);
// Deletes it as wexo_vxlan_delete does a VXLAN link.
wexo_status_t wexo_vlan_delete(wexo_handle_t handle, datalink_id_t linkid, uint32_t flags);

// The link property kept for `id` ("" when unset).
wexo_status_t wexo_get_linkprop(wexo_handle_t handle, datalink_id_t id, const char *name, char *value, size_t size);
}
