#include "result.h"

namespace kelcni {
namespace {

using nlohmann::json;

bool ipv6(const std::string &address)
{
	return address.find(':') != std::string::npos;
}

json list(const json &prev, const char *key)
{
	return prev.contains(key) && prev[key].is_array() ? prev[key] : json::array();
}

}  // namespace

json add_result(const NetConf &conf, const Attachment &a)
{
	const json prev = conf.prev_result.value_or(json::object());
	json out = json::object();
	out["cniVersion"] = conf.version;
	json interfaces = list(prev, "interfaces"), ips = list(prev, "ips"), routes = list(prev, "routes");
	const size_t index = interfaces.size();
	interfaces.push_back({{"name", a.ifname}, {"mac", a.mac}, {"sandbox", a.sandbox}});
	json ip = {{"address", a.address}, {"interface", index}};
	if (!a.gateway.empty())
		ip["gateway"] = a.gateway;
	// Before 1.0.0 each address said its family.
	if (conf.version != "1.0.0")
		ip["version"] = ipv6(a.address) ? "6" : "4";
	ips.push_back(ip);
	if (a.default_route && !a.gateway.empty())
		routes.push_back({{"dst", ipv6(a.address) ? "::/0" : "0.0.0.0/0"}, {"gw", a.gateway}});
	out["interfaces"] = interfaces;
	out["ips"] = ips;
	if (!routes.empty())
		out["routes"] = routes;
	// The name servers of a plugin before this one stand; this network's come otherwise.
	if (prev.contains("dns") && prev["dns"].is_object() && !prev["dns"].empty())
		out["dns"] = prev["dns"];
	else if (!a.dns.empty())
		out["dns"] = {{"nameservers", a.dns}};
	return out;
}

json error_object(const std::string &version, const Error &e)
{
	json out = {{"cniVersion", version.empty() ? kVersion : version}, {"code", e.code}, {"msg", e.msg}};
	if (!e.details.empty())
		out["details"] = e.details;
	return out;
}

}  // namespace kelcni
