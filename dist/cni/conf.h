// What a container runtime hands the kel network plugin: the network configuration on
// standard input, read and checked before anything is done with it.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include <nlohmann/json.hpp>

namespace kelcni {

// The plugin's error, as the runtime reads it: the container network interface's codes
// (1-11) or the plugin's own (100 and up).
struct Error {
	int code = 0;
	std::string msg;
	std::string details;
};

enum : int {
	kIncompatibleVersion = 1,
	kUnsupportedField = 2,
	kUnknownContainer = 3,
	kInvalidEnvironment = 4,
	kIoFailure = 5,
	kDecodeFailure = 6,
	kInvalidConfig = 7,
	kTryAgainLater = 11,
	kFabricRefused = 100,  // the fabric could not do what was asked
	kDrift = 101,          // CHECK: the container's interface is not what its binding says
};

// The version this plugin speaks, and every version it answers in.
inline constexpr const char *kVersion = "1.0.0";
inline const std::vector<std::string> kSupportedVersions = {"0.3.0", "0.3.1", "0.4.0", "1.0.0"};

struct NetConf {
	std::string version;  // the configuration's cniVersion
	std::string name;     // the network's
	std::string kel;
	std::string tenant;  // "" for the default tenant
	std::string vport;   // "" for a system port made for the container
	// The port's link properties for the binding (maxbw, priority, cos, protection).
	std::vector<std::pair<std::string, std::string>> props;
	bool default_route = true;  // a default route through the ipnet's router, unless there is one
	std::optional<nlohmann::json> prev_result;
};

// The configuration `text`, checked: malformed JSON is kDecodeFailure, a version this
// plugin does not speak kIncompatibleVersion, a key it does not know kUnsupportedField,
// and a value that is wrong kInvalidConfig.
std::variant<NetConf, Error> parse_conf(const std::string &text);

// Whether `id` is a container ID as runtimes give it: a letter or digit, then letters,
// digits, '_', '.' or '-'.
bool valid_container_id(const std::string &id);

// The binding's property text: the container's ID and the port's link properties, each
// value already checked to carry nothing but itself.
std::string binding_props(const NetConf &conf, const std::string &container_id);

}  // namespace kelcni
