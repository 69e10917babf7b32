// VNICs on this host: create-vnic, delete-vnic and show-vnic. These run on a node (any host whose
// "controller" setting names the controller) and act on its links.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "keladm.h"
#include "libkel_node.h"
#include "node_calls.h"
#include "owners.h"

namespace keladm {
namespace {

int wexo_fail(const std::string &what, wexo_status_t st)
{
	return fail(what, KEL_WEXO_ERROR(st));
}

// "NAMESPACE/LINK" into its namespace ("" without one).
std::string netns_of(const std::string &vnic)
{
	const size_t slash = vnic.find('/');
	return slash == std::string::npos ? "" : vnic.substr(0, slash);
}

// A string of a remote property array ("" when absent).
std::string remote_prop(kelcntl_PropertyNV **props, int count, const char *name)
{
	const char *v = kel_propattrset_lookup(props, count, name);
	return v != nullptr ? v : "";
}

// Field `field` of kVnicFields for the VNIC of port `vp`, over `lower`, with its four
// counters ("" when unknown).
std::string vnic_field(const kelcntl_VPortInfo *vp, const std::string &lower, const std::vector<std::string> &counters,
    size_t field)
{
	switch (field) {
	case 0: return vp->evpi_vnicname;
	case 1: return vp->evpi_kelname;
	case 2: return vp->evpi_name;
	case 3: return vp->evpi_tenantname;
	case 4: return remote_prop(vp->evpi_props, vp->evpi_props_count, "macaddr");
	case 5: return remote_prop(vp->evpi_props, vp->evpi_props_count, "ipaddr");
	case 6: return lower;
	default: return field - 7 < counters.size() ? counters[field - 7] : "";
	}
}

// The name of the link `id` on the host ("" when it has none).
std::string link_name(wexo_handle_t h, datalink_id_t id)
{
	char name[MAXLINKNAMELEN] = "";
	(void)node().wexo_datalink_id2info(h, id, nullptr, nullptr, nullptr, name, sizeof(name));
	return name;
}

// The ports bound to VNIC `vnic` of this host, freed on scope exit.
class VnicPorts {
public:
	~VnicPorts() { node().kelcntl_VPortInfo_array_free(array_, count_); }
	int fetch(const std::string &vnic) { return node().kel_get_vnicinfo(vnic.c_str(), &array_, &count_); }
	const kelcntl_VPortInfo *first() const { return count_ > 0 ? array_[0] : nullptr; }

private:
	kelcntl_VPortInfo **array_ = nullptr;
	int count_ = 0;
};

// What create-vnic has done so far, undone in reverse unless it was all done.
class Attachment {
public:
	Attachment(wexo_handle_t h, const std::string &vnic) : h_(h), vnic_(vnic) {}
	~Attachment()
	{
		if (done_)
			return;
		if (made_)
			(void)node().wexo_vnic_delete(h_, vnic_.c_str(), nullptr);
		if (bound_)
			(void)node().kel_disconnect_vnic(h_, vnic_.c_str(), nullptr, lower_, 0);
		node().wexo_free_args(props_);
		node().kelcntl_KELImplInfo_free(info_);
	}
	Attachment(const Attachment &) = delete;
	Attachment &operator=(const Attachment &) = delete;

	int connect(const Options &opts, const std::string &kel, const char *vport)
	{
		const int rc = node().kel_connect_vnic(h_, opts.tenant.c_str(), kel.c_str(), vport, vnic_.c_str(), &props_,
		    opts.props.empty() ? nullptr : opts.props.c_str(), &lower_, &info_, 0);
		bound_ = rc == KEL_SUCCESS;
		return rc;
	}
	wexo_status_t make(wexo_vnic_kind_t kind)
	{
		const std::string mac = remote_prop(port()->evpi_props, port()->evpi_props_count, "macaddr");
		const wexo_status_t st = node().wexo_vnic_create(h_, vnic_.c_str(), lower_, kind, mac.empty() ? nullptr : mac.c_str(), &id_);
		made_ = st == WEXO_STATUS_OK;
		return st;
	}
	// The port's link properties, through the call keld uses for live changes.
	int apply(wexo_handle_t vh)
	{
		for (uint_t i = 0; i < node().wexo_arg_count(props_); i++) {
			const wexo_status_t st = node().wexo_set_linkprop(vh, id_, node().wexo_arg_name(props_, i), node().wexo_arg_value(props_, i));
			if (st != WEXO_STATUS_OK)
				return wexo_fail(std::string("cannot set ") + node().wexo_arg_name(props_, i) + " on VNIC '" + vnic_ + "'", st);
		}
		return kExitOk;
	}
	// The port's address and the network's router, on the VNIC.
	int address(wexo_handle_t vh)
	{
		const std::string ip = remote_prop(port()->evpi_props, port()->evpi_props_count, "ipaddr");
		kelcntl_KELInfo *k = info_->ekelii_kelinfo;
		if (ip.empty() || k->ekeli_ipnets_count < 1)
			return fail("VNIC '" + vnic_ + "' has no address to take: its kel has no ipnet", KEL_E_IPNET_NOTFOUND);
		kelcntl_IPnetInfo *net = k->ekeli_ipnets[0];
		const std::string subnet = remote_prop(net->eipi_props, net->eipi_props_count, "subnet");
		const std::string router = remote_prop(net->eipi_props, net->eipi_props_count, "defrouter");
		const size_t slash = subnet.find('/');
		const uint32_t plen = slash == std::string::npos ? 32 : std::stoul(subnet.substr(slash + 1));
		const std::string addr = ip.substr(0, ip.find('/'));
		const bool routed = !router.empty() && router != "0.0.0.0" && router != "::";
		const wexo_status_t st = node().wexo_link_set_ipaddr(vh, id_, addr.c_str(), plen, routed ? router.c_str() : nullptr);
		return st == WEXO_STATUS_OK ? kExitOk : wexo_fail("cannot give VNIC '" + vnic_ + "' its address", st);
	}
	void keep() { done_ = true; }

	kelcntl_VPortInfo *port() const { return info_->ekelii_kelinfo->ekeli_vports[0]; }
	const kelcntl_KELImplInfo *info() const { return info_; }
	datalink_id_t lower() const { return lower_; }

private:
	wexo_handle_t h_;
	std::string vnic_;
	wexo_arg_list_t *props_ = nullptr;
	kelcntl_KELImplInfo *info_ = nullptr;
	datalink_id_t lower_ = DATALINK_INVALID_LINKID, id_ = DATALINK_INVALID_LINKID;
	bool bound_ = false, made_ = false, done_ = false;
};

// A datalink handle, closed on scope exit.
class Handle {
public:
	~Handle() { node().wexo_close(h_); }
	wexo_status_t open(const std::string &netns) { return node().wexo_open_netns(netns.c_str(), &h_); }
	wexo_handle_t get() const { return h_; }

private:
	wexo_handle_t h_ = nullptr;
};

// The ports bound to this host's VNICs, freed on scope exit.
class HostPorts {
public:
	~HostPorts() { node().kelcntl_VPortInfo_array_free(array_, count_); }
	int fetch() { return node().kel_get_host_vnicinfo(&array_, &count_); }
	kelcntl_VPortInfo **begin() const { return array_; }
	kelcntl_VPortInfo **end() const { return array_ + count_; }

private:
	kelcntl_VPortInfo **array_ = nullptr;
	int count_ = 0;
};

}  // namespace

int create_vnic(const Subcommand &cmd, const Options &opts)
{
	Output out;
	if (opts.echo && !out.configure(cmd.fields, opts.fields, opts.format))
		return kExitUsage;
	if (!load_node_calls())
		return kExitFailed;
	if (opts.operands.size() != 2)
		return usage_error(cmd, "give the kel (or KEL/VPORT) and the VNIC's name");
	char kel[KEL_NAME_LEN], vport[KEL_NAME_LEN];
	const char *target = opts.operands[0];
	if (std::strchr(target, '/') != nullptr) {
		if (!kel_parse_kelvportname(target, kel, vport))
			return usage_error(cmd, std::string("'") + target + "' is not KEL/VPORT");
	} else if (kel_valid_name(target)) {
		std::snprintf(kel, sizeof(kel), "%s", target);
		vport[0] = '\0';
	} else {
		return usage_error(cmd, std::string("'") + target + "' is not a kel name");
	}
	const std::string vnic = opts.operands[1];
	Handle host, guest;
	if (wexo_status_t st = host.open(""); st != WEXO_STATUS_OK)
		return wexo_fail("cannot open this host's datalinks", st);
	if (wexo_status_t st = guest.open(netns_of(vnic)); st != WEXO_STATUS_OK)
		return wexo_fail("cannot reach the namespace of VNIC '" + vnic + "'", st);
	// The controller answers a VNIC it already knows with that VNIC's binding: a name
	// that is taken must be refused before, or undoing would release the other's port.
	const std::string link = vnic.substr(vnic.find('/') + 1);
	if (node().wexo_name2info(guest.get(), link.c_str(), nullptr, nullptr) == WEXO_STATUS_OK) {
		// --may-exist: the VNIC there, bound to a port of this kel (the one named), is it.
		VnicPorts bound;
		const kelcntl_VPortInfo *vp = opts.may_exist && bound.fetch(vnic) == KEL_SUCCESS ? bound.first() : nullptr;
		if (vp != nullptr && opts.tenant == vp->evpi_tenantname && std::strcmp(vp->evpi_kelname, kel) == 0 &&
		    (vport[0] == '\0' || std::strcmp(vp->evpi_name, vport) == 0)) {
			if (opts.echo) {
				datalink_id_t id = DATALINK_INVALID_LINKID;
				const std::string lower = node().wexo_vnic_lower(host.get(), vnic.c_str(), &id) == WEXO_STATUS_OK
				    ? link_name(host.get(), id) : "";
				out.add_with([&](size_t f) { return vnic_field(vp, lower, {}, f); });
				out.print();
			}
			return kExitOk;
		}
		return wexo_fail("cannot make VNIC '" + vnic + "'", WEXO_STATUS_EXIST);
	}
	Attachment a(host.get(), vnic);
	if (int rc = a.connect(opts, kel, vport[0] != '\0' ? vport : nullptr); rc != KEL_SUCCESS)
		return fail("cannot bind a port of kel '" + std::string(kel) + "' to VNIC '" + vnic + "'", rc);
	if (wexo_status_t st = a.make(opts.macvtap ? WEXO_VNIC_MACVTAP : WEXO_VNIC_MACVLAN); st != WEXO_STATUS_OK)
		return wexo_fail("cannot make VNIC '" + vnic + "'", st);
	if (int rc = a.apply(guest.get()); rc != kExitOk)
		return rc;
	if (opts.address)
		if (int rc = a.address(guest.get()); rc != kExitOk)
			return rc;
	a.keep();
	const std::string lower = link_name(host.get(), a.lower());
	if (opts.echo) {
		out.add_with([&](size_t f) { return vnic_field(a.port(), lower, {}, f); });
		out.print();
		return kExitOk;
	}
	std::printf("created VNIC %s on %s/%s over %s (%s, %s)\n", vnic.c_str(), kel, a.port()->evpi_name, lower.c_str(),
	    remote_prop(a.port()->evpi_props, a.port()->evpi_props_count, "macaddr").c_str(),
	    remote_prop(a.port()->evpi_props, a.port()->evpi_props_count, "ipaddr").c_str());
	return kExitOk;
}

int delete_vnic(const Subcommand &cmd, const Options &opts)
{
	if (!load_node_calls())
		return kExitFailed;
	if (opts.operands.size() != 1)
		return usage_error(cmd, "give the VNIC's name");
	const std::string vnic = opts.operands[0];
	Handle host;
	if (wexo_status_t st = host.open(""); st != WEXO_STATUS_OK)
		return wexo_fail("cannot open this host's datalinks", st);
	// Its counters are read just before it goes, for its port to keep: this host's keld
	// reads them in whatever namespace the VNIC is. A VNIC whose counters cannot be read
	// still goes, its traffic uncounted.
	kel_vport_counters_t last{};
	bool counted = false;
	{
		nuq_conn_t *raw = nullptr;
		const int connected = kel_nuq_connection_to_self(&raw);
		const kel::Owned<nuq_conn_t, nuq_disconnect> self(raw);
		link_stat_t st;
		if (connected == KEL_SUCCESS && node().kel_get_vnicstat(self.get(), vnic.c_str(), &st) == KEL_SUCCESS) {
			last = {st.ls_ipackets, st.ls_rbytes, st.ls_opackets, st.ls_obytes};
			counted = true;
		}
	}
	// The VNIC goes first: the link under it can only go once nothing is made over it.
	datalink_id_t lower = DATALINK_INVALID_LINKID;
	const wexo_status_t st = node().wexo_vnic_delete(host.get(), vnic.c_str(), &lower);
	if (st != WEXO_STATUS_OK && st != WEXO_STATUS_NOTFOUND)
		return wexo_fail("cannot remove VNIC '" + vnic + "'", st);
	if (st == WEXO_STATUS_NOTFOUND) {
		// Neither a VNIC here nor a port bound to one of that name: nothing to delete, which
		// --if-exists takes for success.
		VnicPorts bound;
		if (bound.fetch(vnic) == KEL_SUCCESS && bound.first() == nullptr)
			return opts.if_exists ? kExitOk
			                      : fail("no VNIC '" + vnic + "' on this host, and no port bound to one", KEL_E_VPORT_NOTFOUND);
		warn("VNIC '" + vnic + "' is not on this host; releasing its port", KEL_WEXO_ERROR(st));
	}
	const int rc = node().kel_disconnect_vnic_counted(host.get(), vnic.c_str(), nullptr, lower, counted ? &last : nullptr, 0);
	// Without the VNIC there is no lower link to look at: the release is what counts.
	if (rc != KEL_SUCCESS && !(st == WEXO_STATUS_NOTFOUND && (rc & 0xff) == KEL_E_WEXO))
		return fail("cannot release the port of VNIC '" + vnic + "'", rc);
	return kExitOk;
}

int show_vnic(const Subcommand &cmd, const Options &opts)
{
	if (!load_node_calls())
		return kExitFailed;
	Output out;
	if (!out.configure(cmd.fields, opts.fields, opts.format))
		return kExitUsage;
	if (opts.operands.size() > 1)
		return usage_error(cmd, "give at most one VNIC");
	HostPorts ports;
	if (int rc = ports.fetch(); rc != KEL_SUCCESS)
		return fail("cannot ask the controller for this host's VNICs", rc);
	Handle host;
	const wexo_status_t opened = host.open("");
	// Counters come from this host's keld, which reaches VNICs in every namespace.
	nuq_conn_t *raw = nullptr;
	const int connected = kel_nuq_connection_to_self(&raw);
	const kel::Owned<nuq_conn_t, nuq_disconnect> self(raw);
	if (connected != KEL_SUCCESS)
		warn("no counters: cannot reach this host's keld", connected);
	bool found = opts.operands.empty();
	for (const kelcntl_VPortInfo *vp : ports) {
		if (!opts.operands.empty() && std::strcmp(vp->evpi_vnicname, opts.operands[0]) != 0)
			continue;
		found = true;
		std::string lower;
		datalink_id_t id = DATALINK_INVALID_LINKID;
		if (opened == WEXO_STATUS_OK && node().wexo_vnic_lower(host.get(), vp->evpi_vnicname, &id) == WEXO_STATUS_OK)
			lower = link_name(host.get(), id);
		std::vector<std::string> counters(4);
		link_stat_t st;
		if (self != nullptr && node().kel_get_vnicstat(self.get(), vp->evpi_vnicname, &st) == KEL_SUCCESS)
			counters = {std::to_string(st.ls_ipackets), std::to_string(st.ls_rbytes),
			    std::to_string(st.ls_opackets), std::to_string(st.ls_obytes)};
		out.add_with([&](size_t f) { return vnic_field(vp, lower, counters, f); });
	}
	if (!found)
		return fail("no VNIC '" + std::string(opts.operands[0]) + "' is bound on this host", KEL_E_VPORT_NOTFOUND);
	out.print();
	return kExitOk;
}

}  // namespace keladm
