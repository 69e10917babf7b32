// The result of ADD as the runtime reads it: what this plugin attached, added to what
// the plugins before it in the chain attached (prevResult), in the configuration's
// version.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "conf.h"

namespace kelcni {

// The container's interface on the kel.
struct Attachment {
	std::string ifname;
	std::string mac;
	std::string sandbox;           // the namespace's path, as the runtime gave it
	std::string address;           // the port's, with the ipnet's prefix length ("10.1.0.5/24")
	std::string gateway;           // the ipnet's router ("" when it has none)
	bool default_route = false;    // the namespace's default route is through the gateway here
	std::vector<std::string> dns;  // name servers of the address's family
};

nlohmann::json add_result(const NetConf &conf, const Attachment &a);

// The error object, in the configuration's version (the plugin's when it has none).
nlohmann::json error_object(const std::string &version, const Error &e);

}  // namespace kelcni
