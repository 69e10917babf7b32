// The link a kel's VNIC is made over on its host: the uplink for flat kels, or a link of
// the kel's own, made by the first VNIC that needs it: a VLAN link tagging the kel's ID
// on the uplink, or the VXLAN link of the kel's VNI.
#include <net/if.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstring>

#include "error_code.h"
#include "fenu.h"
#include "kel_assert.h"
#include "kel_lifecycle.h"
#include "nuq_errors.h"
#include "owners.h"
#include "vnic.h"
#include "wexo.h"

namespace {

using Args = kel::Owned<wexo_arg_list_t, wexo_free_args>;

// How often a link is made before taking the one another VNIC made.
constexpr int kCreateTries = 3;

using kel::wexo_error;

// An answer the controller is bound to give; one without it is not from ours.
int protocol_error()
{
	return kel::compose_error(NUQ_E_PROTOCOL, KEL_E_NUQ);
}

bool is_set(const char *text)
{
	return text != nullptr && *text != '\0';
}

int uplink(wexo_handle_t handle, const kelcntl_KELImplInfo *info, datalink_id_t *linkid)
{
	// The controller refuses to bind a VLAN or flat kel's port on a host without one.
	if (!is_set(info->ekelii_uplink_port))
		return protocol_error();
	const wexo_status_t st = wexo_name2info(handle, info->ekelii_uplink_port, linkid, nullptr);
	return st == WEXO_STATUS_OK ? KEL_SUCCESS : wexo_error(st);
}

// Makes the link `name` with `create`, or shares the one another VNIC made. A
// concurrent last disconnect may remove that one in between: then the next try makes it
// anew.
template <class Create>
int make_or_share(wexo_handle_t handle, const char *name, datalink_id_t *linkid, Create &&create)
{
	wexo_status_t st = WEXO_STATUS_FAILED;
	for (int i = 0; i < kCreateTries; i++) {
		st = create();
		if (st == WEXO_STATUS_EXIST)
			st = wexo_name2info(handle, name, linkid, nullptr);
		if (st != WEXO_STATUS_NOTFOUND)
			break;
	}
	return st == WEXO_STATUS_OK ? KEL_SUCCESS : wexo_error(st);
}

// The kel's number ("vlanid" or "vni") from the controller's answer.
int kel_number(const kelcntl_KELInfo *kel, const char *name, int *out)
{
	const char *text = kel_propattrset_lookup(kel->ekeli_props, kel->ekeli_props_count, name);
	return text == nullptr ? protocol_error() : kel_str2int(text, out);
}

int vlan_link(wexo_handle_t handle, const kelcntl_KELImplInfo *info, datalink_id_t *linkid)
{
	datalink_id_t up = DATALINK_INVALID_LINKID;
	int vid = 0;
	int rc = uplink(handle, info, &up);
	if (rc == KEL_SUCCESS)
		rc = kel_number(info->ekelii_kelinfo, "vlanid", &vid);
	if (rc != KEL_SUCCESS)
		return rc;
	if (vid < 1 || vid > 4094)
		return protocol_error();
	char name[MAXLINKNAMELEN];
	std::snprintf(name, sizeof(name), "kel-vlan%d", vid);
	return make_or_share(handle, name, linkid, [&] {
		return wexo_vlan_create(handle, name, up, static_cast<uint16_t>(vid),
		    WEXO_OPT_ACTIVE | WEXO_OPT_ONDEMAND, linkid);
	});
}

int vxlan_link(wexo_handle_t handle, const kelcntl_KELImplInfo *info, datalink_id_t *linkid)
{
	kelcntl_KELInfo *kel = info->ekelii_kelinfo;
	const char *localaddr = info->ekelii_vxlan_localaddr;
	if (!is_set(info->ekelii_uplink_port) && !is_set(localaddr))
		return protocol_error();
	int vni = 0;
	if (int rc = kel_number(kel, "vni", &vni); rc != KEL_SUCCESS)
		return rc;
	char name[MAXLINKNAMELEN];
	kel_vxlan_linkname(vni, name, sizeof(name));
	char params[1024];
	int n = is_set(localaddr)
	    ? std::snprintf(params, sizeof(params), "vni=%d,addr=%s", vni, localaddr)
	    : std::snprintf(params, sizeof(params), "vni=%d,interface=%s,ipvers=%s", vni, info->ekelii_uplink_port,
	          info->ekelii_vxlan_ipvers != nullptr ? info->ekelii_vxlan_ipvers : "");
	if (n >= 0 && static_cast<size_t>(n) < sizeof(params) && is_set(info->ekelii_vxlan_mgroup))
		n += std::snprintf(params + n, sizeof(params) - n, ",mgroup=%s", info->ekelii_vxlan_mgroup);
	if (n < 0 || static_cast<size_t>(n) >= sizeof(params))
		return KEL_E_NOSPACE;

	wexo_arg_list_t *raw = nullptr;
	wexo_status_t st = wexo_parse_link_props(params, &raw, B_FALSE);
	Args args(raw);
	if (st != WEXO_STATUS_OK)
		return wexo_error(st);
	vxlan_kparams_t kp;
	if ((st = kel_vxlan_props2kparams(handle, args.get(), &kp)) != WEXO_STATUS_OK)
		return wexo_error(st);
	return make_or_share(handle, name, linkid, [&] {
		vxlan_kparams_t attempt = kp;
		return wexo_vxlan_create(handle, name, &attempt, args.get(), WEXO_OPT_ACTIVE | WEXO_OPT_ONDEMAND,
		    linkid);
	});
}

}  // namespace

int kel_setup_l2network(wexo_handle_t handle, datalink_id_t *linkid, kelcntl_KELImplInfo *info)
{
	KEL_ASSERT(kel::kAreaNuq, linkid != NULL);
	kelcntl_KELInfo *kel = info->ekelii_kelinfo;
	const char *l2type = kel != nullptr
	    ? kel_propattrset_lookup(kel->ekeli_props, kel->ekeli_props_count, "l2-type")
	    : nullptr;
	if (l2type == nullptr)
		return protocol_error();
	kel_l2ntype_t type;
	kel_str2ntype(l2type, &type);
	switch (type) {
	case KEL_L2NTYPE_VLAN: return vlan_link(handle, info, linkid);
	case KEL_L2NTYPE_FLAT: return uplink(handle, info, linkid);
	case KEL_L2NTYPE_VXLAN: return vxlan_link(handle, info, linkid);
	default: return wexo_error(WEXO_STATUS_NOTSUP);
	}
}

wexo_status_t kel_vxlan_props2kparams(wexo_handle_t handle, const wexo_arg_list_t *args, vxlan_kparams_t *kp)
{
	*kp = vxlan_kparams_t{};
	mac_vxlan_props_t &mvp = kp->vk_mvp;
	wexo_status_t st = wexo_link_proplist_extract(handle, DATALINK_INVALID_LINKID, DATALINK_CLASS_VXLAN, args, &mvp,
	    0);
	if (st != WEXO_STATUS_OK)
		return st;
	const bool addr = (mvp.mvp_mask & MVP_VXLAN_ADDR) != 0, intf = (mvp.mvp_mask & MVP_VXLAN_IF) != 0;
	// The parameters are the library's own text: a VNI and one of the two, always.
	KEL_ASSERT(kel::kAreaNuq, (mvp.mvp_mask & MVP_VXLAN_VNI) && addr != intf);
	if (addr) {
		kp->vk_addr = mvp.mvp_addr;
		const uint32_t plen = (mvp.mvp_mask & MVP_VXLAN_PLEN) ? mvp.mvp_plen
		    : mvp.mvp_addr.ip_version == 6                    ? 128
		                                                      : 32;
		kp->vk_pmask.ip_version = mvp.mvp_addr.ip_version;
		// An endpoint this host does not hold leaves vk_ifindex 0, which the link's
		// creation refuses.
		(void)fenu_get_addrinfo(&kp->vk_addr, &kp->vk_pmask, plen, &kp->vk_ifindex, &kp->vk_llinkid, B_FALSE,
		    mvp.mvp_addr.ip_version == 6 ? AF_INET6 : AF_INET);
		return WEXO_STATUS_OK;
	}
	fenu_handle_t fh = nullptr;
	if (fenu_open(&fh, "current-profile", 0, 0) != FENU_SUCCESS)
		return WEXO_STATUS_DBNOTFOUND;
	const boolean_t ip = fenu_is_ip(fh, mvp.mvp_if);
	fenu_close(fh);
	if (!ip)
		return WEXO_STATUS_BADVXLANIF;
	if ((st = wexo_name2info(handle, mvp.mvp_if, &kp->vk_llinkid, nullptr)) != WEXO_STATUS_OK)
		return st;
	kp->vk_addr.ip_version = (mvp.mvp_mask & MVP_VXLAN_IPVERS) ? mvp.mvp_ipvers : 4;
	// An uplink without an address of that version sends from whatever the route picks.
	(void)fenu_get_addrinfo(&kp->vk_addr, &kp->vk_pmask, 0, &kp->vk_ifindex, &kp->vk_llinkid, B_TRUE,
	    kp->vk_addr.ip_version == 6 ? AF_INET6 : AF_INET);
	return WEXO_STATUS_OK;
}
