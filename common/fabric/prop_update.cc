#include "prop_update.h"

#include <uuid/uuid.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "allocator.h"
#include "attrset_ptr.h"
#include "audit.h"
#include "c_boundary.h"
#include "connections.h"
#include "error_code.h"
#include "fan_out.h"
#include "fan_out_note.h"
#include "filter.h"
#include "harl.h"
#include "host_link.h"
#include "kel_assert.h"
#include "names.h"
#include "nuq_errors.h"
#include "owners.h"
#include "prop_catalogue.h"
#include "range.h"
#include "sql.h"
#include "text.h"

namespace {

constexpr int kLinkFlags = 0x8001;  // the datalink manager's: apply now, not persistent
constexpr size_t kTextLen = 1024;
constexpr int kBindingAttempts = 3;  // times a port update follows a port that moves

using kel::KelPtr;
using kel::Text;

std::optional<std::string> lookup(attrset_t *set, const char *name)
{
	char *value = nullptr;
	if (set == nullptr || attrset_lookup_string(set, name, &value) != 0)
		return std::nullopt;
	return std::string(value);
}

// The one "name=value" of an update, read and checked as every update begins.
struct OneProp {
	kel::AttrSetPtr set;
	std::string name;
	std::string value;
};

int read_one(const char *prop, OneProp *out)
{
	if (int rc = kel::read_props(prop, &out->set); rc != KEL_SUCCESS)
		return rc;
	if (kel_attrset_count(out->set.get()) != 1)
		return KEL_E_INVALID_ARGS;
	attrset_entry_t *e = attrset_next_entry(out->set.get(), nullptr);
	char *value = nullptr;
	if (attrset_entry_value_string(e, &value) != 0)
		return KEL_E_INVALID_PROP;
	out->name = attrset_entry_name(e);
	out->value = value;
	return KEL_SUCCESS;
}

int check_writable(const std::string &name)
{
	char perm[3];
	if (int rc = kel_get_prop_perm(name.c_str(), perm, sizeof(perm)); rc != KEL_SUCCESS)
		return rc;
	return std::strchr(perm, 'w') != nullptr ? KEL_SUCCESS : KEL_E_READONLY;
}

// The front of the switch and port updates: one entry, writable, valid on `type`.
int read_update(const char *prop, kel_proptype_t type, OneProp *out)
{
	int rc = read_one(prop, out);
	if (rc == KEL_SUCCESS)
		rc = check_writable(out->name);
	if (rc == KEL_SUCCESS)
		rc = kel_check_prop(out->set.get(), type);
	return rc;
}

// Puts (name, value) into an object's set, starting one when it has none, and prints it.
int with_value(attrset_t **set, const char *name, const char *value, char **text)
{
	if (*set == nullptr) {
		if ((*set = kel_create_attrset(1, name, DATA_TYPE_STRING, value)) == nullptr)
			return KEL_E_NOMEM;
	} else {
		(void)attrset_remove(*set, name, DATA_TYPE_STRING);
		if (attrset_add_string(*set, name, value) != 0)
			return KEL_E_NOMEM;
	}
	return kel_attrset2str(*set, text);
}

int store_props(kel_dbhandle_t h, attrset_t **set, const char *name, const char *value, const char *table,
    const char *column, const char *key, const uuid_t uuid)
{
	char *raw = nullptr;
	if (int rc = with_value(set, name, value, &raw); rc != KEL_SUCCESS)
		return rc;
	Text text(raw);
	return kel::exec(h, kel::SqlText("UPDATE %s set %s = ? WHERE %s = ?", table, column, key),
	    {text.get(), kel::uuid_text(uuid)});
}

// A range-set operation with a new result text: KEL_SUCCESS and *out, or its error.
int diff(const char *a, const char *b, int type, Text *out)
{
	char *raw = nullptr;
	int rc = kel_rsrc_range_diff(a, b, &raw, -1, type);
	out->reset(raw);
	return rc;
}

// The link value a bound port gets when its own value is cleared: its switch's, if any.
std::string link_value(const OneProp &p, kel_t *kel)
{
	if (!p.value.empty())
		return p.value;
	return lookup(kel->kel_props, p.name.c_str()).value_or("");
}

// One host's part of a switch property change: the VNICs of its bound ports, reached
// over one connection.
struct HostShare {
	std::string host;
	std::vector<const kel_vport_t *> ports;
	std::string uri;  // empty: the host's URI could not be made
	bool failed = false;
};

// Sets the property on every VNIC of the share; runs on a thread of its own, so it
// touches neither the store nor anything another share uses, and throws nothing.
void reach_host(HostShare *share, attrset_t *kelprops, const char *name, const char *value, uint32_t flags) noexcept
{
	try {
		nuq::KeptConnection conn;
		if (share->uri.empty() || conn.open(share->uri) != NUQ_E_SUCCESS) {
			share->failed = true;
			return;
		}
		for (const kel_vport_t *vp : share->ports) {
			nuq_instance_t *link = nullptr;
			const auto lookup = [&] {
				return harl_Datalink__nuq_lookup(conn.get(), 1, &link, 1, "name", vp->evp_vnicname);
			};
			int r = lookup();
			if (r != 0 && conn.stale(r))
				r = conn.open(share->uri) == NUQ_E_SUCCESS ? lookup() : r;
			if (r != 0 ||
			    kel_host_set_one_linkprop(link, kelprops, vp->evp_props, name, value, flags) != KEL_SUCCESS)
				share->failed = true;
			nuq_instance_rele(link);
		}
	} catch (const std::bad_alloc &) {
		share->failed = true;
	}
}

int set_kelprop(kel_dbhandle_t h, const char *tenant, const char *kelname, const char *prop, uint32_t flags)
{
	OneProp p;
	int rc = read_update(prop, KEL_PROPTYPE_KEL, &p);
	if (rc != KEL_SUCCESS)
		return rc;
	KelPtr kel;
	{
		kel::StoreLock lock(h);
		if ((rc = lock.status()) != KEL_SUCCESS)
			return rc;
		kel::RecordList<kel_t> kels;
		const auto bound = [&](list_t *l) {
			return kel_db_get_kellist(h, tenant, kelname, l, KEL_LIST_BOUND_PORTS);
		};
		if ((rc = kels.read(bound)) != KEL_SUCCESS)
			return rc;
		kel.reset(kels.take(kels.front()));
		if ((rc = kel_db_set_one_kelprop(h, kel.get(), p.name.c_str(), p.value.c_str(), flags)) != KEL_SUCCESS)
			return rc;
	}
	// Only link properties mean anything to a VNIC; an extended switch property stays
	// in the store.
	if ((kel_get_prop_entry(p.name.c_str(), KEL_PROPTYPE_KEL).ep_flags & EPD_DLPROP) == 0)
		return KEL_SUCCESS;
	// The bound ports that take the switch's value, by host: each host is reached once,
	// and the hosts all at once.
	std::vector<HostShare> shares;
	std::unordered_map<std::string, size_t> by_host;
	for (auto *vp = static_cast<kel_vport_t *>(list_head(&kel->kel_ports)); vp != nullptr;
	     vp = static_cast<kel_vport_t *>(list_next(&kel->kel_ports, vp))) {
		if (vp->evp_status != VPORT_STATUS_USED || lookup(vp->evp_props, p.name.c_str()))
			continue;
		auto [at, added] = by_host.emplace(vp->evp_hostname, shares.size());
		if (added) {
			shares.emplace_back();
			shares.back().host = vp->evp_hostname;
		}
		shares[at->second].ports.push_back(vp);
	}
	for (HostShare &share : shares) {
		char uri[kTextLen];
		if (kel_kelnode_uri(h, share.host.c_str(), uri, sizeof(uri)) == KEL_SUCCESS)
			share.uri = uri;
	}
	kel::fan_out(shares.size(),
	    [&](size_t i) { reach_host(&shares[i], kel->kel_props, p.name.c_str(), p.value.c_str(), flags); });
	kel::FanOutNote note{"property", time(nullptr), {}};
	for (const HostShare &share : shares)
		note.hosts.emplace_back(share.host, !share.failed);
	kel::note_fan_out(note);
	bool partial = false;
	for (const HostShare &share : shares)
		if (share.failed) {
			kel::audit::missed(share.host, KEL_E_HOST_CONNECT);
			partial = true;
		}
	return partial ? KEL_E_PROP_PARTIAL : KEL_SUCCESS;
}

// The switch with its one port, under the lock: KEL_E_KEL_NOTFOUND or KEL_E_VPORT_NOTFOUND.
int read_kelvport(kel_dbhandle_t h, const char *tenant, const char *kelname, const char *vport, KelPtr *kel)
{
	if (!kel_db_kel_exists(h, tenant, kelname))
		return KEL_E_KEL_NOTFOUND;
	kel_t *raw = nullptr;
	if (kel_db_get_kelvport(h, tenant, kelname, vport, &raw) != KEL_SUCCESS || raw == nullptr)
		return KEL_E_VPORT_NOTFOUND;
	kel->reset(raw);
	return KEL_SUCCESS;
}

int set_vportprop(kel_dbhandle_t h, const char *tenant, const char *kelname, const char *vport, const char *prop,
    uint32_t flags)
{
	OneProp p;
	int rc = read_update(prop, KEL_PROPTYPE_VPORT, &p);
	if (rc != KEL_SUCCESS)
		return rc;
	const char *name = p.name.c_str();
	const bool dlprop = (kel_get_prop_entry(name, KEL_PROPTYPE_VPORT).ep_flags & EPD_DLPROP) != 0;
	KelPtr kel;
	// The host is reached without the lock, and meanwhile the port may be unbound or move:
	// a binding found changed once the lock is back starts the update over.
	for (int attempt = 0; attempt < kBindingAttempts; attempt++) {
		std::string host, vnic;
		{
			kel::StoreLock lock(h);
			if ((rc = lock.status()) != KEL_SUCCESS ||
			    (rc = read_kelvport(h, tenant, kelname, vport, &kel)) != KEL_SUCCESS)
				return rc;
			auto *vp = static_cast<kel_vport_t *>(list_head(&kel->kel_ports));
			if (vp->evp_status != VPORT_STATUS_USED || !dlprop)
				return kel_db_set_one_vportprop(h, vp, name, p.value.c_str(), flags);
			host = vp->evp_hostname;
			vnic = vp->evp_vnicname;
		}
		kel::HostLink link;
		if ((rc = link.open(h, host.c_str(), vnic.c_str())) != KEL_SUCCESS)
			return rc;
		kel::StoreLock lock(h);
		if ((rc = lock.status()) != KEL_SUCCESS ||
		    (rc = read_kelvport(h, tenant, kelname, vport, &kel)) != KEL_SUCCESS)
			return rc;
		auto *vp = static_cast<kel_vport_t *>(list_head(&kel->kel_ports));
		if (vp->evp_status != VPORT_STATUS_USED || host != vp->evp_hostname || vnic != vp->evp_vnicname)
			continue;
		const std::optional<std::string> old = lookup(vp->evp_props, name);
		const std::string value = link_value(p, kel.get());
		if ((rc = kel_host_set_one_linkprop(link.get(), kel->kel_props, vp->evp_props, name, value.c_str(),
		         flags)) != KEL_SUCCESS)
			return rc;
		if ((rc = kel_db_set_one_vportprop(h, vp, name, p.value.c_str(), flags)) != KEL_SUCCESS && old)
			(void)kel_host_set_one_linkprop(link.get(), kel->kel_props, vp->evp_props, name, old->c_str(),
			    flags);
		return rc;
	}
	// The port keeps moving under us: nothing was changed.
	return KEL_E_FAILED;
}

int set_ipnetprop(kel_dbhandle_t h, const char *tenant, const char *kelname, const char *ipnet, const char *prop,
    uint32_t flags)
{
	OneProp p;
	int rc = read_one(prop, &p);
	if (rc != KEL_SUCCESS)
		return rc;
	kel::StoreLock lock(h);
	if ((rc = lock.status()) != KEL_SUCCESS)
		return rc;
	kel::RecordList<kel_ipnet_t> nets;
	if ((rc = nets.read([&](list_t *l) { return kel_db_get_ipnetlist(h, tenant, kelname, ipnet, l, 0); })) !=
	    KEL_SUCCESS)
		return rc;
	KEL_ASSERT(kel::kAreaProp, kel_list_count(nets.get()) == 1);
	kel_ipnet_t *ip = nets.front();
	rc = check_writable(p.name);
	// Only a network's own properties (and extended ones) may be set on it: a switch's
	// or a port's writable property named here would otherwise land in the network's
	// properties, where nothing reads it.
	if (rc == KEL_SUCCESS && kel_get_prop_entry(p.name.c_str(), KEL_PROPTYPE_IPNET).ep_pname == nullptr)
		rc = KEL_E_INVALID_PROP;
	if (rc == KEL_SUCCESS)
		rc = kel_db_set_one_ipnetprop(h, ip, p.name.c_str(), p.value.c_str(), flags);
	return rc;
}

}  // namespace

int kel_db_set_one_kelprop(kel_dbhandle_t h, kel_t *kel, const char *name, const char *value, uint32_t)
{
	return store_props(h, &kel->kel_props, name, value, "kel_tbl", "kel_props", "kel_uuid", kel->kel_uuid);
}

int kel_db_set_one_vportprop(kel_dbhandle_t h, kel_vport_t *vport, const char *name, const char *value, uint32_t)
{
	return store_props(h, &vport->evp_props, name, value, "vport_tbl", "vport_props", "vport_uuid",
	    vport->evp_uuid);
}

int kel_db_set_bind_props(kel_dbhandle_t h, kel_vport_t *vport, attrset_t *props)
{
	for (attrset_entry_t *e = props != nullptr ? attrset_next_entry(props, nullptr) : nullptr; e != nullptr;
	     e = attrset_next_entry(props, e)) {
		const std::string name = attrset_entry_name(e);
		char *value = nullptr;
		if (name == "vmid" || name == "containerid")
			continue;  // the binding's own, kept with it
		if (attrset_entry_value_string(e, &value) != 0 ||
		    (kel_get_prop_entry(name.c_str(), KEL_PROPTYPE_VPORT).ep_flags & EPD_DLPROP) == 0)
			return KEL_E_INVALID_PROP;
		OneProp p;
		const std::string text = name + "=" + value;
		int rc = read_update(text.c_str(), KEL_PROPTYPE_VPORT, &p);
		if (rc == KEL_SUCCESS)
			rc = kel_db_set_one_vportprop(h, vport, name.c_str(), value, 0);
		if (rc != KEL_SUCCESS)
			return rc;
	}
	return KEL_SUCCESS;
}

int kel_db_validate_newpool(kel_dbhandle_t h, kel_ipnet_t *ipnet, const char *newpool, char **newavail)
{
	*newavail = nullptr;
	const int type = kel_ipnet_rangetype(ipnet->ei_af);
	const std::string pool = lookup(ipnet->ei_props, "pool").value_or("");
	const std::string filter = "ipnet=" + kel::uuid_text(ipnet->ei_uuid);
	char *avail_raw = nullptr;
	int rc = kel_db_get_filtered_value(h, "ipnet_tbl", "ipnet_avail_pool_range", filter.c_str(), &avail_raw, -1,
	    DATA_TYPE_STRING);
	Text avail(avail_raw);
	if (rc != KEL_SUCCESS)
		return rc;
	Text in_use, result;
	if ((rc = diff(pool.c_str(), avail ? avail.get() : "", type, &in_use)) != KEL_SUCCESS)
		return rc;
	if (kel_rsrc_range_contains(newpool, in_use.get(), type) != KEL_SUCCESS)
		return KEL_E_RANGE_INUSE;
	if ((rc = diff(newpool, in_use.get(), type, &result)) != KEL_SUCCESS)
		return rc;
	// Addresses given to ports explicitly, outside the old pool, stay theirs.
	kel::RecordList<kel_vport_t> ports;
	const std::string by_kel = "kel=" + kel::uuid_text(ipnet->ei_keluuid);
	rc = ports.read([&](list_t *l) { return kel_db_get_filtered_vportlist(h, by_kel.c_str(), l, 0); });
	if (rc == KEL_E_VPORT_NOTFOUND) {
		*newavail = result.release();
		return KEL_SUCCESS;
	}
	if (rc != KEL_SUCCESS)
		return rc;
	for (kel_vport_t *vp : ports) {
		if (rc != KEL_SUCCESS)
			break;
		std::string addr = lookup(vp->evp_props, "ipaddr").value_or("");
		addr = addr.substr(0, addr.find('/'));
		if (!addr.empty() && kel_rsrc_range_contains(result.get(), addr.c_str(), type) == KEL_SUCCESS) {
			Text less;
			if ((rc = diff(result.get(), addr.c_str(), type, &less)) == KEL_SUCCESS)
				result = std::move(less);
		}
	}
	if (rc == KEL_SUCCESS)
		*newavail = result.release();
	return rc;
}

int kel_db_set_one_ipnetprop(kel_dbhandle_t h, kel_ipnet_t *ipnet, const char *name, const char *value, uint32_t)
{
	if (std::strcmp(name, "pool") != 0)
		return store_props(h, &ipnet->ei_props, name, value, "ipnet_tbl", "ipnet_props", "ipnet_uuid",
		    ipnet->ei_uuid);
	const std::optional<std::string> router = lookup(ipnet->ei_props, "defrouter");
	const bool unspecified = !router || kel_address_unspecified(router->c_str());
	const int type = kel_ipnet_rangetype(ipnet->ei_af);
	char stored[kTextLen];
	char *avail_raw = nullptr;
	int rc;
	if (*value != '\0') {
		if ((rc = kel_valid_poolrange(value, unspecified ? nullptr : router->c_str(), ipnet)) != KEL_SUCCESS ||
		    (rc = kel_rsrc_range_merge(value, stored, sizeof(stored), type)) != KEL_SUCCESS ||
		    (rc = kel_db_validate_newpool(h, ipnet, stored, &avail_raw)) != KEL_SUCCESS)
			return rc;
	} else {
		// An empty pool is the whole usable span, less the router.
		const std::string span = std::string(ipnet->ei_sastr) + "-" + ipnet->ei_eastr;
		if (unspecified)
			kel::copy_text(stored, span.c_str(), sizeof(stored));
		else if ((rc = kel_rsrc_range_diff(span.c_str(), router->c_str(), stored, sizeof(stored), type)) !=
		    KEL_SUCCESS)
			return rc;
		if ((avail_raw = strdup(ipnet->ei_availrange != nullptr ? ipnet->ei_availrange : "")) == nullptr)
			return KEL_E_NOMEM;
	}
	Text avail(avail_raw);
	char *text_raw = nullptr;
	if ((rc = with_value(&ipnet->ei_props, name, stored, &text_raw)) != KEL_SUCCESS)
		return rc;
	Text text(text_raw);
	// Both columns in one statement: the pool and what is left of it never disagree.
	return kel::exec(h, "UPDATE ipnet_tbl set ipnet_props = ?, ipnet_avail_pool_range = ? WHERE ipnet_uuid = ?",
	    {text.get(), avail.get(), kel::uuid_text(ipnet->ei_uuid)});
}

int kel_host_set_one_linkprop(nuq_instance_t *link, attrset_t *kelprops, attrset_t *vportprops, const char *name,
    const char *value, uint32_t)
{
	char fallback[kTextLen];
	if (*value == '\0') {
		if (int rc = kel_get_prop_default(name, fallback, sizeof(fallback)); rc != KEL_SUCCESS)
			return rc;
		value = fallback;
	}
	const bool protection = std::strcmp(name, "protection") == 0;
	const std::string text = std::string(name) + "=" + (protection && std::strcmp(value, "none") == 0 ? "" : value);
	harl_DatalinkError *err = nullptr;
	int r = harl_Datalink_setProperty(link, text.c_str(), kLinkFlags, &err);
	if (r == 0 && protection)
		r = kel_set_allowed_ips(link, kelprops, vportprops, name, value, kLinkFlags, &err);
	int rc = KEL_SUCCESS;
	if (r == 1)
		rc = kel::wexo_error(err != nullptr ? err->dde_err : 0);
	else if (r != 0)
		rc = kel::compose_error(r, KEL_E_NUQ);
	harl_DatalinkError_free(err);
	return rc;
}

int kel_set_allowed_ips(nuq_instance_t *link, attrset_t *kelprops, attrset_t *vportprops, const char *name,
    const char *protection, int flags, harl_DatalinkError **err)
{
	std::string text = "allowed-ips=";
	if (std::strstr(protection, "ip-nospoof") != nullptr) {
		const std::string addr = lookup(vportprops, "ipaddr").value_or("").substr(0, 49);
		text += addr.substr(0, addr.find('/'));
	}
	const int r = harl_Datalink_setProperty(link, text.c_str(), flags, err);
	if (r == 0)
		return 0;
	// Without its allowed address, ip-nospoof would drop all of the port's traffic:
	// put the protection back as it was.
	std::string previous = lookup(vportprops, name).value_or(lookup(kelprops, name).value_or(""));
	if (previous.empty()) {
		char def[kTextLen];
		if (kel_get_prop_default(name, def, sizeof(def)) == KEL_SUCCESS)
			previous = def;
	}
	if (previous == "none")
		previous.clear();
	harl_DatalinkError *mine = nullptr;
	(void)harl_Datalink_setProperty(link, (std::string(name) + "=" + previous).c_str(), flags, &mine);
	harl_DatalinkError_free(mine);
	return r;
}

extern "C" {

int kel_set_kelprop(kel_dbhandle_t h, const char *tenant, const char *kel, const char *prop, uint32_t flags) noexcept
{
	if (h == nullptr)
		return KEL_E_INVALID_ARGS;
	if (!kel::names_valid({tenant, kel}))
		return KEL_E_INVALID_NAME;
	return kel::audit::logged([&] { return kel::audit::on("set-kelprop", tenant, kel::audit::text(kel), prop); },
	    [&] { return set_kelprop(h, tenant, kel, prop, flags); });
}

int kel_set_vportprop(kel_dbhandle_t h, const char *tenant, const char *kel, const char *vport, const char *prop,
    uint32_t flags) noexcept
{
	if (h == nullptr)
		return KEL_E_INVALID_ARGS;
	if (!kel::names_valid({tenant, kel, vport}))
		return KEL_E_INVALID_NAME;
	return kel::audit::logged(
	    [&] { return kel::audit::on("set-vportprop", tenant, kel::audit::member(kel, vport), prop); },
	    [&] { return set_vportprop(h, tenant, kel, vport, prop, flags); });
}

int kel_set_ipnetprop(kel_dbhandle_t h, const char *tenant, const char *kel, const char *ipnet, const char *prop,
    uint32_t flags) noexcept
{
	if (h == nullptr)
		return KEL_E_INVALID_ARGS;
	if (!kel::names_valid({tenant, kel, ipnet}))
		return KEL_E_INVALID_NAME;
	return kel::audit::logged(
	    [&] { return kel::audit::on("set-ipnetprop", tenant, kel::audit::member(kel, ipnet), prop); },
	    [&] { return set_ipnetprop(h, tenant, kel, ipnet, prop, flags); });
}

}  // extern "C"
