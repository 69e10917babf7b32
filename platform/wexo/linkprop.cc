// Link properties applied live on a host's link:
//   maxbw=<bandwidth>    a token-bucket (tbf) root qdisc; "maxbw=" removes it
//   priority=low|medium|high   the priority of the packets the filters see
//   cos=0-7              the 802.1p class on a VLAN link (every packet priority maps to
//                        it); links without tags keep it and report it
//   protection=<flags>   mac-nospoof, ip-nospoof, dhcp-nospoof, restricted; "" clears
//   allowed-ips=<addrs>  the addresses ip-nospoof lets through, changed in place
//   allowed-mac=<mac>    the source address mac-nospoof lets through (default: the
//                        link's own)
//   iov=off              no SR-IOV virtual function: every link here is already so;
//                        "on" is not supported
// Filters act on what a VNIC's guest sends, or on a plain link's ingress (see
// Placement). Each link has one nftables table, "netdev kel_<link>" ("kel_<ns>/<link>"
// for a VNIC in a guest's namespace), rebuilt from the link's kept settings on every
// change.

#include <arpa/inet.h>
#include <net/if.h>
#include <netlink/errno.h>
#include <netlink/route/link.h>
#include <netlink/route/link/vlan.h>
#include <netlink/route/link/vxlan.h>
#include <netlink/route/qdisc/tbf.h>
#include <netlink/route/qdisc.h>
#include <nftables/libnftables.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "bandwidth.h"
#include "kelnet.h"
#include "c_boundary.h"
#include "link_internal.h"
#include "netns_switch.h"
#include "paths.h"
#include "tbf.h"
#include "wexo.h"

namespace {

using Props = std::map<std::string, std::string>;

const char *const kProperties[] = {"maxbw", "priority", "cos", "protection", "allowed-ips",
    "allowed-mac"};
const char *const kProtections[] = {"mac-nospoof", "ip-nospoof", "dhcp-nospoof", "restricted"};

std::string state_path(const std::string &link)
{
	return kel::paths::under_root(kel::paths::kLinksDir) + "/" + link + ".conf";
}

Props load(const std::string &link)
{
	Props props;
	std::ifstream in(state_path(link));
	std::string line;
	while (std::getline(in, line)) {
		const size_t eq = line.find('=');
		if (eq != std::string::npos)
			props[line.substr(0, eq)] = line.substr(eq + 1);
	}
	return props;
}

bool save(const std::string &link, const Props &props)
{
	if (!kel::paths::make_dirs(std::filesystem::path(state_path(link)).parent_path(), 0755))
		return false;
	const std::string tmp = state_path(link) + ".tmp";
	{
		std::ofstream out(tmp);
		for (const auto &[name, value] : props)
			if (!value.empty())
				out << name << "=" << value << "\n";
		if (!out)
			return false;
	}
	return std::rename(tmp.c_str(), state_path(link).c_str()) == 0;
}

std::vector<std::string> split(const std::string &text)
{
	std::vector<std::string> out;
	std::stringstream in(text);
	std::string piece;
	while (std::getline(in, piece, ','))
		if (!piece.empty())
			out.push_back(piece);
	return out;
}

bool valid_value(const std::string &name, const std::string &value)
{
	if (value.empty())
		return true;
	if (name == "maxbw")
		return wexo_str2bw(value.c_str(), nullptr);
	if (name == "priority")
		return value == "low" || value == "medium" || value == "high";
	if (name == "cos")
		return value.size() == 1 && value[0] >= '0' && value[0] <= '7';
	if (name == "protection") {
		for (const std::string &flag : split(value)) {
			bool known = flag == "none";
			for (const char *p : kProtections)
				known = known || flag == p;
			if (!known)
				return false;
		}
		return true;
	}
	if (name == "allowed-ips") {
		for (std::string addr : split(value)) {
			addr = addr.substr(0, addr.find('/'));
			unsigned char buf[16];
			if (inet_pton(AF_INET, addr.c_str(), buf) != 1 && inet_pton(AF_INET6, addr.c_str(), buf) != 1)
				return false;
		}
		return true;
	}
	if (name == "allowed-mac") {
		int len = 0;
		unsigned char *mac = _link_aton(value.c_str(), &len);
		std::free(mac);
		return mac != nullptr && len == 6;
	}
	return false;
}

// nft writes MAC addresses with two digits per octet.
std::string nft_mac(const std::string &text)
{
	int len = 0;
	unsigned char *mac = _link_aton(text.c_str(), &len);
	char buf[18] = "";
	if (mac != nullptr && len == 6)
		std::snprintf(buf, sizeof(buf), "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2],
		    mac[3], mac[4], mac[5]);
	std::free(mac);
	return buf;
}

bool has_flag(const Props &props, const char *flag)
{
	auto it = props.find("protection");
	if (it == props.end())
		return false;
	for (const std::string &f : split(it->second))
		if (f == flag)
			return true;
	return false;
}

// Where a link's filters sit. A VNIC (macvlan, macvtap) is guarded on what its guest
// sends, out of the guest's reach: on its own transmit path when it sits in the host's
// namespace (a VM's macvtap), or, when it sits in a guest's namespace, on the link it is
// made over, in the host's namespace, for the frames that carry its address: a
// bridge-mode VNIC hands unicast frames for its neighbours to that link's receive path
// and all others to its transmit path. Broadcast copies to its neighbours bypass that
// link, so the guest's namespace gets the same filters on the VNIC's own transmit path
// as well: a guest without CAP_NET_ADMIN there cannot lift them, and one with it still
// meets the host's. Any other link (a veth's host end) is guarded on its ingress, where
// its tenant's traffic enters the host.
struct Placement {
	std::string table;	// "kel_<link>", or "kel_<namespace>/<link>" for a guest's VNIC
	std::vector<std::pair<std::string, std::string>> hooks;	// (hook, device)
	std::string selector;	// which frames of the device are the VNIC's ("" all)
	bool host_side = false;	// in the caller's namespace rather than the link's
};

std::string table_of(const std::string &ns, const std::string &link)
{
	return "kel_" + (ns.empty() ? link : ns + "/" + link);
}

// The link's table, or its removal when nothing is left to filter; one atomic buffer.
std::string ruleset(const Placement &at, const std::string &ownmac, const Props &props)
{
	const std::string table = "netdev " + at.table;
	std::string out = "table " + table + " {}\ndelete table " + table + "\n";
	const auto prio = props.find("priority");
	const bool priority = prio != props.end() && (prio->second == "low" || prio->second == "high");
	const bool protect = has_flag(props, "mac-nospoof") || has_flag(props, "ip-nospoof") ||
	    has_flag(props, "dhcp-nospoof") || has_flag(props, "restricted");
	if (!priority && !protect)
		return out;
	std::string v4, v6;
	if (auto ips = props.find("allowed-ips"); ips != props.end())
		for (const std::string &addr : split(ips->second)) {
			std::string &family = addr.find(':') == std::string::npos ? v4 : v6;
			family += (family.empty() ? "" : ", ") + addr;
		}
	out += "table " + table + " {\n";
	out += "  set allowed4 { type ipv4_addr; flags interval;" + (v4.empty() ? "" : " elements = { " + v4 + " };") + " }\n";
	out += "  set allowed6 { type ipv6_addr; flags interval;" + (v6.empty() ? "" : " elements = { " + v6 + " };") + " }\n";
	out += "  chain guard {\n";
	// Each rule is named by a comment ("kel:" and what it is for), by which
	// wexo_link_state reads back what is in force.
	if (priority)
		out += std::string("    meta priority set ") + (prio->second == "high" ? "0000:0006" : "0000:0002") +
		    " comment \"kel:priority=" + prio->second + "\"\n";
	if (has_flag(props, "mac-nospoof")) {
		auto mac = props.find("allowed-mac");
		out += "    ether saddr != " + nft_mac(mac != props.end() ? mac->second : ownmac) +
		    " counter drop comment \"kel:mac-nospoof\"\n";
	}
	if (has_flag(props, "restricted"))
		out += "    ether type != { ip, ip6, arp } counter drop comment \"kel:restricted\"\n";
	if (has_flag(props, "ip-nospoof")) {
		out += "    ether type ip ip saddr != @allowed4 counter drop comment \"kel:ip-nospoof\"\n";
		out += "    ether type arp arp saddr ip != @allowed4 counter drop comment \"kel:ip-nospoof\"\n";
		out += "    ether type ip6 ip6 saddr != fe80::/10 ip6 saddr != @allowed6 counter drop comment \"kel:ip-nospoof\"\n";
	}
	if (has_flag(props, "dhcp-nospoof"))
		out += "    udp sport { 67, 547 } counter drop comment \"kel:dhcp-nospoof\"\n";
	out += "  }\n";
	for (const auto &[hook, device] : at.hooks)
		out += "  chain " + hook + " {\n    type filter hook " + hook + " device \"" + device +
		    "\" priority 0; policy accept;\n    " + at.selector + "jump guard\n  }\n";
	out += "}\n";
	return out;
}

// Where the filters of `link` (in the handle's namespace) go: one place, or for a VNIC
// in a guest's namespace, the host's and the guest's.
wexo_status_t placement_of(wexo_handle_t h, struct rtnl_link *link, const std::string &ownmac,
    const Props &props, std::vector<Placement> *places)
{
	const std::string ifname = rtnl_link_get_name(link);
	const std::string &ns = wexo_netns_name(h);
	const char *kind = rtnl_link_get_type(link);
	const bool vnic = kind != nullptr && (std::strcmp(kind, "macvlan") == 0 || std::strcmp(kind, "macvtap") == 0);
	Placement own;
	own.table = table_of("", ifname);
	int32_t nsid = -1;
	const bool guest = vnic && rtnl_link_get_link_netnsid(link, &nsid) == 0 && nsid >= 0;
	own.hooks = {{vnic ? "egress" : "ingress", ifname}};
	places->assign(1, own);
	if (!guest)
		return WEXO_STATUS_OK;
	// In a guest's namespace: its lower link is a link of the host's, the namespace the
	// VNIC was made from, which is the caller's.
	wexo_handle_t host = nullptr;
	wexo_status_t st = wexo_open(&host);
	char lower[IFNAMSIZ] = "";
	if (st == WEXO_STATUS_OK)
		st = wexo_datalink_id2info(host, static_cast<datalink_id_t>(rtnl_link_get_link(link)), nullptr, nullptr,
		    nullptr, lower, sizeof(lower));
	wexo_close(host);
	if (st != WEXO_STATUS_OK)
		return st;
	auto mac = props.find("allowed-mac");
	Placement outside;
	outside.table = table_of(ns, ifname);
	outside.hooks = {{"egress", lower}, {"ingress", lower}};
	outside.selector = "ether saddr " + nft_mac(mac != props.end() ? mac->second : ownmac) + " ";
	outside.host_side = true;
	places->insert(places->begin(), outside);
	return WEXO_STATUS_OK;
}

// The name a link's settings are kept under: "NAMESPACE/LINK" for a link in a named
// namespace, so that links of one name in two namespaces keep theirs apart.
std::string state_key(wexo_handle_t h, const std::string &ifname)
{
	const std::string &ns = wexo_netns_name(h);
	return ns.empty() ? ifname : ns + "/" + ifname;
}

// Runs `rules` in the namespace of `nsfd`; what nft prints goes to *output when given.
wexo_status_t apply_nft(int nsfd, const std::string &rules, std::string *output = nullptr)
{
	wexo::NetnsSwitch in(nsfd);
	if (!in.ok())
		return WEXO_STATUS_DENIED;
	struct nft_ctx *nft = nft_ctx_new(NFT_CTX_DEFAULT);
	if (nft == nullptr)
		return WEXO_STATUS_NOMEM;
	nft_ctx_buffer_output(nft);
	nft_ctx_buffer_error(nft);
	const int rc = nft_run_cmd_from_buffer(nft, rules.c_str());
	if (rc == 0 && output != nullptr)
		*output = nft_ctx_get_output_buffer(nft);
	nft_ctx_free(nft);
	return rc == 0 ? WEXO_STATUS_OK : WEXO_STATUS_FAILED;
}

// Runs `rules` where the placement says: the link's namespace or the caller's.
wexo_status_t apply_nft(wexo_handle_t h, const Placement &at, const std::string &rules)
{
	if (!at.host_side)
		return apply_nft(wexo_netns_fd(h), rules);
	wexo_handle_t host = nullptr;
	wexo_status_t st = wexo_open(&host);
	if (st == WEXO_STATUS_OK)
		st = apply_nft(wexo_netns_fd(host), rules);
	wexo_close(host);
	return st;
}

wexo_status_t apply_maxbw(struct nl_sock *sock, int ifindex, const std::string &value)
{
	if (!value.empty()) {
		uint64_t bps = 0;
		(void)wexo_str2bw(value.c_str(), &bps);
		return wexo::tbf_set(sock, ifindex, bps);
	}
	struct rtnl_qdisc *q = rtnl_qdisc_alloc();
	if (q == nullptr)
		return WEXO_STATUS_NOMEM;
	rtnl_tc_set_ifindex(TC_CAST(q), ifindex);
	rtnl_tc_set_parent(TC_CAST(q), TC_H_ROOT);
	int err = rtnl_qdisc_delete(sock, q);
	if (err == -NLE_OBJ_NOTFOUND || err == -NLE_NOADDR || err == -NLE_INVAL)
		err = 0;	// nothing to remove
	rtnl_qdisc_put(q);
	return err == 0 ? WEXO_STATUS_OK : wexo_from_nl(err);
}

// On a VLAN link, every packet priority leaves with the class as its 802.1p bits; other
// links carry no tag to put it in, and only keep it.
wexo_status_t apply_cos(struct nl_sock *sock, struct rtnl_link *link, const std::string &value)
{
	if (!rtnl_link_is_vlan(link))
		return WEXO_STATUS_OK;
	struct rtnl_link *change = rtnl_link_alloc();
	if (change == nullptr)
		return WEXO_STATUS_NOMEM;
	int err = rtnl_link_set_type(change, "vlan");
	const int cos = value.empty() ? 0 : value[0] - '0';
	for (uint32_t prio = 0; err == 0 && prio < 8; prio++)
		err = rtnl_link_vlan_set_egress_map(change, prio, cos);
	if (err == 0)
		err = rtnl_link_change(sock, link, change, 0);
	rtnl_link_put(change);
	return err == 0 ? WEXO_STATUS_OK : wexo_from_nl(err);
}

// The text of the nft listing between "{" and its matching "}" after `from` ("" when
// there is none before the end of the block `from` opens).
std::string braces_after(const std::string &text, size_t from)
{
	const size_t open = text.find('{', from);
	if (open == std::string::npos)
		return "";
	int depth = 0;
	for (size_t i = open; i < text.size(); i++) {
		if (text[i] == '{')
			depth++;
		else if (text[i] == '}' && --depth == 0)
			return text.substr(open + 1, i - open - 1);
	}
	return "";
}

// What a listing of a link's table says is in force: the "kel:" comments of its rules,
// and the elements of its two address sets, each comma-separated.
void read_filters(const std::string &listing, wexo_link_state_t *out)
{
	std::string filters, allowed;
	for (size_t at = listing.find("comment \"kel:"); at != std::string::npos;
	     at = listing.find("comment \"kel:", at + 1)) {
		const size_t start = at + 13, end = listing.find('"', start);
		const std::string what = listing.substr(start, end - start);
		if (("," + filters + ",").find("," + what + ",") == std::string::npos)
			filters += (filters.empty() ? "" : ",") + what;
	}
	for (const char *set : {"set allowed4 ", "set allowed6 "}) {
		const size_t at = listing.find(set);
		const std::string body = at == std::string::npos ? "" : braces_after(listing, at);
		const size_t elements = body.find("elements = ");
		if (elements == std::string::npos)
			continue;
		for (char c : braces_after(body, elements))
			if (c != ' ' && c != '\t' && c != '\n')
				allowed += c;
		allowed += ",";
	}
	if (!allowed.empty())
		allowed.pop_back();
	std::snprintf(out->wls_filters, sizeof(out->wls_filters), "%s", filters.c_str());
	std::snprintf(out->wls_allowed, sizeof(out->wls_allowed), "%s", allowed.c_str());
}

// An address of a VXLAN link as text, without a prefix length ("" when unset).
std::string address_text(struct nl_addr *a)
{
	char buf[INET6_ADDRSTRLEN + 8] = "";
	if (a == nullptr || nl_addr_iszero(a))
		return "";
	nl_addr2str(a, buf, sizeof(buf));
	std::string text = buf;
	return text.substr(0, text.find('/'));
}

// The link under `link` (in the handle's namespace, or the host's for a guest's VNIC):
// its name, kind, VXLAN or VLAN ID and VXLAN endpoints, into *out.
wexo_status_t read_lower(wexo_handle_t h, struct rtnl_link *link, wexo_link_state_t *out)
{
	const int lower = rtnl_link_get_link(link);
	if (lower <= 0)
		return WEXO_STATUS_OK;
	int32_t nsid = -1;
	const bool guest = rtnl_link_get_link_netnsid(link, &nsid) == 0 && nsid >= 0;
	wexo_handle_t host = nullptr;
	wexo_status_t st = guest ? wexo_open(&host) : WEXO_STATUS_OK;
	struct rtnl_link *l = nullptr;
	if (st == WEXO_STATUS_OK)
		st = wexo_get_link(guest ? host : h, static_cast<datalink_id_t>(lower), &l);
	if (st == WEXO_STATUS_OK) {
		std::snprintf(out->wls_lower, sizeof(out->wls_lower), "%s", rtnl_link_get_name(l));
		const char *kind = rtnl_link_get_type(l);
		std::snprintf(out->wls_lower_kind, sizeof(out->wls_lower_kind), "%s", kind != nullptr ? kind : "");
		uint32_t vni = 0;
		if (rtnl_link_is_vxlan(l) && rtnl_link_vxlan_get_id(l, &vni) == 0) {
			out->wls_lower_id = vni;
			struct nl_addr *a = nullptr;
			if (rtnl_link_vxlan_get_local(l, &a) == 0) {
				std::snprintf(out->wls_local, sizeof(out->wls_local), "%s", address_text(a).c_str());
				nl_addr_put(a);
			}
			a = nullptr;
			if (rtnl_link_vxlan_get_group(l, &a) == 0) {
				std::snprintf(out->wls_group, sizeof(out->wls_group), "%s", address_text(a).c_str());
				nl_addr_put(a);
			}
		} else if (rtnl_link_is_vlan(l)) {
			out->wls_lower_id = static_cast<uint32_t>(rtnl_link_vlan_get_id(l));
		}
		rtnl_link_put(l);
	}
	wexo_close(host);
	return st;
}

// The root qdisc's rate when it is a tbf, in bits per second; 0 when there is none.
uint64_t read_maxbw(struct nl_sock *sock, int ifindex)
{
	struct nl_cache *cache = nullptr;
	if (rtnl_qdisc_alloc_cache(sock, &cache) != 0)
		return 0;
	uint64_t bps = 0;
	struct rtnl_qdisc *q = rtnl_qdisc_get_by_parent(cache, ifindex, TC_H_ROOT);
	if (q != nullptr) {
		const char *kind = rtnl_tc_get_kind(TC_CAST(q));
		if (kind != nullptr && std::strcmp(kind, "tbf") == 0)
			bps = static_cast<uint64_t>(static_cast<uint32_t>(rtnl_qdisc_tbf_get_rate(q))) * 8;
		rtnl_qdisc_put(q);
	}
	nl_cache_free(cache);
	return bps;
}

}  // namespace

void wexo_linkprop_forget(wexo_handle_t h, const char *ifname)
{
	// The link is gone: its table is left without a device, and its settings with it. A
	// guest's VNIC had its table in the host's namespace.
	const std::string &ns = wexo_netns_name(h);
	const auto drop = [](const std::string &name) {
		return "table netdev " + name + " {}\ndelete table netdev " + name + "\n";
	};
	(void)apply_nft(wexo_netns_fd(h), drop(table_of("", ifname)));
	if (!ns.empty()) {
		Placement host;
		host.host_side = true;
		(void)apply_nft(h, host, drop(table_of(ns, ifname)));
	}
	std::remove(state_path(state_key(h, ifname)).c_str());
}

extern "C" {

wexo_status_t wexo_set_linkprop(wexo_handle_t h, datalink_id_t id, const char *name,
    const char *value) noexcept
{
	return kel::wexo_boundary([&]() -> wexo_status_t {
		if (name == nullptr || value == nullptr)
			return WEXO_STATUS_BADARG;
		bool known = false;
		for (const char *p : kProperties)
			known = known || std::strcmp(p, name) == 0;
		if (std::strcmp(name, "iov") == 0)
			return *value == '\0' || std::strcmp(value, "off") == 0 ? WEXO_STATUS_OK : WEXO_STATUS_NOTSUP;
		if (!known)
			return WEXO_STATUS_NOTSUP;
		if (!valid_value(name, value))
			return WEXO_STATUS_BADVAL;
		struct rtnl_link *link = nullptr;
		wexo_status_t st = wexo_get_link(h, id, &link);
		if (st != WEXO_STATUS_OK)
			return st;
		const std::string ifname = rtnl_link_get_name(link);
		std::string ownmac;
		if (struct nl_addr *a = rtnl_link_get_addr(link); a != nullptr && nl_addr_get_len(a) == 6) {
			const auto *b = static_cast<const unsigned char *>(nl_addr_get_binary_addr(a));
			char buf[18];
			std::snprintf(buf, sizeof(buf), "%02x:%02x:%02x:%02x:%02x:%02x", b[0], b[1], b[2], b[3], b[4], b[5]);
			ownmac = buf;
		}
		const std::string key = state_key(h, ifname);
		Props props = load(key);
		// "none" is no protection.
		props[name] = std::strcmp(name, "protection") == 0 && std::strcmp(value, "none") == 0 ? "" : value;
		std::vector<Placement> places;
		if (std::strcmp(name, "cos") == 0)
			st = apply_cos(wexo_sock(h), link, value);
		else if (std::strcmp(name, "maxbw") != 0)
			st = placement_of(h, link, ownmac, props, &places);
		rtnl_link_put(link);
		if (st != WEXO_STATUS_OK)
			return st;
		if (std::strcmp(name, "maxbw") == 0)
			st = apply_maxbw(wexo_sock(h), static_cast<int>(id), value);
		for (const Placement &at : places)	// none for cos, applied above
			if (st == WEXO_STATUS_OK)
				st = apply_nft(h, at, ruleset(at, ownmac, props));
		if (st == WEXO_STATUS_OK && !save(key, props))
			st = WEXO_STATUS_FAILED;
		return st;
	});
}

wexo_status_t wexo_link_state(wexo_handle_t h, datalink_id_t id, wexo_link_state_t *state) noexcept
{
	return kel::wexo_boundary([&]() -> wexo_status_t {
		if (state == nullptr)
			return WEXO_STATUS_BADARG;
		std::memset(state, 0, sizeof(*state));
		struct rtnl_link *link = nullptr;
		wexo_status_t st = wexo_get_link(h, id, &link);
		if (st != WEXO_STATUS_OK)
			return st;
		if (struct nl_addr *a = rtnl_link_get_addr(link); a != nullptr && nl_addr_get_len(a) == 6) {
			const auto *b = static_cast<const unsigned char *>(nl_addr_get_binary_addr(a));
			std::snprintf(state->wls_mac, sizeof(state->wls_mac), "%02x:%02x:%02x:%02x:%02x:%02x", b[0], b[1], b[2],
			    b[3], b[4], b[5]);
		}
		// A lower link that cannot be read (a veth's peer in a namespace of its own) is
		// reported as none: the rest of what is in force still is.
		if (read_lower(h, link, state) != WEXO_STATUS_OK)
			state->wls_lower[0] = state->wls_lower_kind[0] = '\0';
		std::vector<Placement> places;
		st = placement_of(h, link, state->wls_mac, Props{}, &places);
		rtnl_link_put(link);
		if (st != WEXO_STATUS_OK)
			return st;
		state->wls_maxbw = read_maxbw(wexo_sock(h), static_cast<int>(id));
		// The first placement is the one the guest cannot reach: what is in force there is
		// what counts. A table that cannot be listed is not there.
		const Placement &at = places.front();
		std::string listing;
		wexo_handle_t host = nullptr;
		const int nsfd = !at.host_side ? wexo_netns_fd(h) : wexo_open(&host) == WEXO_STATUS_OK ? wexo_netns_fd(host) : -2;
		if (nsfd != -2 && apply_nft(nsfd, "list table netdev " + at.table + "\n", &listing) == WEXO_STATUS_OK) {
			state->wls_filtered = B_TRUE;
			read_filters(listing, state);
		}
		wexo_close(host);
		return WEXO_STATUS_OK;
	});
}

wexo_status_t wexo_get_linkprop(wexo_handle_t h, datalink_id_t id, const char *name,
    char *value, size_t size)
{
	char ifname[64];
	wexo_status_t st = wexo_datalink_id2info(h, id, nullptr, nullptr, nullptr, ifname, sizeof(ifname));
	if (st != WEXO_STATUS_OK)
		return st;
	const Props props = load(state_key(h, ifname));
	auto it = props.find(name);
	std::snprintf(value, size, "%s", it != props.end() ? it->second.c_str() : "");
	return WEXO_STATUS_OK;
}

}  // extern "C"
