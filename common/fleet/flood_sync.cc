// Joining the hosts of a VXLAN kel when the fabric has no multicast group. Such a link
// floods nowhere of itself: each host's link gets the endpoints of the kel's other hosts
// as its flood list. Endpoints are read from the hosts' own links, so the controller
// keeps no copy that could go stale.
#include <sys/socket.h>

#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "c_boundary.h"
#include "connections.h"
#include "ctrlprop.h"
#include "error_code.h"
#include "fan_out.h"
#include "fan_out_note.h"
#include "flood_sync.h"
#include "harl.h"
#include "host_link.h"
#include "kelnet.h"
#include "names.h"
#include "nuq_errors.h"
#include "owners.h"
#include "sql.h"

namespace {

using DatalinkError = kel::Owned<harl_DatalinkError, harl_DatalinkError_free>;

// What the store says about the kel: the VXLAN link its hosts have, and the hosts.
struct KelHosts {
	bool flooded = false;  // a VXLAN kel without a group: the lists are ours to keep
	char link[32] = "";
	std::set<std::string> hosts;  // bound there, or a port migrating there
};

int read_kel(kel_dbhandle_t h, const char *tenant, const char *kelname, KelHosts *out)
{
	char mgroup[64] = "";
	int rc = kel_db_get_one_hostprop(h, nullptr, "vxlan-mgroup", DATA_TYPE_STRING, mgroup, sizeof(mgroup));
	if (rc != KEL_SUCCESS && rc != KEL_E_NOTFOUND)
		return rc;
	const bool group = rc == KEL_SUCCESS && mgroup[0] != '\0' && !kel_address_unspecified(mgroup);
	char filter[KEL_FILTER_LEN];
	if ((rc = kel_create_attrstr(filter, sizeof(filter), nullptr, 2, "tenant", tenant, "kel", kelname)) !=
	    KEL_SUCCESS)
		return rc;
	kel::RecordList<kel_t> kels;
	const auto bound = [&](list_t *l) { return kel_db_get_filtered_kellist(h, filter, l, KEL_LIST_BOUND_PORTS); };
	if ((rc = kels.read(bound)) != KEL_SUCCESS)
		return rc;
	kel_t *k = kels.front();
	char *l2type = nullptr, *vni = nullptr;
	out->flooded = attrset_lookup_string(k->kel_props, "l2-type", &l2type) == 0 &&
	    std::strcmp(l2type, "vxlan") == 0 && attrset_lookup_string(k->kel_props, "vni", &vni) == 0 && !group;
	if (out->flooded)
		kel_vxlan_linkname(std::atoi(vni), out->link, sizeof(out->link));
	for (auto *vp = static_cast<kel_vport_t *>(list_head(&k->kel_ports)); vp != nullptr;
	     vp = static_cast<kel_vport_t *>(list_next(&k->kel_ports, vp))) {
		if (vp->evp_status != VPORT_STATUS_USED)
			continue;
		out->hosts.insert(vp->evp_hostname);
		char *dest = nullptr;
		if (attrset_lookup_string(vp->evp_props, "kel:migrating_to", &dest) == 0)
			out->hosts.insert(dest);
	}
	return KEL_SUCCESS;
}

// Asks each host of `kel` for its link's flood list, all hosts at once (over the
// connections kept from the last time): one Member a host, in host order. *complete is
// false when some host's keld did not answer.
int ask_members(kel_dbhandle_t h, const KelHosts &kel, std::vector<kel::FloodMember> *members, bool *complete)
{
	*complete = true;
	// Members hold their connections: the vector is made at its size, never copied.
	std::vector<kel::FloodMember> fresh(kel.hosts.size());
	members->swap(fresh);
	// The store is read here, by this thread; the hosts are reached on the fan-out's.
	std::vector<std::string> uris;
	for (const std::string &host : kel.hosts) {
		char uri[1024];
		const int rc = kel_kelnode_uri(h, host.c_str(), uri, sizeof(uri));
		if (rc != KEL_SUCCESS && rc != KEL_E_NOSPACE && rc != KEL_E_NOMEM)
			return rc;
		uris.push_back(rc == KEL_SUCCESS ? uri : "");
		(*members)[uris.size() - 1].host = host;
	}
	kel::fan_out(members->size(), [&](size_t i) noexcept {
		kel::FloodMember &m = (*members)[i];
		try {
			// The list is asked for at once: a host without the kel's link answers
			// that it has none, in the same exchange.
			const int r = m.link.call_named(uris[i], kel.link, [&](nuq_instance_t *link) {
				return harl_Datalink_getFlood(link, &m.local, &m.remotes, nullptr);
			});
			m.reached = !nuq::KeptConnection::transport_failed(r) && r != NUQ_E_NOMEM;
			m.has_link = r == NUQ_E_SUCCESS && !m.local.empty();
		} catch (const std::bad_alloc &) {
			m.reached = m.has_link = false;
		}
	});
	for (const kel::FloodMember &m : *members)
		*complete = *complete && m.reached;
	return KEL_SUCCESS;
}

int sync(kel_dbhandle_t h, const char *tenant, const char *kelname)
{
	KelHosts kel;
	int rc;
	{
		kel::StoreLock lock(h);
		if ((rc = lock.status()) != KEL_SUCCESS || (rc = read_kel(h, tenant, kelname, &kel)) != KEL_SUCCESS)
			return rc;
	}
	if (!kel.flooded)
		return KEL_SUCCESS;
	std::vector<kel::FloodMember> members;
	bool complete = true;
	if ((rc = ask_members(h, kel, &members, &complete)) != KEL_SUCCESS)
		return rc;
	// A host that did not answer may have an endpoint in the others' lists: then they
	// are only added to, and nothing is taken away until every host answers again. A list
	// already as wanted is left alone, so a host joining touches its own list and adds
	// itself to each other host's.
	std::vector<char> set(members.size(), 1);
	kel::fan_out(members.size(), [&](size_t i) noexcept {
		kel::FloodMember &to = members[i];
		if (!to.has_link)
			return;
		try {
			const std::vector<std::string> wanted = kel::flood_wanted(members, to);
			if (wanted == to.remotes)
				return;
			harl_DatalinkError *raw = nullptr;
			set[i] = harl_Datalink_setFlood(to.link.get(), wanted, !complete, &raw) == NUQ_E_SUCCESS;
			DatalinkError err(raw);
		} catch (const std::bad_alloc &) {
			set[i] = 0;
		}
	});
	kel::FanOutNote note{"flood", time(nullptr), {}};
	for (size_t i = 0; i < members.size(); i++)
		note.hosts.emplace_back(members[i].host, members[i].reached && set[i] != 0);
	kel::note_fan_out(note);
	for (char ok : set)
		complete = complete && ok;
	return complete ? KEL_SUCCESS : KEL_E_HOST_CONNECT;
}

}  // namespace

namespace kel {

std::vector<std::string> flood_wanted(const std::vector<FloodMember> &members, const FloodMember &to)
{
	// Only endpoints a link of `to`'s family can send to: a host whose link has none
	// such would otherwise have every other host's list refused whole.
	int family = AF_UNSPEC;
	(void)unicast_endpoint(to.local.c_str(), &family);
	std::set<std::string> remotes;
	for (const FloodMember &from : members) {
		int f = AF_UNSPEC;
		if (&from != &to && from.has_link && from.local != to.local &&
		    unicast_endpoint(from.local.c_str(), &f) && f == family)
			remotes.insert(from.local);
	}
	return {remotes.begin(), remotes.end()};
}

int read_flood(kel_dbhandle_t h, const char *tenant, const char *kelname, std::vector<FloodMember> *members)
{
	KelHosts kel;
	{
		StoreLock lock(h);
		int rc = lock.status();
		if (rc != KEL_SUCCESS || (rc = read_kel(h, tenant, kelname, &kel)) != KEL_SUCCESS)
			return rc;
	}
	members->clear();
	bool complete = true;
	return kel.flooded ? ask_members(h, kel, members, &complete) : KEL_SUCCESS;
}

}  // namespace kel

extern "C" {

int kel_sync_vxlan_flood(kel_dbhandle_t h, const char *tenant, const char *kelname) noexcept
{
	if (h == nullptr || kelname == nullptr || !kel_valid_name(kelname) ||
	    (tenant != nullptr && !kel_valid_name(tenant)))
		return KEL_E_INVALID_ARGS;
	return kel::c_boundary([&] { return sync(h, tenant != nullptr ? tenant : KEL_DEFAULT_TENANT, kelname); });
}

}  // extern "C"
