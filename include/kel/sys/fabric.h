/*
 * The calls the fabric's own programs make of each other, beside the public interface:
 * keld's datalink module serving what it reads and changes on its host (counters, what is
 * in force, the flood lists of VXLAN links, what the fabric left behind), the records a
 * binding keeps of its VNIC, and what libkel_node.so asks of libkel.so's store side.
 * They are exported, and kept under the same version, but another program has no use
 * for them. Plain C99 and C++, like the public headers.
 */
#ifndef KEL_SYS_FABRIC_H
#define KEL_SYS_FABRIC_H

#include <netinet/in.h>
#ifndef __cplusplus
#include <stdbool.h>
#endif
#include <stddef.h>
#include <stdint.h>

#include <kel/libkel_node.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Datalinks (libkel_node.so). */

/* A link's 64-bit counters. */
typedef struct wexo_stats {
	uint64_t ws_rbytes;
	uint64_t ws_ipackets;
	uint64_t ws_ierrors;
	uint64_t ws_obytes;
	uint64_t ws_opackets;
	uint64_t ws_oerrors;
	uint64_t ws_idrops;
	uint64_t ws_odrops;
	uint64_t ws_multircv;
} wexo_stats_t;

wexo_status_t wexo_link_stats(wexo_handle_t handle, datalink_id_t id, wexo_stats_t *stats) KEL_NOEXCEPT;

/*
 * What is in force on a link, read back from the kernel, for the controller to compare
 * with what the store says.
 */
typedef struct wexo_link_state {
	char wls_mac[18];        /* its address, "xx:xx:xx:xx:xx:xx" */
	char wls_lower[16];      /* the link it is made over ("" for none) */
	char wls_lower_kind[16]; /* that link's kind: "vxlan", "vlan", ... ("" for a device) */
	uint32_t wls_lower_id;   /* a VXLAN lower link's VNI, a VLAN lower link's ID */
	char wls_local[46];      /* a VXLAN lower link's endpoint ("" unset) */
	char wls_group[46];      /* and multicast group ("" none) */
	uint64_t wls_maxbw;      /* a root tbf's rate in bits per second; 0 for none */
	boolean_t wls_filtered;  /* whether it has filters (chains in the shared table) */
	char wls_filters[256];   /* what the table's rules are for: their "kel:" comments, */
	                         /* comma-separated ("mac-nospoof,ip-nospoof,priority=high") */
	char wls_allowed[1024];  /* the elements of its allowed address sets, comma-separated */
	size_t wls_ndrops;       /* what its filters dropped, by what the rules are for: */
	struct {
		/* "mac-nospoof", "ip-nospoof", "dhcp-nospoof", "restricted", "tagged"; and on a
		 * link VNICs are made over, "foreign-mac": from no address of theirs */
		char wfd_rule[32];
		uint64_t wfd_packets;
		uint64_t wfd_bytes;
	} wls_drops[8];
} wexo_link_state_t;

/*
 * Reads what is in force on link `id` into *state: for a VNIC in a guest's namespace,
 * the filters in the host's namespace, which the guest cannot reach.
 */
wexo_status_t wexo_link_state(wexo_handle_t handle, datalink_id_t id, wexo_link_state_t *state) KEL_NOEXCEPT;

/*
 * The fabric's own links on this host. kel_connect_vnic records the VNIC `name` ("LINK",
 * or "NAMESPACE/LINK") it binds, to be made over link `lower` of the handle's namespace
 * (the host's) with its port's MAC address `mac`: from then on `lower` counts as in use,
 * lets `mac` out (its guard drops every other source address), and keld acts on the
 * VNIC. `record` (may be NULL) is what the host keeps of the binding as "field=value"
 * lines: the controller's names of the port (port=, kelname=, tenant=), and what the
 * host's address responder hands the VNIC's guest when it gets a lease (kel=UUID,
 * addr=IP/PLEN, router=IP, dns=IP IP..., and role=endpoint for the responder's own
 * link); WEXO_STATUS_BADVAL when a lease is there and does not parse.
 * WEXO_STATUS_NOTFOUND when `lower` went meanwhile (a removal took it first).
 */
wexo_status_t wexo_vnic_own(wexo_handle_t handle, const char *name, const char *mac, datalink_id_t lower,
    const char *record) KEL_NOEXCEPT;
/* Forgets the VNIC `name` again; nothing recorded is no error. */
wexo_status_t wexo_vnic_disown(wexo_handle_t handle, const char *name) KEL_NOEXCEPT;
/*
 * WEXO_STATUS_OK when link `id` of the handle's namespace, which keld's callers name
 * `name`, is one the fabric made: a recorded VNIC still made over the link it was bound
 * over, or a link made on demand (still the link made). WEXO_STATUS_NOTFABRIC otherwise.
 */
wexo_status_t wexo_link_owned(wexo_handle_t handle, datalink_id_t id, const char *name) KEL_NOEXCEPT;

/*
 * What the fabric made on this host that nothing uses any more (what a command killed half
 * way leaves), for the controller's drift check: wl_kind "vnic" (a VNIC recorded, its
 * port bound, that is gone; those recorded less than `grace` seconds ago are still being
 * made and are left out, unless their namespace is gone), "link" (a link made on demand
 * with no VNIC over it, or the record of one that is gone), "table" (a filter table of
 * the fabric's, in the host's namespace, of a link that is gone), "filters" (the chains
 * and sets, in the host's shared table, of a VNIC that is gone) or "responder" (a kel's
 * address responder with no guest of the kel alive here: kel_vnic_remove with
 * KEL_VNIC_IF_IDLE removes it, its port being the controller's). *list, of *count
 * entries, is freed with free().
 */
typedef struct wexo_leftover {
	char wl_kind[16];
	char wl_name[320]; /* the VNIC ("NAMESPACE/LINK"), link, table, or link whose filters */
	char wl_what[320]; /* what is wrong with it, for people */
	long wl_age;       /* a VNIC's: seconds since its port was bound here */
} wexo_leftover_t;
wexo_status_t wexo_fabric_leftovers(long grace, wexo_leftover_t **list, size_t *count) KEL_NOEXCEPT;
/* How long a VNIC's record stays "being made": its VNIC may follow the record that long. */
#define WEXO_LEFTOVER_GRACE_SECONDS 60
/*
 * Removes the leftover `name` of `kind`, if it still is one: a VNIC's record, filters
 * and kept properties (and its lower link when it was the last user), a link, a table,
 * a link's filters; WEXO_STATUS_NOTSUP for a responder.
 * WEXO_STATUS_LINKBUSY when a VNIC's link is there again, or its record is younger than
 * WEXO_LEFTOVER_GRACE_SECONDS (whatever grace the caller listed leftovers with: a VNIC
 * being made is never taken apart under its maker).
 */
wexo_status_t wexo_fabric_remove_leftover(const char *kind, const char *name) KEL_NOEXCEPT;

/*
 * The flood list of a VXLAN link: its own endpoint (wf_local, "" when unset) and the
 * remote endpoints broadcast and unknown frames are copied to (wf_remotes, sorted). A
 * destination not as the set below makes it reads with what sets it apart
 * ("10.1.0.2 port 5000", "0.0.0.0", "10.1.0.3 (not permanent)").
 */
typedef struct wexo_flood {
	char wf_local[INET6_ADDRSTRLEN];
	size_t wf_count;
	char **wf_remotes;
} wexo_flood_t;

/*
 * The flood list of VXLAN link `id` into *flood, to be freed with wexo_free_flood (also
 * after a failure). WEXO_STATUS_BADARG for a link that is not a VXLAN link.
 */
wexo_status_t wexo_vxlan_get_flood(wexo_handle_t handle, datalink_id_t id, wexo_flood_t *flood) KEL_NOEXCEPT;
void wexo_free_flood(wexo_flood_t *flood) KEL_NOEXCEPT;
/*
 * Makes the flood list of link `id` exactly the `count` addresses of `remotes`, or, with
 * `only_add`, adds those missing and removes only destinations it could not have made
 * (an unspecified address, another port...), whatever entries it finds. WEXO_STATUS_BADVAL,
 * changing nothing, for a remote that is not a whole unicast address of the link's
 * family (unspecified, loopback, multicast, broadcast) or is the link's own endpoint.
 */
wexo_status_t wexo_vxlan_set_flood(wexo_handle_t handle, datalink_id_t id, const char *const *remotes, size_t count,
    boolean_t only_add) KEL_NOEXCEPT;

/*
 * The remote interfaces' clients (libkel.so), for the node side: the transport's object
 * handles, the controller's "kelcntl.KEL" and "kelcntl.KELController" and a host's
 * "harl.Datalink". Methods return 0, 1 when the far end answered with its error record
 * (kelcntl_KELError, harl_DatalinkError), or a transport error (NUQ_E_*).
 */
typedef struct nuq_instance nuq_instance_t;
void nuq_instance_rele(nuq_instance_t *inst) KEL_NOEXCEPT;

/*
 * A connection to the controller at `index` (0 the first) of those this host's
 * "controller" setting names, taken from those kept from earlier calls of this process
 * when one is: a node that binds and releases over and over pays for one. KEL_E_NOTFOUND
 * past the last, KEL_E_CTRL_CONNECT when that controller does not answer. Given back
 * with kel_kept_release, which keeps it for the next caller while it is usable.
 */
typedef struct kel_kept_conn_s kel_kept_conn_t;
int kel_kept_controller(unsigned index, kel_kept_conn_t **kept) KEL_NOEXCEPT;
nuq_conn_t *kel_kept_conn(const kel_kept_conn_t *kept) KEL_NOEXCEPT;
void kel_kept_release(kel_kept_conn_t *kept) KEL_NOEXCEPT;

/*
 * Finds a switch by (key, value) pairs: "name", and "tenant" (a NULL value is not sent,
 * leaving the tenant to default).
 */
int kelcntl_KEL__nuq_lookup(nuq_conn_t *conn, int strict, nuq_instance_t **inst, int nkeys, ...) KEL_NOEXCEPT;
/*
 * Binds a port of the switch (`vportname`, or a new system port when NULL) to `vnicname`
 * on `hostname`; `extra` is passed to the binding as its property text (may be NULL).
 */
int kelcntl_KEL_assignVPort(nuq_instance_t *inst, const char *vnicname, const char *hostname, const char *vportname,
    const char *extra, kelcntl_KELImplInfo **implinfo, kelcntl_KELError **err) KEL_NOEXCEPT;
/*
 * Unbinds the port of `vnicname` on `hostname`; `extra` as the unbinding's filter; `last`
 * (NULL: none) the counters the VNIC carried, for the port to keep.
 */
int kelcntl_KEL_unAssignVPort(nuq_instance_t *inst, const char *vnicname, const char *hostname, const char *extra,
    const kel_vport_counters_t *last, kelcntl_KELError **err) KEL_NOEXCEPT;
/*
 * Joins the switch's hosts again when it is a VXLAN switch without a multicast group
 * (each host's VXLAN link floods to the others).
 */
int kelcntl_KEL_syncFlood(nuq_instance_t *inst, kelcntl_KELError **err) KEL_NOEXCEPT;
int kelcntl_KELController__nuq_lookup(nuq_conn_t *conn, int strict, nuq_instance_t **inst, int nkeys, ...) KEL_NOEXCEPT;
/* The ports matching a filter text; none is an empty array (*count 0), not an error. */
int kelcntl_KELController_getVPortInfo(nuq_instance_t *inst, const char *filter, kelcntl_VPortInfo ***array, int *count,
    kelcntl_KELError **err) KEL_NOEXCEPT;

typedef struct harl_LinkStat {
	uint64_t dls_ipackets;
	uint64_t dls_rbytes;
	uint64_t dls_idrops;
	uint64_t dls_idropbytes;
	uint64_t dls_obytes;
	uint64_t dls_opackets;
	uint64_t dls_odrops;
	uint64_t dls_odropbytes;
} harl_LinkStat;

typedef enum { DST_LINK = 0 } harl_StatType;

typedef struct harl_StatValue {
	harl_StatType dsv_discriminant;
	harl_LinkStat *dsv_linkstat;
} harl_StatValue;

typedef struct harl_DatalinkError {
	int dde_err; /* a datalink status */
	char *dde_errmsg;
} harl_DatalinkError;

/* Finds a datalink by (name, value) key pairs, "name" being the link's name. */
int harl_Datalink__nuq_lookup(nuq_conn_t *conn, int strict, nuq_instance_t **inst, int nkeys, ...) KEL_NOEXCEPT;
/* The link's statistics; `arg` is unused (NULL). */
int harl_Datalink_getStat(nuq_instance_t *inst, void *arg, harl_StatValue **value,
    harl_DatalinkError **err) KEL_NOEXCEPT;
void harl_StatValue_free(harl_StatValue *value) KEL_NOEXCEPT;
void harl_DatalinkError_free(harl_DatalinkError *err) KEL_NOEXCEPT;

/*
 * The texts of the datalink statuses and of a link's bandwidth (libkel.so: the store's
 * property checks read the bandwidth too). wexo_str2bw parses a bandwidth: a decimal
 * number, optionally with a fraction ("1.5"), then an optional unit K, M or G (either
 * case; kilo-, mega- or gigabits per second, powers of 1000). Without a unit the number
 * counts megabits. The result in bits per second must be at least 1 and fit in 64 bits;
 * nothing may follow the unit. Stores it in *bps when given.
 */
bool wexo_str2bw(const char *text, uint64_t *bps) KEL_NOEXCEPT;

/* The store's side (libkel.so), for libkel_node.so. */

/* This host's "controller" setting, how its controllers are reached, into buf. */
int kel_controller_uri(char *buf, size_t size) KEL_NOEXCEPT;
/* This host's canonical name, as it reports itself to the controller. */
int kel_get_hostname(char *buf, uint_t size) KEL_NOEXCEPT;
/*
 * The link properties a port's VNIC gets: for each link property, the port's value, else
 * its switch's ("protection=none" left out), as "name=value,...". KEL_E_NOSPACE, with
 * `buf` empty, when the text would not fit `size`.
 */
int kel_inherit_dlprops(kelcntl_KELInfo *kel, kelcntl_VPortInfo *vport, char *buf, size_t size) KEL_NOEXCEPT;

/*
 * keld's, while it serves a remote call: who the changes the calling thread makes from
 * now on are made for, as the audit trail names them: the user the call came in as and
 * the host it named. NULL or "" for `user`: the local user again.
 */
void kel_set_caller(const char *user, const char *host) KEL_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif
