// VNICs on this host: create-vnic, delete-vnic and show-vnic. These run on a node (any host whose
// "controller" setting names the controller) and act on its links.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <kel/libkel_node.h>
#include "error_code.h"
#include "keladm.h"
#include "node_calls.h"
#include "owners.h"

namespace keladm {
namespace {

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

// Field `field` of kVnicFields for the VNIC of port `vp`, over `lower`, with its MTU and
// four counters ("" when unknown).
std::string vnic_field(const kelcntl_VPortInfo *vp, const std::string &lower, const std::string &mtu,
    const std::vector<std::string> &counters, size_t field)
{
	switch (field) {
	case 0: return vp->evpi_vnicname;
	case 1: return vp->evpi_kelname;
	case 2: return vp->evpi_name;
	case 3: return vp->evpi_tenantname;
	case 4: return remote_prop(vp->evpi_props, vp->evpi_props_count, "macaddr");
	case 5: return remote_prop(vp->evpi_props, vp->evpi_props_count, "ipaddr");
	case 6: return lower;
	case 7: return mtu;
	case 12: return remote_prop(vp->evpi_props, vp->evpi_props_count, "containerid");
	default: return field - 8 < counters.size() ? counters[field - 8] : "";
	}
}

// The name of the link `id` on the host ("" when it has none).
std::string link_name(wexo_handle_t h, datalink_id_t id)
{
	char name[MAXLINKNAMELEN] = "";
	(void)node().wexo_datalink_id2info(h, id, nullptr, nullptr, nullptr, name, sizeof(name));
	return name;
}

// The MTU of VNIC `vnic` ("LINK" or "NAMESPACE/LINK"; "" when it is not there).
std::string vnic_mtu(const std::string &vnic);

void kel_vnic_free_call(kel_vnic_t *v)
{
	node().kel_vnic_free(v);
}
// Ports the controller answered with, freed on scope exit (libkel.so holds the
// controller's records, so their free needs no loaded node side).
using Ports = kel::OwnedArray<kelcntl_VPortInfo, kelcntl_VPortInfo_array_free>;

// A datalink handle, closed on scope exit.
class Handle {
public:
	~Handle() { node().wexo_close(h_); }
	wexo_status_t open(const std::string &netns) { return node().wexo_open_netns(netns.c_str(), &h_); }
	wexo_handle_t get() const { return h_; }

private:
	wexo_handle_t h_ = nullptr;
};

std::string vnic_mtu(const std::string &vnic)
{
	Handle h;
	datalink_id_t id = DATALINK_INVALID_LINKID;
	uint32_t mtu = 0;
	if (h.open(netns_of(vnic)) != WEXO_STATUS_OK ||
	    node().wexo_name2info(h.get(), vnic.substr(vnic.find('/') + 1).c_str(), &id, nullptr) != WEXO_STATUS_OK ||
	    node().wexo_link_mtu(h.get(), id, &mtu) != WEXO_STATUS_OK)
		return "";
	return std::to_string(mtu);
}

// keladm's words for the step of create-vnic that failed.
std::string failed_step(int stage, const std::string &kel, const std::string &vnic)
{
	switch (stage) {
	case KEL_VNIC_STAGE_BIND: return "cannot bind a port of kel '" + kel + "' to VNIC '" + vnic + "'";
	case KEL_VNIC_STAGE_PROPS: return "cannot give VNIC '" + vnic + "' its port's link properties";
	case KEL_VNIC_STAGE_ADDRESS: return "cannot give VNIC '" + vnic + "' its address";
	default: return "cannot make VNIC '" + vnic + "'";
	}
}

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
	// A namespace given by its path is known by its name under /run/netns from here on.
	char name[256 + MAXLINKNAMELEN];  // a namespace name, "/" and a link name
	if (int rc = node().kel_vnic_name(opts.operands[1], KEL_VNIC_NAME_ATTACH, name, sizeof(name));
	    rc != KEL_SUCCESS)
		return fail(std::string("cannot use '") + opts.operands[1] + "' as a VNIC", rc);
	const std::string vnic = name;
	// The controller answers a VNIC it already knows with that VNIC's binding, so a name
	// that is taken is refused by the library; --may-exist takes the VNIC there, bound to a
	// port of this kel (the one named), for the one asked for.
	if (opts.may_exist) {
		Handle host, guest;
		Ports bound;
		const std::string link = vnic.substr(vnic.find('/') + 1);
		const kelcntl_VPortInfo *vp = host.open("") == WEXO_STATUS_OK &&
		        guest.open(netns_of(vnic)) == WEXO_STATUS_OK &&
		        node().wexo_name2info(guest.get(), link.c_str(), nullptr, nullptr) == WEXO_STATUS_OK &&
		        bound.read([&](kelcntl_VPortInfo ***a, int *n) {
			        return node().kel_get_vnicinfo(vnic.c_str(), a, n);
		        }) == KEL_SUCCESS &&
		        bound.size() > 0
		    ? bound.get()[0]
		    : nullptr;
		if (vp != nullptr && opts.tenant == vp->evpi_tenantname && std::strcmp(vp->evpi_kelname, kel) == 0 &&
		    (vport[0] == '\0' || std::strcmp(vp->evpi_name, vport) == 0)) {
			if (opts.echo) {
				datalink_id_t id = DATALINK_INVALID_LINKID;
				const std::string lower = node().wexo_vnic_lower(host.get(), vnic.c_str(), &id) ==
				        WEXO_STATUS_OK
				    ? link_name(host.get(), id)
				    : "";
				const std::string mtu = vnic_mtu(vnic);
				out.add_with([&](size_t f) { return vnic_field(vp, lower, mtu, {}, f); });
				out.print();
			}
			return kExitOk;
		}
	}
	kel_vnic_t made;
	const int rc = node().kel_vnic_create(opts.tenant.c_str(), kel, vport[0] != '\0' ? vport : nullptr,
	    vnic.c_str(), opts.props.empty() ? nullptr : opts.props.c_str(),
	    opts.macvtap ? WEXO_VNIC_MACVTAP : WEXO_VNIC_MACVLAN,
	    (opts.address ? KEL_VNIC_ADDRESS : 0) | (opts.default_route ? KEL_VNIC_DEFAULT_ROUTE : 0), &made);
	if (rc != KEL_SUCCESS)
		return fail(failed_step(made.kv_stage, kel, vnic), rc);
	const kel::Owned<kel_vnic_t, kel_vnic_free_call> owned(&made);
	const kelcntl_VPortInfo *port = made.kv_implinfo->ekelii_kelinfo->ekeli_vports[0];
	const std::string lower = made.kv_lowername, mtu = std::to_string(made.kv_mtu);
	if (opts.echo) {
		out.add_with([&](size_t f) { return vnic_field(port, lower, mtu, {}, f); });
		out.print();
		return kExitOk;
	}
	std::printf("created VNIC %s on %s/%s over %s (%s, %s, MTU %s)\n", vnic.c_str(), kel, port->evpi_name,
	    lower.c_str(), remote_prop(port->evpi_props, port->evpi_props_count, "macaddr").c_str(),
	    remote_prop(port->evpi_props, port->evpi_props_count, "ipaddr").c_str(), mtu.c_str());
	if (made.kv_down)
		std::printf("its port is bound on %s: the VNIC is down until the VM runs here (ip link set %s up)\n",
		    port->evpi_hostname, vnic.substr(vnic.find('/') + 1).c_str());
	return kExitOk;
}

int delete_vnic(const Subcommand &cmd, const Options &opts)
{
	if (!load_node_calls())
		return kExitFailed;
	if (opts.operands.size() != 1)
		return usage_error(cmd, "give the VNIC's name");
	char name[256 + MAXLINKNAMELEN];  // a namespace name, "/" and a link name
	const int named = node().kel_vnic_name(opts.operands[0], 0, name, sizeof(name));
	if (named == KEL_E_NOTFOUND || named == kel::sys_error(ENOENT))
		return opts.if_exists
		    ? kExitOk
		    : fail(std::string("no VNIC '") + opts.operands[0] + "': no such namespace", named);
	if (named != KEL_SUCCESS)
		return fail(std::string("cannot use '") + opts.operands[0] + "' as a VNIC", named);
	const std::string vnic = name;
	// A VNIC gone already (its namespace went) still has its port released; say so, for
	// the operator may have named the wrong one.
	Handle guest;
	const std::string link = vnic.substr(vnic.find('/') + 1);
	const bool here = guest.open(netns_of(vnic)) == WEXO_STATUS_OK &&
	    node().wexo_name2info(guest.get(), link.c_str(), nullptr, nullptr) == WEXO_STATUS_OK;
	const int rc = node().kel_vnic_remove(vnic.c_str(), nullptr, 0);
	if (rc == KEL_E_VPORT_NOTFOUND && !here)
		return opts.if_exists
		    ? kExitOk
		    : fail("no VNIC '" + vnic + "' on this host, and no port bound to one", KEL_E_VPORT_NOTFOUND);
	// The VNIC goes first and its port after: without the controller the port stays bound,
	// and the VNIC's record here remembers it until the release goes through.
	const bool removed = here &&
	    node().wexo_name2info(guest.get(), link.c_str(), nullptr, nullptr) != WEXO_STATUS_OK;
	if (rc != KEL_SUCCESS && removed) {
		fail("removed VNIC '" + vnic + "', but its port is still bound", rc);
		std::fprintf(stderr,
		    "keladm: once the controller answers, run keladm delete-vnic %s here again to release the port "
		    "(or keladm verify --repair on the controller)\n",
		    vnic.c_str());
		return kExitFailed;
	}
	if (rc != KEL_SUCCESS)
		return fail(
		    here ? "cannot remove VNIC '" + vnic + "'" : "cannot release the port of VNIC '" + vnic + "'", rc);
	if (!here)
		warn("VNIC '" + vnic + "' was not on this host; its port is released",
		    KEL_WEXO_ERROR(WEXO_STATUS_NOTFOUND));
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
	Ports ports;
	const int asked = ports.read([](kelcntl_VPortInfo ***a, int *n) { return node().kel_get_host_vnicinfo(a, n); });
	// Without the controller, what this host's records know: no names of kels, ports or
	// tenants, which are the controller's alone.
	if (KEL_ERR_REASON(asked) == KEL_E_CTRL_CONNECT) {
		warn("cannot ask the controller for this host's VNICs", asked);
		say_which_controller(asked);
		std::fprintf(stderr,
		    "keladm: warning: showing what this host's own records hold: its VNICs, their MAC addresses and "
		    "addresses, without their kels, ports or tenants\n");
		if (int rc = ports.read(
		        [](kelcntl_VPortInfo ***a, int *n) { return node().kel_get_recorded_vnicinfo(a, n); });
		    rc != KEL_SUCCESS)
			return fail("cannot read this host's records of its VNICs", rc);
	} else if (asked != KEL_SUCCESS) {
		return fail("cannot ask the controller for this host's VNICs", asked);
	}
	Handle host;
	const wexo_status_t opened = host.open("");
	// Counters come from this host's keld, which reaches VNICs in every namespace.
	nuq_conn_t *raw = nullptr;
	const int connected = kel_nuq_connection_to_self(&raw);
	const kel::Owned<nuq_conn_t, nuq_disconnect> self(raw);
	if (connected != KEL_SUCCESS)
		warn("no counters: cannot reach this host's keld", connected);
	bool found = opts.operands.empty();
	std::vector<const kelcntl_VPortInfo *> gone;
	for (const kelcntl_VPortInfo *vp : ports) {
		if (!opts.operands.empty() && std::strcmp(vp->evpi_vnicname, opts.operands[0]) != 0)
			continue;
		found = true;
		std::string lower;
		datalink_id_t id = DATALINK_INVALID_LINKID;
		if (opened == WEXO_STATUS_OK &&
		    node().wexo_vnic_lower(host.get(), vp->evpi_vnicname, &id) == WEXO_STATUS_OK)
			lower = link_name(host.get(), id);
		std::vector<std::string> counters(4);
		link_stat_t st;
		if (self != nullptr && node().kel_get_vnicstat(self.get(), vp->evpi_vnicname, &st) == KEL_SUCCESS)
			counters = {std::to_string(st.ls_ipackets), std::to_string(st.ls_rbytes),
			    std::to_string(st.ls_opackets), std::to_string(st.ls_obytes)};
		const std::string mtu = vnic_mtu(vp->evpi_vnicname);
		if (mtu.empty())
			gone.push_back(vp);
		out.add_with([&](size_t f) { return vnic_field(vp, lower, mtu, counters, f); });
	}
	if (!found)
		return fail("no VNIC '" + std::string(opts.operands[0]) + "' is bound on this host",
		    KEL_E_VPORT_NOTFOUND);
	out.print();
	// A port bound to a VNIC that is not here (its namespace deleted, the link removed by
	// hand) is listed, and is a failure to report: the listing must not look sound.
	for (const kelcntl_VPortInfo *vp : gone) {
		const std::string port = *vp->evpi_name != '\0'
		    ? std::string(", but its port ") + vp->evpi_kelname + "/" + vp->evpi_name + " is still bound"
		    : "";
		std::fprintf(stderr, "keladm: VNIC %s is gone from this host%s: keladm delete-vnic %s releases it\n",
		    vp->evpi_vnicname, port.c_str(), vp->evpi_vnicname);
	}
	return gone.empty() ? kExitOk : kExitFailed;
}

}  // namespace keladm
