// A VNIC joining a kel and leaving it, seen from the VNIC's host: the controller binds
// the port, this side prepares the lower link and the VNIC's link properties.
#include <cstring>
#include <string>

#include "c_boundary.h"
#include "connections.h"
#include "controller_calls.h"
#include "error_code.h"
#include "fabric_links.h"
#include "kel_assert.h"
#include "kel_lifecycle.h"
#include "kelnet.h"
#include "names.h"
#include "nuq_errors.h"
#include "owners.h"
#include "prop_list.h"
#include "text.h"
#include "vnic.h"
#include "wexo.h"

namespace {

constexpr size_t kHostLen = 256;
constexpr size_t kPropLen = 1024;
// How much of the port's "ipaddr" the VNIC's allowed address takes.
constexpr size_t kAllowedIpLen = 50;
// How often the lower link is made before giving up on concurrent releases removing it.
constexpr int kOwnTries = 3;

using Instance = kel::Owned<nuq_instance_t, nuq_instance_rele>;
using KelError = kel::Owned<kelcntl_KELError, kelcntl_KELError_free>;
using ImplInfo = kel::Owned<kelcntl_KELImplInfo, kelcntl_KELImplInfo_free>;
using Args = kel::Owned<wexo_arg_list_t, wexo_free_args>;

int nuq_error(int r)
{
	return kel::compose_error(r, KEL_E_NUQ);
}

// A method's result as a library code: the controller's own code when it answered with
// an error record, else the remote call's failure.
int method_result(int r, const KelError &err)
{
	if (r == NUQ_E_SUCCESS)
		return KEL_SUCCESS;
	if (r == NUQ_E_OBJECT && err != nullptr)
		return err->ekele_err;
	return nuq_error(r);
}

int lookup_kel(nuq_conn_t *conn, const char *tenant, const char *kelname, Instance *inst)
{
	nuq_instance_t *raw = nullptr;
	// Named, not asked for: the call that follows finds the kel, or fails as a lookup would.
	const int r = kelcntl_KEL__nuq_lookup(conn, NUQ_LOOKUP_NAMED, &raw, 2, "name", kelname, "tenant",
	    tenant != nullptr ? tenant : KEL_DEFAULT_TENANT);
	inst->reset(raw);
	return r == NUQ_E_SUCCESS ? KEL_SUCCESS : nuq_error(r);
}

// Asks the controller to join the kel's hosts again (a VXLAN kel without a group floods
// only to the hosts it is told of). Best effort: a host that misses it gets it with the
// next binding on the kel, or when the operator asks; the controller logs who missed it.
int sync_flood(nuq_instance_t *kel)
{
	kelcntl_KELError *err = nullptr;
	const int r = kelcntl_KEL_syncFlood(kel, &err);
	return method_result(r, KelError(err));
}

// The link property text of the bound port's VNIC: "iov=off", the port's address as the
// one ip-nospoof lets through, then what the port inherits.
int vnic_props(kelcntl_KELImplInfo *info, char *buf, size_t size)
{
	kelcntl_KELInfo *kel = info->ekelii_kelinfo;
	// The controller always returns the port it bound; an answer without one is not
	// from a controller of ours.
	if (kel == nullptr || kel->ekeli_vports_count < 1 || kel->ekeli_vports[0] == nullptr)
		return nuq_error(NUQ_E_PROTOCOL);
	kelcntl_VPortInfo *vport = kel->ekeli_vports[0];
	char inherited[kPropLen];
	int rc = kel_inherit_dlprops(kel, vport, inherited, sizeof(inherited));
	if (rc != KEL_SUCCESS)
		return rc;
	if (std::strstr(inherited, "ip-nospoof") == nullptr)
		return kel_create_attrstr(buf, size, inherited, 1, "iov", "off");
	// A port without an address gets no allowed address: ip-nospoof then lets none of
	// its IPv4 traffic out, which is what the protection means for it.
	char allowed[kAllowedIpLen] = "";
	if (const char *ip = kel_propattrset_lookup(vport->evpi_props, vport->evpi_props_count, "ipaddr"))
		kel::copy_text(allowed, ip, sizeof(allowed));
	allowed[std::strcspn(allowed, "/")] = '\0';
	return kel_create_attrstr(buf, size, inherited, 2, "allowed-ips", allowed, "iov", "off");
}

// The lower link, with the VNIC recorded over it as the fabric's: from then on the link
// is in use (no other VNIC's release removes it), lets the port's address out, and keld
// acts on the VNIC. A release that removed the link between its making and the record
// leaves it to be made again.
int prepare_lower(wexo_handle_t handle, const char *vnicname, kelcntl_KELImplInfo *info, datalink_id_t *lower)
{
	const kelcntl_VPortInfo *vport = info->ekelii_kelinfo->ekeli_vports[0];
	const char *mac = kel_propattrset_lookup(vport->evpi_props, vport->evpi_props_count, "macaddr");
	if (mac == nullptr)
		return nuq_error(NUQ_E_PROTOCOL);  // every port has one
	// Kept with the record: the port's names, for the host's metrics, and what the host's
	// address responder hands the VNIC's guest.
	const kelcntl_KELInfo *k = info->ekelii_kelinfo;
	const std::string record = kel_lease_text(info, kel_is_dhcp_endpoint(vnicname)) +
	    wexo::fabric::names_text(
	        {vport->evpi_name != nullptr ? vport->evpi_name : "", k->ekeli_name != nullptr ? k->ekeli_name : "",
	            k->ekeli_tenantname != nullptr ? k->ekeli_tenantname : ""});
	wexo_status_t st = WEXO_STATUS_NOTFOUND;
	for (int i = 0; i < kOwnTries && st == WEXO_STATUS_NOTFOUND; i++) {
		if (int rc = kel_setup_l2network(handle, lower, info); rc != KEL_SUCCESS)
			return rc;
		st = wexo_vnic_own(handle, vnicname, mac, *lower, record.empty() ? nullptr : record.c_str());
	}
	return st == WEXO_STATUS_OK ? KEL_SUCCESS : kel::wexo_error(st);
}

int connect_vnic(wexo_handle_t handle, const char *tenant, const char *kelname, const char *vportname,
    const char *vnicname, wexo_arg_list_t **proplist, const char *extra, datalink_id_t *linkid,
    kelcntl_KELImplInfo **implinfo)
{
	char host[kHostLen];
	int rc = kel_get_hostname(host, sizeof(host));
	if (rc != KEL_SUCCESS)
		return rc;
	kelcntl_KELImplInfo *raw = nullptr;
	if ((rc = kel_assign_vport(tenant, kelname, vportname, vnicname, host, extra, &raw)) != KEL_SUCCESS)
		return rc;
	ImplInfo info(raw);
	char props[kPropLen];
	rc = vnic_props(info.get(), props, sizeof(props));
	wexo_arg_list_t *args = nullptr;
	if (rc == KEL_SUCCESS) {
		const wexo_status_t st = wexo_parse_link_props(props, &args, B_FALSE);
		if (st != WEXO_STATUS_OK)
			rc = kel::wexo_error(st);
	}
	Args owned(args);
	datalink_id_t lower = DATALINK_INVALID_LINKID;
	if (rc == KEL_SUCCESS)
		rc = prepare_lower(handle, vnicname, info.get(), &lower);
	if (rc != KEL_SUCCESS) {
		// Nothing stays bound to a VNIC that cannot be made; the first error is the one
		// the caller needs.
		(void)kel_unassign_vport(vnicname, host, extra);
		return rc;
	}
	const kelcntl_KELInfo *k = info->ekelii_kelinfo;
	const char *l2type = kel_propattrset_lookup(k->ekeli_props, k->ekeli_props_count, "l2-type");
	const bool grouped = info->ekelii_vxlan_mgroup != nullptr && info->ekelii_vxlan_mgroup[0] != '\0';
	if (!grouped && l2type != nullptr && std::strcmp(l2type, "vxlan") == 0)
		(void)kel::on_controller([&](nuq_conn_t *conn) {
			Instance kel;
			const int found = lookup_kel(conn, k->ekeli_tenantname, k->ekeli_name, &kel);
			return found != KEL_SUCCESS ? found : sync_flood(kel.get());
		});
	*linkid = lower;
	*proplist = owned.release();
	*implinfo = info.release();
	return KEL_SUCCESS;
}

int disconnect_vnic(wexo_handle_t handle, const char *vnicname, const char *extra, datalink_id_t linkid,
    const kel_vport_counters_t *last)
{
	char host[kHostLen];
	int rc = kel_get_hostname(host, sizeof(host));
	if (rc != KEL_SUCCESS)
		return rc;
	const int unassigned = kel_unassign_vport(vnicname, host, extra, last);
	// The VNIC is gone (its maker deletes it first): its lower link no longer lets its
	// address out, nor counts it as a user.
	wexo_status_t st = wexo_vnic_disown(handle, vnicname);
	datalink_class_t cls;
	char name[MAXLINKNAMELEN] = "";
	int link = KEL_SUCCESS;
	if (st == WEXO_STATUS_OK)
		st = wexo_datalink_id2info(handle, linkid, nullptr, &cls, nullptr, name, sizeof(name));
	// Only the links made for VNICs are named "kel-..."; an uplink never goes. One that is
	// not there any more went with the release of another VNIC of the kel.
	if (st == WEXO_STATUS_NOTFOUND)
		st = WEXO_STATUS_OK;
	const bool ours = st == WEXO_STATUS_OK && std::strncmp(name, "kel-", 4) == 0;
	if (ours && (cls == DATALINK_CLASS_VXLAN || cls == DATALINK_CLASS_VLAN)) {
		st = cls == DATALINK_CLASS_VXLAN
		    ? wexo_vxlan_delete(handle, linkid, WEXO_OPT_ACTIVE | WEXO_OPT_ONDEMAND)
		    : wexo_vlan_delete(handle, linkid, WEXO_OPT_ACTIVE | WEXO_OPT_ONDEMAND);
		// Other VNICs of the kel still use it, or a release of another removed it first.
		if (st == WEXO_STATUS_LINKBUSY || st == WEXO_STATUS_NOTFOUND)
			st = WEXO_STATUS_OK;
	}
	if (st != WEXO_STATUS_OK)
		link = kel::wexo_error(st);
	return unassigned != KEL_SUCCESS ? unassigned : link;
}

// The ports of this host's VNICs: the one named `vnicname`, or all of them when NULL.
int get_vnicinfo(const char *vnicname, kelcntl_VPortInfo ***array, int *count)
{
	char host[kHostLen];
	int rc = kel_get_hostname(host, sizeof(host));
	if (rc != KEL_SUCCESS)
		return rc;
	char filter[kPropLen];
	rc = vnicname != nullptr
	    ? kel_create_attrstr(filter, sizeof(filter), nullptr, 2, "vnic", vnicname, "host", host)
	    : kel_create_attrstr(filter, sizeof(filter), nullptr, 1, "host", host);
	if (rc != KEL_SUCCESS)
		return rc;
	return kel::on_controller([&](nuq_conn_t *conn) { return kel_get_vnic_kelvport(conn, filter, array, count); });
}

}  // namespace

int kel_assign_vport(const char *tenant, const char *kelname, const char *vportname, const char *vnicname,
    const char *hostname, const char *extra, kelcntl_KELImplInfo **implinfo)
{
	*implinfo = nullptr;
	// Made again after a failover, a bind that went through finds the binding it made.
	return kel::on_controller([&](nuq_conn_t *conn) {
		Instance kel;
		if (const int rc = lookup_kel(conn, tenant, kelname, &kel); rc != KEL_SUCCESS)
			return rc;
		kelcntl_KELError *err = nullptr;
		const int r = kelcntl_KEL_assignVPort(kel.get(), vnicname, hostname, vportname, extra, implinfo, &err);
		return method_result(r, KelError(err));
	});
}

int kel_unassign_vport(const char *vnicname, const char *hostname, const char *extra, const kel_vport_counters_t *last)
{
	char filter[kPropLen];
	int rc = extra != nullptr
	    ? kel_create_attrstr(filter, sizeof(filter), extra, 1, "vnic", vnicname)
	    : kel_create_attrstr(filter, sizeof(filter), nullptr, 2, "host", hostname, "vnic", vnicname);
	if (rc != KEL_SUCCESS)
		return rc;
	// Made again after a failover, a release that went through finds nothing bound.
	return kel::on_controller([&](nuq_conn_t *conn) {
		kelcntl_VPortInfo **ports = nullptr;
		int count = 0;
		if (const int found = kel_get_vnic_kelvport(conn, filter, &ports, &count); found != KEL_SUCCESS)
			return found;
		if (count == 0) {
			kelcntl_VPortInfo_array_free(ports, count);
			return KEL_SUCCESS;  // nothing bound: nothing to release
		}
		Instance kel;
		const int looked = lookup_kel(conn, ports[0]->evpi_tenantname, ports[0]->evpi_kelname, &kel);
		kelcntl_VPortInfo_array_free(ports, count);
		if (looked != KEL_SUCCESS)
			return looked;
		kelcntl_KELError *err = nullptr;
		// The controller joins the kel's hosts again itself once the port is released.
		const int r = kelcntl_KEL_unAssignVPort(kel.get(), vnicname, hostname, extra, last, &err);
		return method_result(r, KelError(err));
	});
}

int kel_get_vnic_kelvport(nuq_conn_t *conn, const char *filter, kelcntl_VPortInfo ***array, int *count)
{
	nuq_instance_t *raw = nullptr;
	int r = kelcntl_KELController__nuq_lookup(conn, NUQ_LOOKUP_NAMED, &raw, 0);
	Instance ctl(raw);
	if (r != NUQ_E_SUCCESS)
		return nuq_error(r);
	kelcntl_KELError *err = nullptr;
	r = kelcntl_KELController_getVPortInfo(ctl.get(), filter, array, count, &err);
	return method_result(r, KelError(err));
}

extern "C" {

int kel_connect_vnic(wexo_handle_t handle, const char *tenant, const char *kelname, const char *vportname,
    const char *vnicname, wexo_arg_list_t **proplist, const char *extra, datalink_id_t *linkid,
    kelcntl_KELImplInfo **implinfo, uint32_t) noexcept
{
	KEL_ASSERT(kel::kAreaNuq, implinfo != NULL && proplist != NULL && linkid != NULL);
	*implinfo = nullptr;
	*proplist = nullptr;
	*linkid = DATALINK_INVALID_LINKID;
	// The names go into the controller's filters: one that is not a name is refused
	// here rather than read as more of a filter there.
	if (handle == nullptr || kelname == nullptr || vnicname == nullptr || !kel_valid_zonevnicname(vnicname))
		return KEL_E_INVALID_ARGS;
	return kel::c_boundary([&] {
		return connect_vnic(handle, tenant, kelname, vportname, vnicname, proplist, extra, linkid, implinfo);
	});
}

int kel_disconnect_vnic(wexo_handle_t handle, const char *vnicname, const char *extra, datalink_id_t linkid,
    uint32_t flags) noexcept
{
	return kel_disconnect_vnic_counted(handle, vnicname, extra, linkid, nullptr, flags);
}

int kel_disconnect_vnic_counted(wexo_handle_t handle, const char *vnicname, const char *extra, datalink_id_t linkid,
    const kel_vport_counters_t *last, uint32_t) noexcept
{
	KEL_ASSERT(kel::kAreaNuq, vnicname != NULL);
	if (handle == nullptr || !kel_valid_zonevnicname(vnicname))
		return KEL_E_INVALID_ARGS;
	return kel::c_boundary([&] { return disconnect_vnic(handle, vnicname, extra, linkid, last); });
}

int kel_get_vnicinfo(const char *vnicname, kelcntl_VPortInfo ***array, int *count) noexcept
{
	if (array == nullptr || count == nullptr)
		return KEL_E_INVALID_ARGS;
	*array = nullptr;
	*count = 0;
	if (vnicname == nullptr || !kel_valid_zonevnicname(vnicname))
		return KEL_E_INVALID_ARGS;
	return kel::c_boundary([&] { return get_vnicinfo(vnicname, array, count); });
}

int kel_get_host_vnicinfo(kelcntl_VPortInfo ***array, int *count) noexcept
{
	if (array == nullptr || count == nullptr)
		return KEL_E_INVALID_ARGS;
	*array = nullptr;
	*count = 0;
	return kel::c_boundary([&] { return get_vnicinfo(nullptr, array, count); });
}

}  // extern "C"
