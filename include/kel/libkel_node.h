/*
 * libkel_node: the node side of the kel fabric, for the tools that make VNICs on a host
 * (hypervisors, container runtimes, keladm).
 *
 * A VNIC joins a kel in three steps:
 *   1. kel_connect_vnic() asks the controller to bind a port of the kel to the VNIC on
 *      this host, and prepares the lower link the VNIC is to be made over: the host's
 *      uplink for VLAN and flat kels, or the VXLAN link of the kel's VNI, made on demand.
 *      It returns that link, the link properties the VNIC must carry, and what the
 *      controller said about the kel and the port.
 *   2. The caller makes the VNIC over the returned link (with the port's MAC address)
 *      and applies each returned property with wexo_set_linkprop().
 *   3. When the VNIC goes, the caller deletes it first and then calls
 *      kel_disconnect_vnic(), which releases the port and removes the VXLAN link when no
 *      other link uses it any more.
 *
 * kel_vnic_create() and kel_vnic_remove() do all three steps in one call each; use them
 * unless the VNIC must be made by other means.
 *
 * Everything here acts on the network namespace of the calling thread. Codes are
 * libkel's (see libkel.h); a datalink failure is KEL_E_WEXO with the WEXO_STATUS_* value
 * shifted left by 8. This header is plain C99 and C++.
 */
#ifndef LIBKEL_NODE_H
#define LIBKEL_NODE_H

#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>

#include <kel/libkel.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Datalink administration. */

typedef int wexo_status_t;

#define WEXO_STATUS_OK         0
#define WEXO_STATUS_FAILED     1 /* the kernel refused, for a reason not below */
#define WEXO_STATUS_BADARG     2
#define WEXO_STATUS_NOTFOUND   3 /* no such link */
#define WEXO_STATUS_NOTSUP     4
#define WEXO_STATUS_NOMEM      5
#define WEXO_STATUS_DENIED     6
#define WEXO_STATUS_BADVAL     7   /* a property value that does not parse */
#define WEXO_STATUS_EXIST      8   /* a link of that name exists already */
#define WEXO_STATUS_NOADDR     9   /* a VXLAN endpoint address this host does not hold */
#define WEXO_STATUS_DBNOTFOUND 12  /* the IP interface configuration cannot be read */
#define WEXO_STATUS_LINKBUSY   25  /* other links are made over it */
#define WEXO_STATUS_NOTFABRIC  26  /* a link the fabric did not make: left alone */
#define WEXO_STATUS_BADVXLANIF 105 /* a VXLAN interface that is not an IP interface */

/* The libkel code of a datalink status: KEL_E_WEXO with the status above the low byte. */
#define KEL_WEXO_ERROR(status) KEL_ERR_CODE(status, KEL_E_WEXO)

/* A link's ID is its interface index; 0 is no link. */
typedef uint32_t datalink_id_t;
#define DATALINK_INVALID_LINKID 0

/* What kind of link, from the kernel's link kind: vlan; macvlan, macvtap and veth are
 * VNICs; vxlan; everything else counts as physical. */
typedef enum {
	DATALINK_CLASS_PHYS = 0x01,
	DATALINK_CLASS_VLAN = 0x02,
	DATALINK_CLASS_VNIC = 0x08,
	DATALINK_CLASS_VXLAN = 0x400
} datalink_class_t;

/* Options of link creation and deletion. WEXO_OPT_ACTIVE must be given: links live in
 * the running system only. WEXO_OPT_ONDEMAND marks a link made on demand for VNICs. */
#define WEXO_OPT_ACTIVE   0x00001
#define WEXO_OPT_ONDEMAND 0x10000

/* A datalink handle: a netlink socket of the caller's network namespace, or of a named
 * one ("ip netns" names, /run/netns/NAME). */
typedef struct wexo_handle *wexo_handle_t;

wexo_status_t wexo_open(wexo_handle_t *handlep) KEL_NOEXCEPT;
/* NULL or "" is the caller's namespace; WEXO_STATUS_NOTFOUND for a namespace that does
 * not exist. */
wexo_status_t wexo_open_netns(const char *netns, wexo_handle_t *handlep) KEL_NOEXCEPT;
/* NULL is accepted. */
void wexo_close(wexo_handle_t handle) KEL_NOEXCEPT;
/* The ID and class of the link `name`; either out parameter may be NULL. */
wexo_status_t wexo_name2info(wexo_handle_t handle, const char *name, datalink_id_t *idp,
    datalink_class_t *classp) KEL_NOEXCEPT;
/* The flags (IFF_*), class, media (ARPHRD_*) and name of link `id`; any out
 * parameter may be NULL; the name is cut to `namelen` bytes. */
wexo_status_t wexo_datalink_id2info(wexo_handle_t handle, datalink_id_t id, uint32_t *flagsp, datalink_class_t *classp,
    uint32_t *mediap, char *name, size_t namelen) KEL_NOEXCEPT;
/* Sets one link property live ("" as value resets it): maxbw, priority, cos,
 * protection, allowed-ips, allowed-mac, iov (only "off"). */
wexo_status_t wexo_set_linkprop(wexo_handle_t handle, datalink_id_t id, const char *name,
    const char *value) KEL_NOEXCEPT;
/* VNICs: a link made over a lower link, in bridge mode so that the VNICs of one lower
 * link reach one another. A macvtap gives a virtual machine its tap device. */
typedef enum {
	WEXO_VNIC_MACVLAN = 1,
	WEXO_VNIC_MACVTAP = 2,
	/* Or'd into the kind: the VNIC is made down. A down VNIC takes no frames from the
	 * others of its lower link, which then go on to wherever its MAC address is in the
	 * fabric: the VNIC of a virtual machine still running on another host. Its user
	 * brings it up. */
	WEXO_VNIC_DOWN = 0x100
} wexo_vnic_kind_t;

/* Makes the VNIC `name` ("LINK", or "NAMESPACE/LINK" to make it inside that namespace)
 * over `lower`, a link of the handle's namespace, with the MAC address `mac` (text such
 * as "2:8:20:a:b:c"; NULL: one of the kernel's), up. *idp is its ID in its own namespace.
 * WEXO_STATUS_EXIST when a link of that name is there. */
wexo_status_t wexo_vnic_create(wexo_handle_t handle, const char *name, datalink_id_t lower, wexo_vnic_kind_t kind,
    const char *mac, datalink_id_t *idp) KEL_NOEXCEPT;
/* Deletes the VNIC `name` ("LINK" or "NAMESPACE/LINK"), with the link properties kept
 * for it; *lowerp (when given) gets the link it was made over. */
wexo_status_t wexo_vnic_delete(wexo_handle_t handle, const char *name, datalink_id_t *lowerp) KEL_NOEXCEPT;
/* The link the VNIC `name` ("LINK" or "NAMESPACE/LINK") was made over, as a link of the
 * handle's namespace. */
wexo_status_t wexo_vnic_lower(wexo_handle_t handle, const char *name, datalink_id_t *lowerp) KEL_NOEXCEPT;
/* Brings link `id` of the handle's namespace up (a VNIC made with WEXO_VNIC_DOWN). */
wexo_status_t wexo_link_up(wexo_handle_t handle, datalink_id_t id) KEL_NOEXCEPT;
/* The MTU of link `id` of the handle's namespace. */
wexo_status_t wexo_link_mtu(wexo_handle_t handle, datalink_id_t id, uint32_t *mtup) KEL_NOEXCEPT;
/* The lower link recorded for the VNIC `name` ("LINK" or "NAMESPACE/LINK") when its port
 * was bound on this host, into `buf`; WEXO_STATUS_NOTFOUND when none is recorded. */
wexo_status_t wexo_vnic_recorded_lower(const char *name, char *buf, size_t size) KEL_NOEXCEPT;
/* Gives link `id` of the handle's namespace the address `addr` with `prefixlen`, and,
 * when `router` is not NULL, a default route through it. */
wexo_status_t wexo_link_set_ipaddr(wexo_handle_t handle, datalink_id_t id, const char *addr, uint32_t prefixlen,
    const char *router) KEL_NOEXCEPT;

/* The text of a status, written into `buf` (1024 bytes) and returned. */
const char *wexo_status2str(wexo_status_t status, char *buf) KEL_NOEXCEPT;

/*
 * Argument lists: "name=value" pairs joined by commas, where a piece without "=" is a
 * further value of the pair before it ("protection=mac-nospoof,ip-nospoof" is one pair
 * with the value "mac-nospoof,ip-nospoof"). A list owns its text.
 */
typedef struct wexo_arg_list wexo_arg_list_t;

/* Parses `text` into a new list (*listp; NULL on failure). With `novalues`, pieces are
 * names without values. WEXO_STATUS_BADVAL for an empty name, a repeated name, or a
 * value before any name. */
wexo_status_t wexo_parse_link_props(const char *text, wexo_arg_list_t **listp, boolean_t novalues) KEL_NOEXCEPT;
/* NULL is accepted. */
void wexo_free_args(wexo_arg_list_t *list) KEL_NOEXCEPT;
uint_t wexo_arg_count(const wexo_arg_list_t *list) KEL_NOEXCEPT;
/* The name and the whole value text ("" without a value) of pair `i`, owned by the
 * list; NULL when `i` is out of range. */
const char *wexo_arg_name(const wexo_arg_list_t *list, uint_t i) KEL_NOEXCEPT;
const char *wexo_arg_value(const wexo_arg_list_t *list, uint_t i) KEL_NOEXCEPT;

/* An IP address: IPv4 is kept as an IPv4-mapped IPv6 address (::ffff:a.b.c.d). */
typedef struct mac_ipaddr_s {
	uint32_t ip_version; /* 4 or 6; 0 when unset */
	struct in6_addr ip_addr;
} mac_ipaddr_t;

/* VXLAN link properties, as extracted from an argument list. */
#define MVP_VXLAN_VNI    0x01 /* "vni" */
#define MVP_VXLAN_ADDR   0x02 /* "addr": the local endpoint, or a subnet of it */
#define MVP_VXLAN_PLEN   0x04 /* "addr" had a prefix length */
#define MVP_VXLAN_MGROUP 0x08 /* "mgroup" */
#define MVP_VXLAN_IPVERS 0x10 /* "ipvers": "v4" or "v6" */
#define MVP_VXLAN_IF     0x20 /* "interface": the link whose address is the endpoint */

#define MAXLINKNAMELEN 32

typedef struct mac_vxlan_props_s {
	uint32_t mvp_mask; /* which of the fields below were given */
	uint32_t mvp_vni;
	mac_ipaddr_t mvp_addr;
	mac_ipaddr_t mvp_mgroup;
	uint32_t mvp_plen;
	uint32_t mvp_ipvers; /* 4 or 6 */
	char mvp_if[MAXLINKNAMELEN];
} mac_vxlan_props_t;

/* What a VXLAN link is made from. */
typedef struct vxlan_kparams_s {
	datalink_id_t vk_linkid;  /* the VXLAN link, once made */
	datalink_id_t vk_llinkid; /* the link that carries its packets */
	int vk_ifindex;           /* the interface holding the local endpoint */
	mac_ipaddr_t vk_addr;     /* the local endpoint */
	mac_ipaddr_t vk_pmask;    /* the endpoint's netmask */
	mac_ipaddr_t vk_maddr;    /* the multicast group (ip_version 0: none) */
	boolean_t vk_syslink;     /* made on demand for VNICs */
	mac_vxlan_props_t vk_mvp;
	int vk_diag; /* why the kernel refused the creation (libnl NLE_*) */
} vxlan_kparams_t;

/* A link's traffic counters. The fabric fills the packets, bytes and drops of each
 * direction; the kernel does not count dropped bytes, so those stay 0. */
typedef struct link_stat_s {
	uint64_t ls_ipackets;
	uint64_t ls_rbytes;
	uint64_t ls_ierrors;
	uint64_t ls_idrops;
	uint64_t ls_idropbytes;
	uint64_t ls_multircv;
	uint64_t ls_opackets;
	uint64_t ls_obytes;
	uint64_t ls_oerrors;
	uint64_t ls_odrops;
	uint64_t ls_odropbytes;
	uint64_t ls_multixmt;
} link_stat_t;

/* The controller's records. Each owns its strings and arrays; free it with its free
 * function (NULL is accepted). */
typedef struct kelcntl_PropertyNV {
	char *epnv_name;
	char *epnv_value;
} kelcntl_PropertyNV;

typedef struct kelcntl_KELError {
	int ekele_err; /* a libkel code */
	char *ekele_errmsg;
} kelcntl_KELError;

typedef enum { EVPS_FREE = 0, EVPS_USED = 1 } kelcntl_VPortStatus;
typedef enum { EIPV_IPV4 = 0, EIPV_IPV6 = 1 } kelcntl_IPVersion;
typedef enum { EKELS_IDLE = 0, EKELS_BUSY = 1 } kelcntl_KELStatus;

typedef struct kelcntl_VPortInfo {
	char *evpi_name;
	char *evpi_uuid;
	char *evpi_kelname;
	char *evpi_keluuid;
	char *evpi_tenantname;
	kelcntl_VPortStatus evpi_status;
	char *evpi_vnicname;
	kelcntl_PropertyNV **evpi_props; /* "ipaddr", "macaddr", "cos", ... */
	int evpi_props_count;
	char *evpi_hostname;
} kelcntl_VPortInfo;

typedef struct kelcntl_IPnetInfo {
	char *eipi_name;
	char *eipi_uuid;
	char *eipi_kelname;
	char *eipi_keluuid;
	char *eipi_tenantname;
	kelcntl_PropertyNV **eipi_props;
	int eipi_props_count;
	char *eipi_start;
	char *eipi_end;
	char *eipi_range;
	kelcntl_IPVersion eipi_ipvers;
} kelcntl_IPnetInfo;

typedef struct kelcntl_KELInfo {
	char *ekeli_name;
	char *ekeli_uuid;
	char *ekeli_tenantname;
	kelcntl_PropertyNV **ekeli_props; /* "l2-type", "vlanid" or "vni", ... */
	int ekeli_props_count;
	kelcntl_KELStatus ekeli_status;
	kelcntl_VPortInfo **ekeli_vports; /* after a binding: the one port bound */
	int ekeli_vports_count;
	kelcntl_IPnetInfo **ekeli_ipnets;
	int ekeli_ipnets_count;
} kelcntl_KELInfo;

/* What a binding returns: the kel (its first port is the one bound) and, for the
 * VNIC's host, the uplink, VXLAN endpoint, multicast group and IP version ("v4",
 * "v6"); absent settings are "". */
typedef struct kelcntl_KELImplInfo {
	kelcntl_KELInfo *ekelii_kelinfo;
	char *ekelii_uplink_port;
	char *ekelii_vxlan_localaddr;
	char *ekelii_vxlan_mgroup;
	char *ekelii_vxlan_ipvers;
} kelcntl_KELImplInfo;

void kelcntl_PropertyNV_free(kelcntl_PropertyNV *nv) KEL_NOEXCEPT;
void kelcntl_KELError_free(kelcntl_KELError *err) KEL_NOEXCEPT;
void kelcntl_VPortInfo_free(kelcntl_VPortInfo *vport) KEL_NOEXCEPT;
void kelcntl_VPortInfo_array_free(kelcntl_VPortInfo **array, int count) KEL_NOEXCEPT;
void kelcntl_IPnetInfo_free(kelcntl_IPnetInfo *ipnet) KEL_NOEXCEPT;
void kelcntl_KELInfo_free(kelcntl_KELInfo *kel) KEL_NOEXCEPT;
void kelcntl_KELImplInfo_free(kelcntl_KELImplInfo *info) KEL_NOEXCEPT;

/*
 * Binds a port of kel `kelname` (tenant NULL: "sys-global"; `vportname` NULL: a new
 * system port) to VNIC `vnicname` on this host, and prepares the VNIC's lower link.
 * `extra` is the binding's property text (e.g. "vmid=..."; may be NULL); `flags` is
 * reserved (0). On success *linkid is the lower link, *proplist the link properties the
 * VNIC must carry (free with wexo_free_args) and *implinfo what the controller returned
 * (free with kelcntl_KELImplInfo_free). On failure nothing stays bound and the out
 * parameters are cleared.
 */
int kel_connect_vnic(wexo_handle_t handle, const char *tenant, const char *kelname, const char *vportname,
    const char *vnicname, wexo_arg_list_t **proplist, const char *extra, datalink_id_t *linkid,
    kelcntl_KELImplInfo **implinfo, uint32_t flags) KEL_NOEXCEPT;
/* Releases the port of `vnicname` on this host (or, when none, the one `extra` selects)
 * and removes the lower link `linkid` when it is a VXLAN link that nothing else uses.
 * The release's error comes first, then the link's. */
int kel_disconnect_vnic(wexo_handle_t handle, const char *vnicname, const char *extra, datalink_id_t linkid,
    uint32_t flags) KEL_NOEXCEPT;
/*
 * kel_disconnect_vnic, with `last` the counters the VNIC carried (NULL: none): the
 * controller adds them to the port's, so that its traffic counters survive the VNIC. Read
 * them (kel_get_vnicstat) just before removing the VNIC.
 */
int kel_disconnect_vnic_counted(wexo_handle_t handle, const char *vnicname, const char *extra, datalink_id_t linkid,
    const kel_vport_counters_t *last, uint32_t flags) KEL_NOEXCEPT;
/*
 * The whole VNIC in one call, for the tools that put guests on a kel.
 *
 * kel_vnic_create binds a port of kel `kelname` (tenant NULL: "sys-global"; `vportname`
 * NULL: a new system port) to `vnicname` ("LINK", "NAMESPACE/LINK" for a namespace
 * under /run/netns, or "PATH/LINK" for the namespace file at PATH, such as
 * /proc/PID/ns/net: see kel_vnic_name), makes the VNIC of `kind` over the lower link with
 * the port's MAC address (its MTU is the lower link's: the VXLAN link's is its
 * underlay's less the encapsulation), and gives it the port's link properties. With
 * KEL_VNIC_ADDRESS it also gives the VNIC the port's address with the ipnet's prefix
 * length and a default route through the ipnet's router, unless the namespace has a
 * default route of that family already (with KEL_VNIC_DEFAULT_ROUTE as well, this one
 * takes its place; with KEL_VNIC_NO_ROUTE, there is none). `extra` is the binding's property text ("vmid=..." for a
 * virtual machine that may migrate; may be NULL). A macvtap whose port stays bound to
 * another host (the destination of a virtual machine's move) is made down (kv_down), so that the
 * kel's traffic to the machine keeps going to the host it still runs on: the hypervisor
 * brings it up once the machine runs here. On success *vnic describes what was made
 * (free with kel_vnic_free); on failure nothing stays made or bound, and kv_stage says
 * which step failed.
 *
 * kel_vnic_remove removes the VNIC, hands its counters to its port and releases the port
 * (or, when none is bound to it here, the one `extra` selects), and removes the lower
 * link when it was made for VNICs and nothing else uses it. A VNIC already gone still has
 * its port released; KEL_E_VPORT_NOTFOUND when there is neither VNIC nor port. With
 * KEL_VNIC_IF_IDLE, `vnicname` must be a kel's address responder on this host, which goes
 * (as with its kel's last guest) only when no guest of the kel is alive here; success
 * when one is (KEL_E_INVALID_ARGS for a name that is no responder).
 *
 * kel_vnic_name writes into `buf` the name the fabric knows VNIC `vnicname` by:
 * "NAMESPACE/LINK" for "PATH/LINK" (PATH absolute), the namespace's name under
 * /run/netns; unchanged for any other form. A namespace without a name there gets one
 * with KEL_VNIC_NAME_ATTACH ("kel-ns-" and its inode number in hex, a bind mount that
 * kel_vnic_remove takes away with the namespace's last VNIC), and is KEL_E_NOTFOUND
 * without. A PATH that is no network namespace is KEL_E_INVALID_ARGS.
 */
#define KEL_VNIC_ADDRESS       0x1
#define KEL_VNIC_DEFAULT_ROUTE 0x2
#define KEL_VNIC_NO_ROUTE      0x4
#define KEL_VNIC_NAME_ATTACH   0x1
#define KEL_VNIC_IF_IDLE       0x1 /* kel_vnic_remove: a kel's responder, once idle */

#define KEL_VNIC_STAGE_BIND    1 /* binding the port, preparing the lower link */
#define KEL_VNIC_STAGE_MAKE    2 /* making the link */
#define KEL_VNIC_STAGE_PROPS   3 /* the port's link properties */
#define KEL_VNIC_STAGE_ADDRESS 4 /* the address and the route */

typedef struct kel_vnic_s {
	datalink_id_t kv_linkid; /* the VNIC, in its own namespace */
	datalink_id_t kv_lower;  /* the link under it, in the host's namespace */
	char kv_lowername[MAXLINKNAMELEN];
	uint32_t kv_mtu;                  /* the VNIC's MTU */
	boolean_t kv_down;                /* made down: a migration's destination */
	kelcntl_KELImplInfo *kv_implinfo; /* the kel; its first port is the one bound */
	int kv_stage;                     /* after a failure: KEL_VNIC_STAGE_* */
} kel_vnic_t;

int kel_vnic_create(const char *tenant, const char *kelname, const char *vportname, const char *vnicname,
    const char *extra, wexo_vnic_kind_t kind, uint32_t flags, kel_vnic_t *vnic) KEL_NOEXCEPT;
/* NULL is accepted. */
void kel_vnic_free(kel_vnic_t *vnic) KEL_NOEXCEPT;
int kel_vnic_remove(const char *vnicname, const char *extra, uint32_t flags) KEL_NOEXCEPT;
int kel_vnic_name(const char *vnicname, uint32_t flags, char *buf, size_t size) KEL_NOEXCEPT;

/* The ports bound to `vnicname` on this host, as the controller knows them (none: *count
 * 0). Free with kelcntl_VPortInfo_array_free. */
int kel_get_vnicinfo(const char *vnicname, kelcntl_VPortInfo ***array, int *count) KEL_NOEXCEPT;
/* Every port bound to a VNIC of this host, as the controller knows them (none: *count 0).
 * Free with kelcntl_VPortInfo_array_free. */
int kel_get_host_vnicinfo(kelcntl_VPortInfo ***array, int *count) KEL_NOEXCEPT;
/* The VNICs this host's own records hold, for when the controller cannot be asked: each
 * one's evpi_vnicname, evpi_keluuid and "macaddr" and "ipaddr" properties, the names of
 * its port, kel and tenant "" (the controller's alone). Free with
 * kelcntl_VPortInfo_array_free. */
int kel_get_recorded_vnicinfo(kelcntl_VPortInfo ***array, int *count) KEL_NOEXCEPT;
/* The counters of `vnicname` on the host that `conn` reaches (see
 * kel_nuq_connection_to_kelnode); fields the host does not count are 0. */
int kel_get_vnicstat(nuq_conn_t *conn, const char *vnicname, link_stat_t *stats) KEL_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif /* LIBKEL_NODE_H */
