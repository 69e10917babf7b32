// The flood lists of a VXLAN kel without a multicast group, as its hosts' links have them:
// what sync-flood sets and verify compares.
#pragma once

#include <string>
#include <vector>

#include <kel/libkel.h>
#include "host_link.h"

namespace kel {

// One host of the kel and what its link said.
struct FloodMember {
	std::string host;
	HostLink link;
	bool reached = false;              // its keld answered
	bool has_link = false;             // and it has the kel's link: not before its first VNIC
	std::string local;                 // the link's own endpoint
	std::vector<std::string> remotes;  // the endpoints it floods to
};

// The endpoints `to` should flood to, sorted: every other member's with a link, each
// once, that a link of `to`'s family can send to.
std::vector<std::string> flood_wanted(const std::vector<FloodMember> &members, const FloodMember &to);

// For a VXLAN kel without a group, each of its hosts with what its link says, in host
// order; none for any other kel.
int read_flood(kel_dbhandle_t h, const char *tenant, const char *kel, std::vector<FloodMember> *members);

}  // namespace kel
