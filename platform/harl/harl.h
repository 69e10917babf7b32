// The datalink manager's remote interface, "harl.Datalink", as its clients call it (keld's
// module is beside keld, cmd/keld/harl_module.h): a host's datalinks, found by
// their "name", with their statistics and live link properties. Calls return 0, 1 when
// the host answered with a datalink error record, or a remote administration error.
#pragma once

#include <cstdint>

#include <kel/sys/fabric.h>

#include "nuq_types.h"

extern "C" {

// Sets one link property from "name=value" text ("name=" resets it). `flags` as the
// library passes them (0x8001: apply now, not persistent); properties applied here
// live until the host restarts.
int harl_Datalink_setProperty(nuq_instance_t *inst, const char *text, int flags, harl_DatalinkError **err);
}

#include <string>
#include <vector>

// The flood list of a VXLAN link on the host: its own endpoint and the remote ones.
int harl_Datalink_getFlood(nuq_instance_t *inst, std::string *local, std::vector<std::string> *remotes,
    harl_DatalinkError **err);
// Sets it to `remotes` exactly, or with `only_add` adds those missing.
int harl_Datalink_setFlood(nuq_instance_t *inst, const std::vector<std::string> &remotes, bool only_add,
    harl_DatalinkError **err);

// What is in force on the link, as its host reads it back (see wexo_link_state): its
// address, the link under it, its bandwidth cap and the filters of its table.
struct HarlLinkState {
	std::string mac;
	std::string lower, lower_kind;  // the link it is made over, and that link's kind
	uint32_t lower_id = 0;          // a VXLAN lower link's VNI, a VLAN lower link's ID
	std::string local, group;       // a VXLAN lower link's endpoint and multicast group
	uint64_t maxbw = 0;             // bits per second; 0 for no cap
	bool filtered = false;          // whether it has filters
	std::string filters;            // what the table's rules are for, comma-separated
	std::string allowed;            // the addresses its filters allow, comma-separated
};
int harl_Datalink_getState(nuq_instance_t *inst, HarlLinkState *state, harl_DatalinkError **err);
