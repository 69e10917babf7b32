#include "conf.h"

#include <algorithm>
#include <cctype>

#include <kel/libkel.h>

namespace kelcni {
namespace {

using nlohmann::json;

// Keys every container network configuration may carry, or that runtimes add to it.
const std::vector<std::string> kCommonKeys = {"cniVersion", "name", "type", "args", "runtimeConfig", "capabilities",
    "prevResult", "dns", "cniVersions", "disableCheck"};
const std::vector<std::string> kPluginKeys = {"kel", "tenant", "vport", "properties", "defaultRoute"};
const std::vector<std::string> kLinkProps = {"maxbw", "priority", "cos", "protection"};

bool known(const std::vector<std::string> &keys, const std::string &key)
{
	return std::find(keys.begin(), keys.end(), key) != keys.end();
}

Error invalid(const std::string &msg, const std::string &details = "")
{
	return Error{kInvalidConfig, msg, details};
}

// A property value carries only itself into the binding's text: no '=' to start another
// property, no ',' but between the words of a protection.
bool valid_value(const std::string &name, const std::string &value)
{
	if (value.empty() || value.size() > 256)
		return false;
	for (const char c : value)
		if (!std::isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '-' &&
		    !(c == ',' && name == "protection"))
			return false;
	return value.front() != ',' && value.back() != ',';
}

// A name field: absent is "", present must be a string the store takes as a name.
std::optional<Error> name_field(const json &conf, const char *key, bool required, std::string *out)
{
	if (!conf.contains(key)) {
		if (required)
			return invalid(std::string("\"") + key + "\" is missing: the kel to join");
		return std::nullopt;
	}
	if (!conf[key].is_string() || !kel_valid_name(conf[key].get<std::string>().c_str()))
		return invalid(std::string("\"") + key + "\" is not a name", conf[key].dump());
	*out = conf[key].get<std::string>();
	return std::nullopt;
}

}  // namespace

bool valid_container_id(const std::string &id)
{
	if (id.empty() || id.size() > 256 || !std::isalnum(static_cast<unsigned char>(id[0])))
		return false;
	return std::all_of(id.begin(), id.end(),
	    [](char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '.' || c == '-'; });
}

std::variant<NetConf, Error> parse_conf(const std::string &text)
{
	json conf;
	try {
		conf = json::parse(text);
	} catch (const json::exception &e) {
		return Error{kDecodeFailure, "the network configuration is not JSON", e.what()};
	}
	if (!conf.is_object())
		return Error{kDecodeFailure, "the network configuration is not a JSON object", ""};
	NetConf out;
	if (!conf.contains("cniVersion") || !conf["cniVersion"].is_string())
		return invalid("\"cniVersion\" is missing");
	out.version = conf["cniVersion"].get<std::string>();
	if (!known(kSupportedVersions, out.version))
		return Error{kIncompatibleVersion, "incompatible CNI version",
		    "\"" + out.version + "\" is not one of 0.3.0, 0.3.1, 0.4.0, 1.0.0"};
	if (conf.contains("name") && conf["name"].is_string())
		out.name = conf["name"].get<std::string>();
	for (const auto &[key, value] : conf.items())
		if (!known(kCommonKeys, key) && !known(kPluginKeys, key))
			return Error{kUnsupportedField, "unsupported field in network configuration",
			    key + "=" + value.dump()};
	if (conf.contains("ipam") || conf.contains("ipMasq"))
		return Error{kUnsupportedField, "unsupported field in network configuration",
		    "the fabric gives the addresses"};
	if (auto e = name_field(conf, "kel", true, &out.kel))
		return *e;
	if (auto e = name_field(conf, "tenant", false, &out.tenant))
		return *e;
	if (auto e = name_field(conf, "vport", false, &out.vport))
		return *e;
	if (conf.contains("defaultRoute")) {
		if (!conf["defaultRoute"].is_boolean())
			return invalid("\"defaultRoute\" is not true or false", conf["defaultRoute"].dump());
		out.default_route = conf["defaultRoute"].get<bool>();
	}
	if (conf.contains("properties")) {
		const json &props = conf["properties"];
		if (!props.is_object())
			return invalid("\"properties\" is not an object of port properties", props.dump());
		for (const auto &[name, value] : props.items()) {
			if (!known(kLinkProps, name))
				return invalid("\"" + name + "\" is not a port property this plugin sets",
				    "maxbw, priority, cos or protection");
			if (!value.is_string() || !valid_value(name, value.get<std::string>()))
				return invalid("the value of \"" + name + "\" is not valid", value.dump());
			out.props.emplace_back(name, value.get<std::string>());
		}
	}
	if (conf.contains("prevResult")) {
		if (!conf["prevResult"].is_object())
			return invalid("\"prevResult\" is not an object", "");
		out.prev_result = conf["prevResult"];
	}
	return out;
}

std::string binding_props(const NetConf &conf, const std::string &container_id)
{
	std::string text = "containerid=" + container_id;
	for (const auto &[name, value] : conf.props)
		text += "," + name + "=" + value;
	return text;
}

}  // namespace kelcni
