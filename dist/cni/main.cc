// The kel network plugin for container runtimes. The runtime runs it with the command
// and the container in the environment (CNI_COMMAND, CNI_CONTAINERID, CNI_NETNS,
// CNI_IFNAME) and the network configuration on standard input:
//   ADD      binds a port of the configuration's kel to a VNIC made in the container's
//            namespace, with the port's MAC address, address, router and MTU, and prints
//            the result (added to the previous plugins' result)
//   DEL      removes the container's VNIC on the kel and releases its port, whatever is
//            left of either; nothing left is success
//   CHECK    says whether the container's interface is still what its binding and the
//            result of ADD say
//   VERSION  the versions it speaks
// A failure prints the error object on standard output and exits 1.
#include <net/if.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include <kel/libkel.h>
#include <kel/libkel_node.h>
#include "conf.h"
#include "netns_view.h"
#include "result.h"

namespace {

using kelcni::Error;
using kelcni::NetConf;
using nlohmann::json;

struct Env {
	std::string command, container, netns, ifname;
};

std::string env(const char *name)
{
	const char *value = std::getenv(name);
	return value != nullptr ? value : "";
}

std::string version_of_input = kelcni::kVersion;

[[noreturn]] void fail(const Error &e)
{
	std::cout << kelcni::error_object(version_of_input, e).dump() << std::endl;
	std::exit(1);
}

std::string library_message(int rc)
{
	char buf[256];
	return kel_errmsg(rc, buf, sizeof(buf));
}

std::string remote_prop(kelcntl_PropertyNV **props, int count, const char *name)
{
	const char *value = kel_propattrset_lookup(props, count, name);
	return value != nullptr ? value : "";
}

// The container's environment, checked: a wrong one is the runtime's fault.
Env read_env(bool netns_required)
{
	Env e{env("CNI_COMMAND"), env("CNI_CONTAINERID"), env("CNI_NETNS"), env("CNI_IFNAME")};
	if (!kelcni::valid_container_id(e.container))
		fail({kelcni::kInvalidEnvironment, "CNI_CONTAINERID is not a container ID", e.container});
	if (e.ifname.empty() || e.ifname.size() >= IF_NAMESIZE || e.ifname.find('/') != std::string::npos ||
	    e.ifname.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-.") !=
	        std::string::npos)
		fail({kelcni::kInvalidEnvironment, "CNI_IFNAME is not a link name", e.ifname});
	if ((netns_required || !e.netns.empty()) && (e.netns.empty() || e.netns[0] != '/'))
		fail({kelcni::kInvalidEnvironment, "CNI_NETNS is not the path of a network namespace", e.netns});
	return e;
}

bool ipv6(const std::string &address)
{
	return address.find(':') != std::string::npos;
}

// The name servers of the kel ("dhcp:dns") of the address's family.
std::vector<std::string> name_servers(const kelcntl_KELInfo *k, bool v6)
{
	std::vector<std::string> out;
	const std::string list = remote_prop(k->ekeli_props, k->ekeli_props_count, "dhcp:dns");
	for (size_t start = 0; start < list.size();) {
		size_t end = list.find_first_of(", ", start);
		if (end == std::string::npos)
			end = list.size();
		const std::string one = list.substr(start, end - start);
		if (!one.empty() && ipv6(one) == v6)
			out.push_back(one);
		start = end + 1;
	}
	return out;
}

void add(const NetConf &conf, const Env &e)
{
	const std::string vnic = e.netns + "/" + e.ifname;
	const std::string props = kelcni::binding_props(conf, e.container);
	kel_vnic_t made;
	const int rc = kel_vnic_create(conf.tenant.empty() ? nullptr : conf.tenant.c_str(), conf.kel.c_str(),
	    conf.vport.empty() ? nullptr : conf.vport.c_str(), vnic.c_str(), props.c_str(), WEXO_VNIC_MACVLAN,
	    KEL_VNIC_ADDRESS | (conf.default_route ? 0 : KEL_VNIC_NO_ROUTE), &made);
	if (rc != KEL_SUCCESS)
		fail({kelcni::kFabricRefused, "cannot attach the container to kel " + conf.kel, library_message(rc)});
	const std::unique_ptr<kel_vnic_t, void (*)(kel_vnic_t *)> owned(&made, kel_vnic_free);
	const kelcntl_KELInfo *k = made.kv_implinfo->ekelii_kelinfo;
	const kelcntl_VPortInfo *port = k->ekeli_vports[0];
	kelcni::Attachment a;
	a.ifname = e.ifname;
	a.sandbox = e.netns;
	a.mac = kelcni::canonical_mac(remote_prop(port->evpi_props, port->evpi_props_count, "macaddr"));
	a.address = remote_prop(port->evpi_props, port->evpi_props_count, "ipaddr");
	if (k->ekeli_ipnets_count > 0 && k->ekeli_ipnets[0] != nullptr) {
		const kelcntl_IPnetInfo *net = k->ekeli_ipnets[0];
		const std::string router = remote_prop(net->eipi_props, net->eipi_props_count, "defrouter");
		if (router != "0.0.0.0" && router != "::")
			a.gateway = router;
	}
	a.dns = name_servers(k, ipv6(a.address));
	// The route is this network's only when the namespace had none before it.
	if (conf.default_route && !a.gateway.empty())
		for (const kelcni::DefaultRoute &r : kelcni::view_netns(e.netns).defaults)
			a.default_route = a.default_route || (r.ifname == e.ifname && r.gateway == a.gateway);
	std::cout << kelcni::add_result(conf, a).dump() << std::endl;
}

bool tenant_matches(const NetConf &conf, const char *tenant)
{
	return (conf.tenant.empty() ? std::string(KEL_DEFAULT_TENANT) : conf.tenant) ==
	    (tenant != nullptr ? tenant : "");
}

void del(const NetConf &conf, const Env &e)
{
	// The controller knows which VNICs of this host the container holds on this kel,
	// whether or not its namespace is still there.
	kelcntl_VPortInfo **ports = nullptr;
	int count = 0;
	int rc = kel_get_host_vnicinfo(&ports, &count);
	if (rc != KEL_SUCCESS)
		fail({kelcni::kTryAgainLater, "cannot ask the fabric's controller what the container holds",
		    library_message(rc)});
	std::vector<std::string> vnics;
	const std::string suffix = "/" + e.ifname;
	for (int i = 0; i < count; i++) {
		const kelcntl_VPortInfo *p = ports[i];
		const std::string name = p->evpi_vnicname != nullptr ? p->evpi_vnicname : "";
		if (remote_prop(p->evpi_props, p->evpi_props_count, "containerid") == e.container &&
		    name.size() > suffix.size() &&
		    name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0 &&
		    p->evpi_kelname != nullptr && conf.kel == p->evpi_kelname &&
		    tenant_matches(conf, p->evpi_tenantname))
			vnics.push_back(name);
	}
	kelcntl_VPortInfo_array_free(ports, count);
	for (const std::string &vnic : vnics)
		if ((rc = kel_vnic_remove(vnic.c_str(), nullptr, 0)) != KEL_SUCCESS && rc != KEL_E_VPORT_NOTFOUND)
			fail({kelcni::kFabricRefused, "cannot release the container's port on kel " + conf.kel,
			    library_message(rc)});
}

[[noreturn]] void drift(const std::string &what, const std::string &details = "")
{
	fail({kelcni::kDrift, what, details});
}

void check(const NetConf &conf, const Env &e)
{
	if (!conf.prev_result)
		fail({kelcni::kInvalidConfig, "CHECK needs the result of ADD (prevResult)", ""});
	char name[512];
	int rc = kel_vnic_name((e.netns + "/" + e.ifname).c_str(), 0, name, sizeof(name));
	if (rc != KEL_SUCCESS)
		fail(
		    {kelcni::kUnknownContainer, "the container's network namespace is not there", library_message(rc)});
	kelcntl_VPortInfo **ports = nullptr;
	int count = 0;
	if ((rc = kel_get_vnicinfo(name, &ports, &count)) != KEL_SUCCESS)
		fail({kelcni::kTryAgainLater, "cannot ask the fabric's controller for the binding",
		    library_message(rc)});
	const std::unique_ptr<kelcntl_VPortInfo *, std::function<void(kelcntl_VPortInfo **)>> owned(ports,
	    [count](kelcntl_VPortInfo **p) { kelcntl_VPortInfo_array_free(p, count); });
	if (count == 0 || ports[0]->evpi_kelname == nullptr || conf.kel != ports[0]->evpi_kelname)
		drift("no port of kel " + conf.kel + " is bound to " + e.ifname);
	const kelcntl_VPortInfo *port = ports[0];
	if (remote_prop(port->evpi_props, port->evpi_props_count, "containerid") != e.container)
		drift("the port bound to " + e.ifname + " is held by another container");
	const std::string mac = kelcni::canonical_mac(remote_prop(port->evpi_props, port->evpi_props_count, "macaddr"));
	const std::string address = remote_prop(port->evpi_props, port->evpi_props_count, "ipaddr");

	const kelcni::NetnsView view = kelcni::view_netns(e.netns);
	const auto link = view.links.find(e.ifname);
	if (!view.opened || link == view.links.end())
		drift("the container has no interface " + e.ifname);
	if (link->second.mac != mac)
		drift("the MAC address of " + e.ifname + " is not its port's", link->second.mac + ", not " + mac);
	if (std::find(link->second.addresses.begin(), link->second.addresses.end(), address) ==
	    link->second.addresses.end())
		drift(e.ifname + " does not have its port's address", address);

	// What ADD said of this interface must still hold.
	const json &prev = *conf.prev_result;
	int index = -1;
	if (prev.contains("interfaces") && prev["interfaces"].is_array())
		for (size_t i = 0; i < prev["interfaces"].size(); i++) {
			const json &itf = prev["interfaces"][i];
			if (itf.is_object() && itf.value("name", "") == e.ifname && itf.value("sandbox", "") == e.netns)
				index = static_cast<int>(i);
		}
	if (index < 0)
		drift("the result of ADD has no interface " + e.ifname);
	if (kelcni::canonical_mac(prev["interfaces"][index].value("mac", "")) != mac)
		drift("the result of ADD gave " + e.ifname + " another MAC address");
	std::string gateway;
	bool listed = false;
	for (const json &ip : prev.value("ips", json::array()))
		if (ip.is_object() && ip.value("interface", -1) == index && ip.value("address", "") == address) {
			listed = true;
			gateway = ip.value("gateway", "");
		}
	if (!listed)
		drift("the result of ADD did not give " + e.ifname + " its port's address", address);
	for (const json &r : prev.value("routes", json::array())) {
		if (!r.is_object() || r.value("gw", "") != gateway || gateway.empty() ||
		    (r.value("dst", "") != "0.0.0.0/0" && r.value("dst", "") != "::/0"))
			continue;
		bool there = false;
		for (const kelcni::DefaultRoute &d : view.defaults)
			there = there || (d.ifname == e.ifname && d.gateway == gateway);
		if (!there)
			drift("the default route through " + gateway + " on " + e.ifname + " is gone");
	}
}

void version(const std::string &input)
{
	// The input names the version the runtime speaks; the answer lists ours.
	const json in = json::parse(input, nullptr, false);
	std::string v = kelcni::kVersion;
	if (in.is_object() && in.contains("cniVersion") && in["cniVersion"].is_string() &&
	    std::find(kelcni::kSupportedVersions.begin(), kelcni::kSupportedVersions.end(), in["cniVersion"]) !=
	        kelcni::kSupportedVersions.end())
		v = in["cniVersion"].get<std::string>();
	std::cout << json({{"cniVersion", v}, {"supportedVersions", kelcni::kSupportedVersions}}).dump() << std::endl;
}

}  // namespace

int main()
{
	// A configuration is small: more than this on standard input is no configuration.
	constexpr size_t kMaxInput = 1 << 20;
	std::string input;
	char buf[4096];
	for (ssize_t n; (n = read(STDIN_FILENO, buf, sizeof(buf))) > 0 || (n < 0 && errno == EINTR);) {
		if (n > 0)
			input.append(buf, static_cast<size_t>(n));
		if (input.size() > kMaxInput)
			fail({kelcni::kDecodeFailure, "the network configuration is too large", ""});
	}
	const std::string command = env("CNI_COMMAND");
	if (command == "VERSION") {
		version(input);
		return 0;
	}
	if (command != "ADD" && command != "DEL" && command != "CHECK")
		fail({kelcni::kInvalidEnvironment, "CNI_COMMAND is not ADD, DEL, CHECK or VERSION", command});
	auto parsed = kelcni::parse_conf(input);
	if (const Error *e = std::get_if<Error>(&parsed))
		fail(*e);
	const NetConf &conf = std::get<NetConf>(parsed);
	version_of_input = conf.version;
	const Env e = read_env(command != "DEL");
	if (command == "ADD")
		add(conf, e);
	else if (command == "DEL")
		del(conf, e);
	else
		check(conf, e);
	return 0;
}
