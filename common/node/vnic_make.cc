// A whole VNIC in one call: bound, made over its lower link with its port's MAC and
// properties, addressed when asked; and taken apart again. Every tool that puts guests on
// a kel (keladm, a hypervisor's hook, a container runtime's plugin) goes through here, so
// that the order of the steps and their undoing live in one place.
#include <cstring>
#include <string>

#include <fstream>

#include <kel/libkel_node.h>
#include "c_boundary.h"
#include "connections.h"
#include "error_code.h"
#include "fabric_links.h"
#include "link_filter.h"
#include "link_internal.h"
#include "link_lock.h"
#include "names.h"
#include "netns_path.h"
#include "nft.h"
#include "owners.h"
#include "text.h"
#include "vnic.h"
#include "wexo.h"

namespace {

using Args = kel::Owned<wexo_arg_list_t, wexo_free_args>;
using Conn = kel::Owned<nuq_conn_t, nuq_disconnect>;

using kel::wexo_error;

// A datalink handle, closed on scope exit.
class Handle {
public:
	~Handle() { wexo_close(h_); }
	wexo_status_t open(const std::string &netns) { return wexo_open_netns(netns.c_str(), &h_); }
	wexo_handle_t get() const { return h_; }

private:
	wexo_handle_t h_ = nullptr;
};

// "NAMESPACE/LINK" into its namespace ("" without one) and its link.
std::string netns_of(const std::string &vnic)
{
	const size_t slash = vnic.find('/');
	return slash == std::string::npos ? "" : vnic.substr(0, slash);
}

std::string link_of(const std::string &vnic)
{
	return vnic.substr(vnic.find('/') + 1);
}

const char *port_prop(const kelcntl_VPortInfo *vp, const char *name)
{
	return kel_propattrset_lookup(vp->evpi_props, vp->evpi_props_count, name);
}

// What kel_vnic_create has done so far, undone in reverse unless it all succeeded.
class Making {
public:
	Making(wexo_handle_t host, const char *vnic, const char *extra) : host_(host), vnic_(vnic), extra_(extra) {}
	~Making()
	{
		if (done_)
			return;
		if (made_)
			(void)wexo_vnic_delete(host_, vnic_, nullptr);
		if (bound_)
			(void)kel_disconnect_vnic(host_, vnic_, extra_, lower_, 0);
		kelcntl_KELImplInfo_free(info_);
	}
	Making(const Making &) = delete;
	Making &operator=(const Making &) = delete;

	int bind(const char *tenant, const char *kel, const char *vport, Args *props)
	{
		wexo_arg_list_t *raw = nullptr;
		const int rc = kel_connect_vnic(host_, tenant, kel, vport, vnic_, &raw, extra_, &lower_, &info_, 0);
		props->reset(raw);
		bound_ = rc == KEL_SUCCESS;
		return rc;
	}
	int make(wexo_vnic_kind_t kind)
	{
		// A VM's tap whose port is still bound to another host: a machine moving here,
		// whose traffic stays with the host it runs on until it runs here.
		char host[256];
		down_ = kind == WEXO_VNIC_MACVTAP && kel_get_hostname(host, sizeof(host)) == KEL_SUCCESS &&
		    port()->evpi_hostname != nullptr && port()->evpi_hostname[0] != '\0' &&
		    std::strcmp(port()->evpi_hostname, host) != 0;
		if (down_)
			kind = static_cast<wexo_vnic_kind_t>(kind | WEXO_VNIC_DOWN);
		const wexo_status_t st = wexo_vnic_create(host_, vnic_, lower_, kind, port_prop(port(), "macaddr"),
		    &id_);
		made_ = st == WEXO_STATUS_OK;
		return made_ ? KEL_SUCCESS : wexo_error(st);
	}
	// The port's link properties, through the call keld uses for live changes.
	int apply(wexo_handle_t guest, const wexo_arg_list_t *props)
	{
		for (uint_t i = 0; i < wexo_arg_count(props); i++)
			if (wexo_status_t st = wexo_set_linkprop(guest, id_, wexo_arg_name(props, i),
			        wexo_arg_value(props, i));
			    st != WEXO_STATUS_OK)
				return wexo_error(st);
		return KEL_SUCCESS;
	}
	// The port's address with the ipnet's prefix length, and a default route through the
	// ipnet's router when it has one.
	int address(wexo_handle_t guest, uint32_t flags)
	{
		const char *ip = port_prop(port(), "ipaddr");
		const kelcntl_KELInfo *k = info_->ekelii_kelinfo;
		if (ip == nullptr || k->ekeli_ipnets_count < 1 || k->ekeli_ipnets[0] == nullptr)
			return KEL_E_IPNET_NOTFOUND;
		const kelcntl_IPnetInfo *net = k->ekeli_ipnets[0];
		const char *subnet = kel_propattrset_lookup(net->eipi_props, net->eipi_props_count, "subnet");
		const char *router = kel_propattrset_lookup(net->eipi_props, net->eipi_props_count, "defrouter");
		const char *slash = subnet != nullptr ? std::strchr(subnet, '/') : nullptr;
		char *end = nullptr;
		const unsigned long plen = slash != nullptr ? std::strtoul(slash + 1, &end, 10) : 0;
		if (slash == nullptr || *end != '\0' || plen > 128)
			return KEL_E_IPNET_NOTFOUND;
		const std::string addr(ip, std::strcspn(ip, "/"));
		const bool routed = router != nullptr && router[0] != '\0' && std::strcmp(router, "0.0.0.0") != 0 &&
		    std::strcmp(router, "::") != 0;
		wexo_status_t st = wexo_link_set_ipaddr(guest, id_, addr.c_str(), static_cast<uint32_t>(plen), nullptr);
		// A namespace that has a default route already (a container's second network)
		// keeps it unless the caller asks for this one.
		if (st == WEXO_STATUS_OK && routed && (flags & KEL_VNIC_NO_ROUTE) == 0 &&
		    (st = wexo_default_route(guest, id_, router, (flags & KEL_VNIC_DEFAULT_ROUTE) != 0)) ==
		        WEXO_STATUS_EXIST)
			st = WEXO_STATUS_OK;
		return st == WEXO_STATUS_OK ? KEL_SUCCESS : wexo_error(st);
	}
	const kelcntl_KELInfo *kel() const { return info_->ekelii_kelinfo; }
	void keep(kel_vnic_t *out, wexo_handle_t guest)
	{
		out->kv_linkid = id_;
		out->kv_lower = lower_;
		(void)wexo_datalink_id2info(host_, lower_, nullptr, nullptr, nullptr, out->kv_lowername,
		    sizeof(out->kv_lowername));
		(void)wexo_link_mtu(guest, id_, &out->kv_mtu);
		out->kv_implinfo = info_;
		out->kv_down = down_ ? B_TRUE : B_FALSE;
		info_ = nullptr;
		done_ = true;
	}

private:
	const kelcntl_VPortInfo *port() const { return info_->ekelii_kelinfo->ekeli_vports[0]; }

	wexo_handle_t host_;
	const char *vnic_;
	const char *extra_;
	kelcntl_KELImplInfo *info_ = nullptr;
	datalink_id_t lower_ = DATALINK_INVALID_LINKID, id_ = DATALINK_INVALID_LINKID;
	bool bound_ = false, made_ = false, done_ = false, down_ = false;
};

int ensure_responder(const kelcntl_KELInfo *kel);

int vnic_create(const char *tenant, const char *kel, const char *vport, const char *vnic, const char *extra,
    wexo_vnic_kind_t kind, uint32_t flags, kel_vnic_t *out)
{
	Handle host, guest;
	out->kv_stage = KEL_VNIC_STAGE_BIND;
	if (wexo_status_t st = host.open(""); st != WEXO_STATUS_OK)
		return wexo_error(st);
	if (wexo_status_t st = guest.open(netns_of(vnic)); st != WEXO_STATUS_OK)
		return wexo_error(st);
	// The controller answers a VNIC it already knows with that VNIC's binding: a name that
	// is taken must be refused before, or undoing would release the other's port.
	if (wexo_name2info(guest.get(), link_of(vnic).c_str(), nullptr, nullptr) == WEXO_STATUS_OK) {
		out->kv_stage = KEL_VNIC_STAGE_MAKE;
		return wexo_error(WEXO_STATUS_EXIST);
	}
	Making m(host.get(), vnic, extra);
	Args props;
	if (int rc = m.bind(tenant, kel, vport, &props); rc != KEL_SUCCESS)
		return rc;
	out->kv_stage = KEL_VNIC_STAGE_MAKE;
	if (int rc = m.make(kind); rc != KEL_SUCCESS)
		return rc;
	out->kv_stage = KEL_VNIC_STAGE_PROPS;
	if (int rc = m.apply(guest.get(), props.get()); rc != KEL_SUCCESS)
		return rc;
	out->kv_stage = KEL_VNIC_STAGE_ADDRESS;
	if ((flags & KEL_VNIC_ADDRESS) != 0)
		if (int rc = m.address(guest.get(), flags); rc != KEL_SUCCESS)
			return rc;
	// The guest learns its address from this host's responder on the kel, which is there
	// before the VNIC is handed over.
	if (!kel_is_dhcp_endpoint(vnic)) {
		const auto record = wexo::fabric::vnic(vnic);
		out->kv_stage = KEL_VNIC_STAGE_BIND;
		if (record && record->lease)
			if (int rc = ensure_responder(m.kel()); rc != KEL_SUCCESS)
				return rc;
	}
	out->kv_stage = 0;
	m.keep(out, guest.get());
	return KEL_SUCCESS;
}

// The responder's link takes nothing into the host's own network stack: its frames are
// read by keld's packet sockets, which see them before the seal drops them. Nor does the
// host speak IPv6 on it. Made down, it comes up only once sealed.
int seal_responder(wexo_handle_t host, const std::string &name, datalink_id_t id)
{
	std::ofstream("/proc/sys/net/ipv6/conf/" + name + "/disable_ipv6") << "1\n";
	wexo_status_t st = wexo::nft::run(wexo_netns_fd(host), wexo::filter::sealed(name));
	if (st == WEXO_STATUS_OK)
		st = wexo_link_up(host, id);
	return st == WEXO_STATUS_OK ? KEL_SUCCESS : wexo_error(st);
}

int vnic_remove(const char *vnic, const char *extra);

// This host's address responder on `kel`: its own link over the kel's lower link, bound to
// a system port of the kel (whose address it answers from), made by the first guest of
// the kel on the host. One made halfway by a process killed meanwhile is made again.
int ensure_responder(const kelcntl_KELInfo *kel)
{
	const std::string name = kel_dhcp_endpoint(kel->ekeli_uuid);
	wexo::LinkLock lock(name);
	if (!lock.held())
		return wexo_error(WEXO_STATUS_DENIED);
	Handle host;
	if (wexo_status_t st = host.open(""); st != WEXO_STATUS_OK)
		return wexo_error(st);
	const auto record = wexo::fabric::vnic(name);
	if (record && record->lease && wexo_name2info(host.get(), name.c_str(), nullptr, nullptr) == WEXO_STATUS_OK)
		return KEL_SUCCESS;
	(void)vnic_remove(name.c_str(), nullptr);
	kel_vnic_t made;
	int rc = vnic_create(kel->ekeli_tenantname, kel->ekeli_name, nullptr, name.c_str(), nullptr,
	    static_cast<wexo_vnic_kind_t>(WEXO_VNIC_MACVLAN | WEXO_VNIC_DOWN), 0, &made);
	if (rc == KEL_SUCCESS && (rc = seal_responder(host.get(), name, made.kv_linkid)) != KEL_SUCCESS)
		(void)vnic_remove(name.c_str(), nullptr);
	kel_vnic_free(&made);
	return rc;
}

// Removes this host's responder on kel `keluuid` once no guest of the kel is left here.
void release_responder(const std::string &keluuid)
{
	const std::string name = kel_dhcp_endpoint(keluuid.c_str());
	wexo::LinkLock lock(name);
	// A kel without a responder here costs no look at every record.
	if (!wexo::fabric::vnic(name))
		return;
	// A guest whose VNIC went with its namespace is no guest: its record waits only for
	// the controller to release its port.
	bool guests = false;
	wexo::fabric::visit_vnics([&](const wexo::fabric::Vnic &v) {
		guests = v.lease && v.lease->kel == keluuid && !v.lease->endpoint &&
		    wexo::fabric::alive(v, WEXO_LEFTOVER_GRACE_SECONDS);
		return !guests;
	});
	if (guests)
		return;
	Handle host;
	if (host.open("") == WEXO_STATUS_OK)
		(void)wexo::nft::run(wexo_netns_fd(host.get()),
		    wexo::filter::removal(wexo::filter::sealed_table(name)));
	(void)vnic_remove(name.c_str(), nullptr);
}

int remove_one(const char *vnic, const char *extra);

// The VNIC's counters as its host's keld reads them, wherever its namespace is, for its
// port to keep; none when they cannot be read (the VNIC still goes, its traffic uncounted).
bool last_counters(const char *vnic, kel_vport_counters_t *last)
{
	nuq_conn_t *raw = nullptr;
	const int connected = kel_nuq_connection_to_self(&raw);
	const Conn self(raw);
	link_stat_t st;
	if (connected != KEL_SUCCESS || kel_get_vnicstat(self.get(), vnic, &st) != KEL_SUCCESS)
		return false;
	*last = {st.ls_ipackets, st.ls_rbytes, st.ls_opackets, st.ls_obytes};
	return true;
}

int vnic_remove(const char *vnic, const char *extra)
{
	// The kel's responder goes with its last guest on the host.
	const auto record = wexo::fabric::vnic(vnic);
	const std::string served = record && record->lease && !record->lease->endpoint ? record->lease->kel : "";
	const int rc = remove_one(vnic, extra);
	if (!served.empty())
		release_responder(served);
	return rc;
}

int remove_one(const char *vnic, const char *extra)
{
	Handle host;
	if (wexo_status_t st = host.open(""); st != WEXO_STATUS_OK)
		return wexo_error(st);
	kel_vport_counters_t last{};
	const bool counted = last_counters(vnic, &last);
	// The VNIC goes first: the link under it can only go once nothing is made over it.
	datalink_id_t lower = DATALINK_INVALID_LINKID;
	const wexo_status_t st = wexo_vnic_delete(host.get(), vnic, &lower);
	if (st != WEXO_STATUS_OK && st != WEXO_STATUS_NOTFOUND)
		return wexo_error(st);
	if (st == WEXO_STATUS_NOTFOUND) {
		// Gone already (its namespace went, or a guest deleted it): its port is still
		// released, and the link it was made over found by the name recorded for it.
		kelcntl_VPortInfo **ports = nullptr;
		int count = 0;
		const int rc = kel_get_vnicinfo(vnic, &ports, &count);
		kelcntl_VPortInfo_array_free(ports, count);
		if (rc == KEL_SUCCESS && count == 0 && extra == nullptr)
			return KEL_E_VPORT_NOTFOUND;
		char name[MAXLINKNAMELEN] = "";
		if (wexo_vnic_recorded_lower(vnic, name, sizeof(name)) == WEXO_STATUS_OK)
			(void)wexo_name2info(host.get(), name, &lower, nullptr);
	}
	const int rc = kel_disconnect_vnic_counted(host.get(), vnic, extra, lower, counted ? &last : nullptr, 0);
	// Without the VNIC and its record there is no lower link to look at: the release is
	// what counts.
	if (rc != KEL_SUCCESS && !(lower == DATALINK_INVALID_LINKID && KEL_ERR_REASON(rc) == KEL_E_WEXO))
		return rc;
	return KEL_SUCCESS;
}

}  // namespace

extern "C" {

int kel_vnic_create(const char *tenant, const char *kelname, const char *vportname, const char *vnicname,
    const char *extra, wexo_vnic_kind_t kind, uint32_t flags, kel_vnic_t *vnic) noexcept
{
	if (vnic == nullptr)
		return KEL_E_INVALID_ARGS;
	std::memset(vnic, 0, sizeof(*vnic));
	if (kelname == nullptr || vnicname == nullptr || (kind != WEXO_VNIC_MACVLAN && kind != WEXO_VNIC_MACVTAP) ||
	    (flags & ~(KEL_VNIC_ADDRESS | KEL_VNIC_DEFAULT_ROUTE | KEL_VNIC_NO_ROUTE)) != 0)
		return KEL_E_INVALID_ARGS;
	return kel::c_boundary([&] {
		std::string name;
		int rc = kel_vnic_by_name(vnicname, true, &name);
		if (rc == KEL_SUCCESS)
			rc = kel_valid_zonevnicname(name.c_str())
			    ? vnic_create(tenant, kelname, vportname, name.c_str(), extra, kind, flags, vnic)
			    : KEL_E_INVALID_ARGS;
		if (rc != KEL_SUCCESS)
			kel_netns_release(netns_of(name));  // a name given for this VNIC alone
		return rc;
	});
}

void kel_vnic_free(kel_vnic_t *vnic) noexcept
{
	if (vnic == nullptr)
		return;
	kelcntl_KELImplInfo_free(vnic->kv_implinfo);
	vnic->kv_implinfo = nullptr;
}

int kel_vnic_remove(const char *vnicname, const char *extra, uint32_t flags) noexcept
{
	if (vnicname == nullptr || (flags & ~KEL_VNIC_IF_IDLE) != 0)
		return KEL_E_INVALID_ARGS;
	if ((flags & KEL_VNIC_IF_IDLE) != 0)
		return kel::c_boundary([&] {
			const auto record = wexo::fabric::vnic(vnicname);
			if (!record || !record->lease || !record->lease->endpoint)
				return KEL_E_INVALID_ARGS;
			release_responder(record->lease->kel);
			return KEL_SUCCESS;
		});
	return kel::c_boundary([&] {
		std::string name;
		if (int rc = kel_vnic_by_name(vnicname, false, &name); rc != KEL_SUCCESS)
			return rc;
		if (!kel_valid_zonevnicname(name.c_str()))
			return KEL_E_INVALID_ARGS;
		const int rc = vnic_remove(name.c_str(), extra);
		kel_netns_release(netns_of(name));
		return rc;
	});
}

int kel_vnic_name(const char *vnicname, uint32_t flags, char *buf, size_t size) noexcept
{
	if (vnicname == nullptr || buf == nullptr || size == 0 || (flags & ~KEL_VNIC_NAME_ATTACH) != 0)
		return KEL_E_INVALID_ARGS;
	return kel::c_boundary([&] {
		std::string name;
		int rc = kel_vnic_by_name(vnicname, (flags & KEL_VNIC_NAME_ATTACH) != 0, &name);
		if (rc == KEL_SUCCESS && !kel_valid_zonevnicname(name.c_str()))
			rc = KEL_E_INVALID_ARGS;
		if (rc == KEL_SUCCESS && name.size() >= size)
			rc = KEL_E_NOSPACE;
		if (rc == KEL_SUCCESS)
			std::memcpy(buf, name.c_str(), name.size() + 1);
		return rc;
	});
}

}  // extern "C"
