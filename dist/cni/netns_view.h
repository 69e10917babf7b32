// What a container's network namespace holds, read from inside it: its links' MAC
// addresses and addresses, and its default routes. For the runtime's CHECK, and for ADD
// to say whether the default route it asked for is this network's.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace kelcni {

struct LinkView {
	std::string mac;                     // "02:08:20:0a:0b:0c"
	std::vector<std::string> addresses;  // "10.1.0.5/24", "2001:db8::5/64"
};

struct DefaultRoute {
	std::string ifname;
	std::string gateway;  // "" when the route has none
};

struct NetnsView {
	bool opened = false;  // false: the namespace is gone, or not a network namespace
	std::map<std::string, LinkView> links;
	std::vector<DefaultRoute> defaults;  // of both families
};

// The namespace whose file is at `path` (the caller's own namespace stays its own).
NetnsView view_netns(const std::string &path);

// A MAC address in the form the kernel prints it, from any form with one or two hex
// digits between colons; "" when `text` is none.
std::string canonical_mac(const std::string &text);

}  // namespace kelcni
