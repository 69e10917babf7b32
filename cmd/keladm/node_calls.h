// The node side's calls, for the VNIC commands. keladm links libkel.so only and loads
// libkel_node.so when a VNIC command first needs it, so that every other command starts
// without netlink, nftables and what they pull in.
#pragma once

#include <kel/libkel_node.h>

namespace keladm {

// Laid out by hand: clang-format does not lay this list out the same way twice.
// clang-format off
#define KELADM_NODE_CALLS(X)                                                                    \
	X(kel_vnic_create) X(kel_vnic_free) X(kel_vnic_remove) X(kel_vnic_name) X(kel_get_host_vnicinfo) \
	X(kel_get_recorded_vnicinfo) X(kel_get_vnicinfo) X(kel_get_vnicstat) X(wexo_close)       \
	X(wexo_datalink_id2info) X(wexo_link_mtu) X(wexo_name2info) X(wexo_open_netns) X(wexo_vnic_lower)
// clang-format on

struct NodeCalls {
#define KELADM_NODE_FIELD(name) decltype(&::name) name = nullptr;
	KELADM_NODE_CALLS(KELADM_NODE_FIELD)
#undef KELADM_NODE_FIELD
};

// Loads the node side on first use; false after saying why it could not be loaded.
bool load_node_calls();
// The calls; only after load_node_calls succeeded.
const NodeCalls &node();

}  // namespace keladm
