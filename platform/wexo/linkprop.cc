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
// Placement); link_filter.h builds them. Each namespace has one nftables table for them,
// "netdev kel", in which a link's chains and sets are "<link>.<name>" ("<ns>/<link>." for
// a VNIC in a guest's namespace, seen from the host's), rebuilt from the link's kept
// settings on every change, one change to a link at a time.

#include <netlink/errno.h>
#include <netlink/route/link.h>
#include <netlink/route/link/vlan.h>
#include <netlink/route/link/vxlan.h>
#include <netlink/route/qdisc.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "bandwidth.h"
#include "c_boundary.h"
#include "fabric_links.h"
#include "link_filter.h"
#include "link_internal.h"
#include "link_lock.h"
#include "link_settings.h"
#include "nft.h"
#include "tbf.h"
#include "wexo.h"

namespace {

namespace filter = wexo::filter;
using wexo::settings::Props;

const char *const kProperties[] = {"maxbw", "priority", "cos", "protection", "allowed-ips", "allowed-mac"};

using LinkPtr = std::unique_ptr<struct rtnl_link, void (*)(struct rtnl_link *)>;

// Whether `value` is one `name` takes; every value is parsed as its filters will read it.
bool valid_value(const std::string &name, const std::string &value)
{
	if (value.empty())
		return true;
	if (name == "maxbw")
		return wexo_str2bw(value.c_str(), nullptr);
	if (name == "cos")
		return value.size() == 1 && value[0] >= '0' && value[0] <= '7';
	filter::Settings parsed;
	return filter::parse({{name, value}}, filter::Mac{}, &parsed);
}

filter::Mac mac_of(struct rtnl_link *link)
{
	filter::Mac mac{};
	if (struct nl_addr *a = rtnl_link_get_addr(link); a != nullptr && nl_addr_get_len(a) == 6) {
		const auto *b = static_cast<const uint8_t *>(nl_addr_get_binary_addr(a));
		std::copy(b, b + 6, mac.begin());
	}
	return mac;
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
// its tenant's traffic enters the host. The one the guest cannot reach comes first.
std::vector<filter::Placement> placements_of(wexo_handle_t h, struct rtnl_link *link, const filter::Settings &s)
{
	const std::string ifname = rtnl_link_get_name(link);
	const std::string &ns = wexo_netns_name(h);
	const char *kind = rtnl_link_get_type(link);
	const bool vnic = kind != nullptr && (std::strcmp(kind, "macvlan") == 0 || std::strcmp(kind, "macvtap") == 0);
	filter::Placement own;
	own.key = filter::link_key("", ifname);
	own.hooks = {{vnic ? "egress" : "ingress", ifname}};
	std::vector<filter::Placement> places;
	std::string lower;
	if (vnic && !ns.empty() && wexo_host_lower(h, link, nullptr, &lower) == WEXO_STATUS_OK) {
		filter::Placement outside;
		outside.key = filter::link_key(ns, ifname);
		outside.hooks = {{"egress", lower}, {"ingress", lower}};
		outside.selector = s.mac;
		outside.host_side = true;
		places.push_back(outside);
	}
	places.push_back(own);
	return places;
}

// The namespace a placement's table is in: the link's, or the caller's (-1).
int nsfd_of(wexo_handle_t h, const filter::Placement &at)
{
	return at.host_side ? -1 : wexo_netns_fd(h);
}

wexo_status_t apply_filters(wexo_handle_t h, struct rtnl_link *link, const Props &props)
{
	filter::Settings s;
	if (!filter::parse(props, mac_of(link), &s))
		return WEXO_STATUS_BADVAL;  // kept settings edited by hand
	for (const filter::Placement &at : placements_of(h, link, s))
		if (const wexo_status_t st = wexo::nft::run(nsfd_of(h, at), filter::ruleset(at, s));
		    st != WEXO_STATUS_OK)
			return st;
	return WEXO_STATUS_OK;
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
		err = 0;  // nothing to remove
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

// A VNIC's guard on its lower link lets out the address mac-nospoof lets through: when
// that changes on a VNIC the fabric recorded, the guard follows.
wexo_status_t follow_allowed_mac(const std::string &key)
{
	const auto v = wexo::fabric::vnic(key);
	if (!v)
		return WEXO_STATUS_OK;
	wexo_handle_t host = nullptr;
	wexo_status_t st = wexo_open(&host);
	if (st == WEXO_STATUS_OK) {
		wexo::LinkLock lock(v->lower);
		st = lock.held() ? wexo_lower_guard_sync(host, v->lower) : WEXO_STATUS_DENIED;
	}
	wexo_close(host);
	return st;
}

// What a listing of the shared table says is in force for `at`: what its rules are for,
// and the elements of its two address sets, each comma-separated.
void read_filters(const nlohmann::json &listing, const filter::Placement &at, wexo_link_state_t *out)
{
	std::string filters, allowed;
	for (const std::string &f : filter::in_force(listing, at))
		filters += (filters.empty() ? "" : ",") + f;
	const nlohmann::json *objects = listing.contains("nftables") ? &listing["nftables"] : nullptr;
	for (const nlohmann::json &o : objects != nullptr && objects->is_array() ? *objects : nlohmann::json::array()) {
		const auto set = o.find("set");
		if (set == o.end() || !set->contains("elem") || !(*set)["elem"].is_array() ||
		    ((*set)["name"] != at.key + ".allowed4" && (*set)["name"] != at.key + ".allowed6"))
			continue;
		for (const nlohmann::json &e : (*set)["elem"]) {
			std::string text;
			if (e.is_string())
				text = e.get<std::string>();
			else if (e.contains("prefix") && e["prefix"]["addr"].is_string())
				text = e["prefix"]["addr"].get<std::string>() + "/" + e["prefix"]["len"].dump();
			else if (e.contains("range") && e["range"].is_array() && e["range"].size() == 2)
				text = e["range"][0].dump() + "-" + e["range"][1].dump();
			allowed += (allowed.empty() ? "" : ",") + text;
		}
	}
	std::snprintf(out->wls_filters, sizeof(out->wls_filters), "%s", filters.c_str());
	std::snprintf(out->wls_allowed, sizeof(out->wls_allowed), "%s", allowed.c_str());
}

// What the counted drops of `key` in `listing` took, added to *out.
void read_drops(const nlohmann::json &listing, const std::string &key, wexo_link_state_t *out)
{
	for (const filter::Dropped &d : filter::drops(listing, key)) {
		if (out->wls_ndrops == std::size(out->wls_drops))
			break;
		auto &slot = out->wls_drops[out->wls_ndrops++];
		std::snprintf(slot.wfd_rule, sizeof(slot.wfd_rule), "%s", d.rule.c_str());
		slot.wfd_packets = d.packets;
		slot.wfd_bytes = d.bytes;
	}
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

// The link under `link`, as a link of the host's namespace: its name, kind, VXLAN or
// VLAN ID and VXLAN endpoints, into *out. One made over a link of some other namespace
// (a veth's peer) is not read: its index would name another link here.
wexo_status_t read_lower(wexo_handle_t h, struct rtnl_link *link, wexo_link_state_t *out)
{
	datalink_id_t lower = DATALINK_INVALID_LINKID;
	if (rtnl_link_get_link(link) <= 0)
		return WEXO_STATUS_OK;
	wexo_status_t st = wexo_host_lower(h, link, &lower, nullptr);
	if (st != WEXO_STATUS_OK)
		return st;
	wexo_handle_t host = nullptr;
	struct rtnl_link *l = nullptr;
	if ((st = wexo_open(&host)) == WEXO_STATUS_OK)
		st = wexo_get_link(host, lower, &l);
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

}  // namespace

void wexo_linkprop_forget(wexo_handle_t h, const char *ifname)
{
	// The link is gone: its filters are left without a device, and its settings with it.
	// A guest's VNIC had its filters in the host's namespace too.
	const std::string &ns = wexo_netns_name(h);
	const std::string key = wexo::settings::key(ns, ifname);
	wexo::LinkLock lock(key + ".props");
	(void)wexo::nft::run(wexo_netns_fd(h), filter::removal_of(filter::link_key("", ifname)));
	if (!ns.empty())
		(void)wexo::nft::run(-1, filter::removal_of(filter::link_key(ns, ifname)));
	wexo::settings::forget(key);
}

extern "C" {

wexo_status_t wexo_set_linkprop(wexo_handle_t h, datalink_id_t id, const char *name, const char *value) noexcept
{
	return kel::wexo_boundary([&]() -> wexo_status_t {
		if (name == nullptr || value == nullptr)
			return WEXO_STATUS_BADARG;
		if (std::strcmp(name, "iov") == 0)
			return *value == '\0' || std::strcmp(value, "off") == 0 ? WEXO_STATUS_OK : WEXO_STATUS_NOTSUP;
		if (std::find_if(std::begin(kProperties), std::end(kProperties),
		        [&](const char *p) { return std::strcmp(p, name) == 0; }) == std::end(kProperties))
			return WEXO_STATUS_NOTSUP;
		if (!valid_value(name, value))
			return WEXO_STATUS_BADVAL;
		struct rtnl_link *raw = nullptr;
		wexo_status_t st = wexo_get_link(h, id, &raw);
		if (st != WEXO_STATUS_OK)
			return st;
		const LinkPtr link(raw, rtnl_link_put);
		const std::string key = wexo::settings::key(wexo_netns_name(h), rtnl_link_get_name(link.get()));
		// One change to a link at a time: each builds on all that is kept, and a second
		// one read before the first was kept would put back what the first changed.
		wexo::LinkLock lock(key + ".props");
		if (!lock.held())
			return WEXO_STATUS_DENIED;
		Props props = wexo::settings::load(key);
		// "none" is no protection.
		props[name] = std::strcmp(name, "protection") == 0 && std::strcmp(value, "none") == 0 ? "" : value;
		if (std::strcmp(name, "cos") == 0)
			st = apply_cos(wexo_sock(h), link.get(), value);
		else if (std::strcmp(name, "maxbw") == 0)
			st = apply_maxbw(wexo_sock(h), static_cast<int>(id), value);
		else
			st = apply_filters(h, link.get(), props);
		if (st == WEXO_STATUS_OK && !wexo::settings::save(key, props))
			st = WEXO_STATUS_FAILED;
		if (st == WEXO_STATUS_OK && std::strcmp(name, "allowed-mac") == 0)
			st = follow_allowed_mac(key);
		return st;
	});
}

wexo_status_t wexo_link_state(wexo_handle_t h, datalink_id_t id, wexo_link_state_t *state) noexcept
{
	return kel::wexo_boundary([&]() -> wexo_status_t {
		if (state == nullptr)
			return WEXO_STATUS_BADARG;
		std::memset(state, 0, sizeof(*state));
		struct rtnl_link *raw = nullptr;
		const wexo_status_t st = wexo_get_link(h, id, &raw);
		if (st != WEXO_STATUS_OK)
			return st;
		const LinkPtr link(raw, rtnl_link_put);
		filter::Settings own;
		own.mac = mac_of(link.get());
		std::snprintf(state->wls_mac, sizeof(state->wls_mac), "%s", filter::mac_text(own.mac).c_str());
		// A lower link that cannot be read (a veth's peer in a namespace of its own) is
		// reported as none: the rest of what is in force still is.
		if (read_lower(h, link.get(), state) != WEXO_STATUS_OK)
			state->wls_lower[0] = state->wls_lower_kind[0] = '\0';
		state->wls_maxbw = wexo::tbf_rate(wexo_sock(h), static_cast<int>(id));
		// The first placement is the one the guest cannot reach: what is in force there is
		// what counts. A link with no chain in the shared table has no filters.
		const filter::Placement at = placements_of(h, link.get(), own).front();
		nlohmann::json listing;
		// Read by name: a host's other links' filters cost this nothing.
		if (wexo::nft::list_link(nsfd_of(h, at), filter::kLinkTable, filter::chain_names(at.key),
		        filter::set_names(at.key), &listing) == WEXO_STATUS_OK) {
			const std::vector<std::string> keys = filter::keys(listing);
			state->wls_filtered = std::find(keys.begin(), keys.end(), at.key) != keys.end() ? B_TRUE
			                                                                                : B_FALSE;
			read_filters(listing, at, state);
			read_drops(listing, at.key, state);
		}
		// The guard of a link VNICs are made over (always one of the host's own namespace)
		// drops what would leave it from an address none of them has: a guest's forged
		// source address, which its own port's rules never see when they are hooked on
		// this link for the guest's address alone.
		const std::string name = rtnl_link_get_name(link.get());
		nlohmann::json guard;
		if (wexo_netns_fd(h) == -1 && wexo::fabric::in_use(name) &&
		    wexo::nft::list_link(-1, filter::lower_table(name), {"egress"}, {}, &guard) == WEXO_STATUS_OK)
			read_drops(guard, "", state);
		return WEXO_STATUS_OK;
	});
}

wexo_status_t wexo_get_linkprop(wexo_handle_t h, datalink_id_t id, const char *name, char *value, size_t size)
{
	char ifname[64];
	wexo_status_t st = wexo_datalink_id2info(h, id, nullptr, nullptr, nullptr, ifname, sizeof(ifname));
	if (st != WEXO_STATUS_OK)
		return st;
	const Props props = wexo::settings::load(wexo::settings::key(wexo_netns_name(h), ifname));
	auto it = props.find(name);
	std::snprintf(value, size, "%s", it != props.end() ? it->second.c_str() : "");
	return WEXO_STATUS_OK;
}

}  // extern "C"
