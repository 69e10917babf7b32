// Drift between the store and the hosts: what each bound port's host has in force, read
// back through its keld, against what the store says it should have; and, asked to, the
// link properties and flood lists applied again.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <new>
#include <set>
#include <string>
#include <vector>

#include "attrset_ptr.h"
#include "audit.h"
#include "bandwidth.h"
#include "c_boundary.h"
#include "connections.h"
#include "drift.h"
#include "error_code.h"
#include "fan_out.h"
#include "fan_out_note.h"
#include "flood_sync.h"
#include "harl.h"
#include "host_list.h"
#include "kelnet.h"
#include "names.h"
#include "nuq_errors.h"
#include "owners.h"
#include "prop_catalogue.h"
#include "prop_update.h"
#include "sql.h"
#include "subnet.h"
#include "text.h"
#include "vport.h"

namespace {

constexpr const char *kProtections[] = {"mac-nospoof", "ip-nospoof", "dhcp-nospoof", "restricted"};

using kel::Drift;

// A bound port and what its host should have in force for it.
struct Port {
	const kel_vport_t *vp = nullptr;
	kel_t *kel = nullptr;    // its switch, completed for the port's host
	std::string object;      // "tenant/kel/vport"
	std::string lower;       // the link its VNIC should be made over
	std::string lower_kind;  // "vxlan", "vlan", or "" for the uplink
	uint32_t lower_id = 0;
	std::string endpoint, group;               // VXLAN: the host's endpoint (address or subnet), the group
	std::map<std::string, std::string> props;  // the link properties it inherits
	int view = KEL_SUCCESS;                    // why the store cannot say what the host should have
};

std::string value_of(attrset_t *set, const char *name)
{
	char *v = nullptr;
	return set != nullptr && attrset_lookup_string(set, name, &v) == 0 ? v : "";
}

// Comma-separated words as a set.
std::set<std::string> words(const std::string &text)
{
	std::set<std::string> out;
	for (size_t pos = 0; pos < text.size();) {
		size_t comma = text.find(',', pos);
		if (comma == std::string::npos)
			comma = text.size();
		if (comma > pos)
			out.insert(text.substr(pos, comma - pos));
		pos = comma + 1;
	}
	return out;
}

std::string joined(const std::set<std::string> &set, const char *none)
{
	std::string out;
	for (const std::string &w : set)
		out += (out.empty() ? "" : ",") + w;
	return out.empty() ? none : out;
}

// What the store says the port's host should have, worked out under the store lock.
void expect(kel_dbhandle_t h, Port *p)
{
	kel_t *k = p->kel;
	p->view = kel_fill_node_view(h, k, p->vp->evp_hostname);
	for (const kel_prop_desc_t *row = kel_prop_table; row->ep_pname != nullptr; row++) {
		if ((row->ep_flags & EPD_DLPROP) == 0)
			continue;
		std::string v = value_of(p->vp->evp_props, row->ep_pname);
		if (v.empty())
			v = value_of(k->kel_props, row->ep_pname);
		p->props[row->ep_pname] = v;
	}
	const std::string type = value_of(k->kel_props, "l2-type");
	if (type == "vxlan") {
		char name[32];
		p->lower_id = static_cast<uint32_t>(std::atoi(value_of(k->kel_props, "vni").c_str()));
		kel_vxlan_linkname(static_cast<int>(p->lower_id), name, sizeof(name));
		p->lower = name;
		p->lower_kind = "vxlan";
		p->endpoint = k->kel_localaddr;
		p->group = k->kel_mgroup;
	} else if (type == "vlan") {
		p->lower_id = static_cast<uint32_t>(std::atoi(value_of(k->kel_props, "vlanid").c_str()));
		p->lower = "kel-vlan" + std::to_string(p->lower_id);
		p->lower_kind = "vlan";
	} else {
		p->lower = k->kel_uport;
	}
}

// Whether VXLAN endpoint `local` is the host's `endpoint`: in it when it is a subnet, the
// address itself otherwise, and anything when the store names none.
bool endpoint_matches(const std::string &endpoint, const std::string &local)
{
	if (endpoint.empty())
		return !local.empty();
	kel_ipnet_t net;
	if (kel_parse_ipnet(endpoint.c_str(), &net) == KEL_SUCCESS)
		return kel_ipnet_contains_ip(&net, local.c_str()) == B_TRUE;
	return endpoint.substr(0, endpoint.find('/')) == local;
}

bool same_mac(const std::string &a, const std::string &b)
{
	int la = 0, lb = 0;
	unsigned char *x = _link_aton(a.c_str(), &la), *y = _link_aton(b.c_str(), &lb);
	const bool same = x != nullptr && y != nullptr && la == lb && std::memcmp(x, y, static_cast<size_t>(la)) == 0;
	std::free(x);
	std::free(y);
	return same;
}

// The differences between what `p`'s host has (`s`) and what the store says.
void compare(const Port &p, const HarlLinkState &s, std::vector<Drift> *out)
{
	auto differ = [&](const char *what, const std::string &store, const std::string &found) {
		out->push_back({p.object, p.vp->evp_hostname, what, store, found});
	};
	const std::string mac = value_of(p.vp->evp_props, "macaddr");
	if (!mac.empty() && !same_mac(mac, s.mac))
		differ("mac", mac, s.mac);
	if (p.view != KEL_SUCCESS) {
		char msg[256];
		differ("lower", std::string("none: ") + kel_errmsg(p.view, msg, sizeof(msg)), s.lower);
	} else {
		std::string store = p.lower, found = s.lower;
		if (!p.lower_kind.empty()) {
			store += " (" + p.lower_kind + " " + std::to_string(p.lower_id) +
			    (p.lower_kind == "vxlan" ? ", endpoint " + (p.endpoint.empty() ? "any" : p.endpoint) +
			                ", group " + (p.group.empty() ? "none" : p.group)
			                             : "") +
			    ")";
			found += " (" + (s.lower_kind.empty() ? "device" : s.lower_kind) + " " +
			    std::to_string(s.lower_id) +
			    (s.lower_kind == "vxlan"
			            ? ", endpoint " + s.local + ", group " + (s.group.empty() ? "none" : s.group)
			            : "") +
			    ")";
		}
		// The uplink is whatever device the host has; the links made for VNICs are of a kind.
		const bool kind_right = p.lower_kind.empty() ? s.lower_kind != "vxlan" && s.lower_kind != "vlan"
		                                             : s.lower_kind == p.lower_kind && s.lower_id == p.lower_id;
		const bool right = s.lower == p.lower && kind_right &&
		    (p.lower_kind != "vxlan" || (s.group == p.group && endpoint_matches(p.endpoint, s.local)));
		if (!right)
			differ("lower", store, found);
	}
	// The cap as the host programs it: whole bytes per second.
	uint64_t bps = 0;
	const std::string maxbw = p.props.at("maxbw");
	if (!maxbw.empty())
		(void)wexo_str2bw(maxbw.c_str(), &bps);
	if (bps / 8 * 8 != s.maxbw)
		differ("maxbw", maxbw.empty() ? "none" : maxbw + " (" + std::to_string(bps / 8 * 8) + " bit/s)",
		    s.maxbw == 0 ? "none" : std::to_string(s.maxbw) + " bit/s");
	std::set<std::string> want, have, filters = words(s.filters);
	for (const std::string &w : words(p.props.at("protection")))
		if (w != "none")
			want.insert(w);
	for (const char *w : kProtections)
		if (filters.count(w) != 0)
			have.insert(w);
	if (want != have)
		differ("protection", joined(want, "none"), s.filtered ? joined(have, "none") : "no filters");
	if (want.count("ip-nospoof") != 0) {
		const std::string ip = value_of(p.vp->evp_props, "ipaddr");
		const std::set<std::string> allowed = words(ip.substr(0, ip.find('/'))), found = words(s.allowed);
		if (allowed != found)
			differ("allowed-ips", joined(allowed, "none"), joined(found, "none"));
	}
	const std::string priority = p.props.at("priority");
	const std::string wanted = priority == "low" || priority == "high" ? "priority=" + priority : "";
	const std::string held = filters.count("priority=high") ? "priority=high"
	    : filters.count("priority=low")                     ? "priority=low"
	                                                        : "";
	if (wanted != held)
		differ("priority", wanted.empty() ? "medium" : priority, held.empty() ? "medium" : held.substr(9));
}

// The link properties a port inherits, applied again on its VNIC: true when all took.
bool reapply(nuq_instance_t *link, const Port &p)
{
	bool all = true;
	for (const auto &[name, value] : p.props)
		if (name != "cos" || !value.empty())
			all = kel_host_set_one_linkprop(link, p.kel->kel_props, p.vp->evp_props, name.c_str(),
			          value.c_str(), 0) == KEL_SUCCESS &&
			    all;
	return all;
}

// What one host's check found: its differences, and the ports bound there to a VNIC it
// does not have, each with the index of its difference, for the repair to release.
struct HostResult {
	bool answered = false;
	std::vector<Drift> drifts;
	std::vector<std::pair<const Port *, size_t>> release;
};

// Every port of one host, over one connection: what differs, and with `repair` put right.
// With `all`, what the host left behind too.
void verify_host(const std::string &host, const std::string &uri, const std::vector<const Port *> &ports, bool all,
    bool repair, HostResult *result)
{
	std::vector<Drift> *out = &result->drifts;
	nuq_conn_t *raw = nullptr;
	const int opened = uri.empty() ? KEL_E_HOST_CONNECT : kel_connect_uri(uri.c_str(), &raw);
	const kel::Owned<nuq_conn_t, nuq_disconnect> conn(raw);
	result->answered = opened == KEL_SUCCESS;
	if (opened != KEL_SUCCESS && all)
		out->push_back({host, host, "host", "what is left behind", "the host did not answer"});
	std::vector<const Port *> missing;
	for (const Port *p : ports) {
		if (opened != KEL_SUCCESS) {
			out->push_back({p->object, p->vp->evp_hostname, "host",
			    "VNIC " + std::string(p->vp->evp_vnicname), "the host did not answer"});
			continue;
		}
		nuq_instance_t *link_raw = nullptr;
		const int found = harl_Datalink__nuq_lookup(conn.get(), 1, &link_raw, 1, "name", p->vp->evp_vnicname);
		const kel::Owned<nuq_instance_t, nuq_instance_rele> link(link_raw);
		if (found != NUQ_E_SUCCESS) {
			out->push_back(
			    {p->object, p->vp->evp_hostname, "vnic", std::string("VNIC ") + p->vp->evp_vnicname,
			        found == NUQ_E_NOTFOUND ? "no such link" : "cannot be looked up"});
			if (found == NUQ_E_NOTFOUND) {
				result->release.emplace_back(p, out->size() - 1);
				missing.push_back(p);
			}
			continue;
		}
		HarlLinkState state;
		harl_DatalinkError *err_raw = nullptr;
		const int r = harl_Datalink_getState(link.get(), &state, &err_raw);
		const kel::Owned<harl_DatalinkError, harl_DatalinkError_free> err(err_raw);
		if (r != NUQ_E_SUCCESS) {
			out->push_back({p->object, p->vp->evp_hostname, "host",
			    "VNIC " + std::string(p->vp->evp_vnicname), "its state cannot be read"});
			continue;
		}
		const size_t first = out->size();
		compare(*p, state, out);
		// Only the link properties are ours to put back: the VNIC, its address and what it
		// is made over are the node's.
		bool props_drift = false;
		for (size_t i = first; i < out->size(); i++)
			props_drift = props_drift || (*out)[i].what == "maxbw" || (*out)[i].what == "protection" ||
			    (*out)[i].what == "allowed-ips" || (*out)[i].what == "priority";
		if (repair && props_drift && reapply(link.get(), *p))
			for (size_t i = first; i < out->size(); i++)
				(*out)[i].repaired = (*out)[i].what != "mac" && (*out)[i].what != "lower";
	}
	if (opened != KEL_SUCCESS || (!all && missing.empty()))
		return;
	// A port whose VNIC is being made right now keeps its binding.
	std::vector<std::string> names;
	for (const Port *p : missing)
		names.push_back(p->vp->evp_vnicname);
	const std::vector<bool> releasable = kel::host_leftovers(conn.get(), host, names, all, repair, out);
	std::vector<std::pair<const Port *, size_t>> kept;
	for (const auto &r : result->release)
		if (releasable[std::find(missing.begin(), missing.end(), r.first) - missing.begin()])
			kept.push_back(r);
	result->release = std::move(kept);
}

// The flood lists of a VXLAN kel without a group, against its hosts' endpoints.
int verify_flood(kel_dbhandle_t h, const char *tenant, const char *kel, bool repair, std::vector<Drift> *out)
{
	std::vector<kel::FloodMember> members;
	if (int rc = kel::read_flood(h, tenant, kel, &members); rc != KEL_SUCCESS)
		return rc;
	const size_t first = out->size();
	for (const kel::FloodMember &m : members) {
		if (!m.reached) {
			out->push_back(
			    {std::string(tenant) + "/" + kel, m.host, "host", "flood list", "the host did not answer"});
			continue;
		}
		if (!m.has_link)
			continue;
		const std::vector<std::string> wanted = kel::flood_wanted(members, m);
		const std::set<std::string> want(wanted.begin(), wanted.end()),
		    have(m.remotes.begin(), m.remotes.end());
		if (want != have)
			out->push_back({std::string(tenant) + "/" + kel, m.host, "flood",
			    "floods to " + joined(want, "nobody"), "floods to " + joined(have, "nobody")});
	}
	members.clear();  // their connections go before the repair opens its own
	if (repair && out->size() > first && kel_sync_vxlan_flood(h, tenant, kel) == KEL_SUCCESS)
		for (size_t i = first; i < out->size(); i++)
			(*out)[i].repaired = (*out)[i].what == "flood";
	return KEL_SUCCESS;
}

// Whether `filter` takes the whole fabric (no kel or port named), and the host it names
// ("" for every host).
bool whole_fabric(const char *filter, std::string *host)
{
	attrset_t *raw = nullptr;
	if (filter == nullptr || kel_str2attrset(filter, &raw, B_TRUE, 0) != KEL_SUCCESS)
		return filter == nullptr;
	const kel::AttrSetPtr set(raw);
	char *value = nullptr;
	if (attrset_lookup_string(set.get(), "host", &value) == 0)
		*host = value;
	return attrset_lookup_string(set.get(), "kel", &value) != 0 &&
	    attrset_lookup_string(set.get(), "vport", &value) != 0;
}

// The hosts the store knows by their settings, into `uris` (host: how to reach it).
int add_known_hosts(kel_dbhandle_t h, const std::string &only, std::map<std::string, std::string> *uris)
{
	kel::RecordList<kel_ctrlprop_t> props;
	if (int rc = props.read([&](list_t *l) { return kel_db_get_ctrlprop(h, nullptr, nullptr, l); });
	    rc != KEL_SUCCESS)
		return rc;
	// Those with properties of their own, and those an operator added.
	std::vector<std::string> hosts;
	if (int rc = kel::added_hosts(h, &hosts); rc != KEL_SUCCESS)
		return rc;
	for (kel_ctrlprop_t *p : props)
		hosts.push_back(p->ecp_host);
	for (const std::string &host : hosts) {
		if (host.empty() || uris->count(host) != 0 || (!only.empty() && only != host))
			continue;
		char uri[1024];
		(*uris)[host] = kel_kelnode_uri(h, host.c_str(), uri, sizeof(uri)) == KEL_SUCCESS ? uri : "";
	}
	return KEL_SUCCESS;
}

int verify(kel_dbhandle_t h, const char *filter, bool repair, std::vector<Drift> *out)
{
	std::string only_host;
	const bool all = whole_fabric(filter, &only_host);
	kel::RecordList<kel_vport_t> ports;
	std::deque<kel::RecordList<kel_t>> kels;  // records stay where they are as more come
	std::vector<Port> bound;
	std::map<std::string, std::string> uris;                // host: how to reach it ("" when it cannot be)
	std::set<std::pair<std::string, std::string>> flooded;  // (tenant, kel) of VXLAN kels
	{
		kel::StoreLock lock(h);
		int rc = lock.status();
		if (rc != KEL_SUCCESS)
			return rc;
		rc = ports.read(
		    [&](list_t *l) { return kel_db_get_filtered_vportlist(h, filter, l, KEL_LIST_BOUND_PORTS); });
		if (rc == KEL_E_VPORT_NOTFOUND && !all)
			return KEL_SUCCESS;
		if (rc != KEL_SUCCESS && rc != KEL_E_VPORT_NOTFOUND)
			return rc;
		// The whole fabric: every host the store knows, for what it left behind.
		if (all && (rc = add_known_hosts(h, only_host, &uris)) != KEL_SUCCESS)
			return rc;
		std::map<std::string, kel_t *> by_kel;  // "tenant/kel" to its record
		for (kel_vport_t *vp : ports) {
			if (vp->evp_status != VPORT_STATUS_USED)
				continue;
			const std::string key = std::string(vp->evp_tenantname) + "/" + vp->evp_kelname;
			if (by_kel.count(key) == 0) {
				kels.emplace_back();
				if ((rc = kels.back().read([&](list_t *l) {
					    return kel_db_get_kellist(h, vp->evp_tenantname, vp->evp_kelname, l,
					        KEL_LIST_NO_MEMBERS);
				    })) != KEL_SUCCESS)
					return rc;
				by_kel[key] = kels.back().front();
				if (value_of(by_kel[key]->kel_props, "l2-type") == "vxlan")
					flooded.insert({vp->evp_tenantname, vp->evp_kelname});
			}
			Port p;
			p.vp = vp;
			p.kel = by_kel[key];
			p.object = key + "/" + vp->evp_name;
			expect(h, &p);
			bound.push_back(std::move(p));
			if (uris.count(vp->evp_hostname) == 0) {
				char uri[1024];
				uris[vp->evp_hostname] = kel_kelnode_uri(h, vp->evp_hostname, uri, sizeof(uri)) ==
				        KEL_SUCCESS
				    ? uri
				    : "";
			}
		}
	}
	// Every host at once, as a kel property change reaches them: each share touches only
	// its own ports and results, and what the shares found is told in host order.
	std::vector<std::pair<std::string, std::string>> hosts(uris.begin(), uris.end());
	std::vector<std::vector<const Port *>> shares(hosts.size());
	for (size_t i = 0; i < hosts.size(); i++)
		for (const Port &p : bound)
			if (hosts[i].first == p.vp->evp_hostname)
				shares[i].push_back(&p);
	std::vector<HostResult> found(hosts.size());
	std::vector<char> failed(hosts.size(), 0);
	kel::fan_out(hosts.size(), [&](size_t i) noexcept {
		try {
			verify_host(hosts[i].first, hosts[i].second, shares[i], all, repair, &found[i]);
		} catch (const std::bad_alloc &) {
			failed[i] = 1;
		}
	});
	if (std::find(failed.begin(), failed.end(), 1) != failed.end())
		return KEL_E_NOMEM;
	kel::FanOutNote note{"verify", time(nullptr), {}};
	for (size_t i = 0; i < hosts.size(); i++)
		note.hosts.emplace_back(hosts[i].first, found[i].answered);
	kel::note_fan_out(note);
	for (HostResult &f : found) {
		// A port bound to a VNIC its host does not have is released, one at a time on the
		// store's handle; the release asks the host once more.
		if (repair)
			for (const auto &[p, at] : f.release)
				f.drifts[at].repaired = kel_db_reset_vport(h, p->vp->evp_tenantname, p->vp->evp_kelname,
				                            p->vp->evp_name, nullptr, 0) == KEL_SUCCESS;
		out->insert(out->end(), f.drifts.begin(), f.drifts.end());
	}
	for (const auto &[tenant, kel] : flooded)
		if (int rc = verify_flood(h, tenant.c_str(), kel.c_str(), repair, out); rc != KEL_SUCCESS)
			return rc;
	return KEL_SUCCESS;
}

}  // namespace

extern "C" {

int kel_db_verify(kel_dbhandle_t h, const char *filter, uint32_t flags, list_t *drifts) noexcept
{
	if (h == nullptr || drifts == nullptr || (flags & ~KEL_VERIFY_REPAIR) != 0)
		return KEL_E_INVALID_ARGS;
	const bool repair = (flags & KEL_VERIFY_REPAIR) != 0;
	size_t repaired = 0, differences = 0;
	const auto run = [&] {
		std::vector<Drift> found;
		const int rc = verify(h, filter, repair, &found);
		if (rc != KEL_SUCCESS)
			return rc;
		kel::RecordList<kel_drift_t> built;
		for (const Drift &d : found) {
			kel_drift_t *rec = built.append();
			if (rec == nullptr)
				return KEL_E_NOMEM;
			kel::copy_text(rec->edr_object, d.object.c_str(), sizeof(rec->edr_object));
			kel::copy_text(rec->edr_host, d.host.c_str(), sizeof(rec->edr_host));
			kel::copy_text(rec->edr_what, d.what.c_str(), sizeof(rec->edr_what));
			kel::copy_text(rec->edr_store, d.store.c_str(), sizeof(rec->edr_store));
			kel::copy_text(rec->edr_found, d.found.c_str(), sizeof(rec->edr_found));
			rec->edr_repaired = d.repaired ? B_TRUE : B_FALSE;
			repaired += d.repaired ? 1 : 0;
		}
		differences = found.size();
		built.release(drifts);
		return KEL_SUCCESS;
	};
	// Only a repair changes anything: a comparison alone is no change to record.
	if (!repair)
		return kel::c_boundary(run);
	return kel::audit::logged(
	    [&] {
		    return kel::audit::Change{"repair-hosts", "", filter != nullptr && *filter ? filter : "fabric",
		        std::to_string(repaired) + " of " + std::to_string(differences) + " differences repaired"};
	    },
	    run);
}

void kel_free_driftlist(list_t *drifts) noexcept
{
	if (drifts == nullptr)
		return;
	while (void *d = list_remove_head(drifts))
		std::free(d);
	list_destroy(drifts);
}

}  // extern "C"
