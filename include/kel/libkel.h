/*
 * libkel: the public C interface of the kel virtual network fabric.
 *
 * Every operation that can fail returns an int error code: KEL_SUCCESS (0) or a
 * reason below. The low 8 bits are the reason; for the facility reasons
 * (KEL_E_WEXO, KEL_E_FENU, KEL_E_NUQ, KEL_E_VUR, KEL_E_SQL, KEL_E_SYSTEM) the bits
 * above hold the facility's own status shifted left by 8. kel_errmsg() turns any
 * code into text. Results come back through out parameters, which are cleared on
 * failure; whatever the library hands out is the caller's to free with the
 * matching free function, and every free function accepts NULL.
 *
 * This header is plain C99 and C++; beyond the C library it needs libuuid's header.
 */
#ifndef LIBKEL_H
#define LIBKEL_H

#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>
#include <uuid/uuid.h>

/* Nothing the library exports throws: in C++ its declarations say so. */
#ifdef __cplusplus
#define KEL_NOEXCEPT noexcept
#else
#define KEL_NOEXCEPT
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Shared types. */

typedef enum { B_FALSE = 0, B_TRUE = 1 } boolean_t;
typedef unsigned int uint_t;

/* Value type tags, for attribute-set entries and typed value lists. */
typedef enum { DATA_TYPE_INT32 = 5, DATA_TYPE_STRING = 9, DATA_TYPE_ATTRSET = 19 } data_type_t;

/*
 * Intrusive doubly linked list. Every record kept in a list begins with (or
 * contains, at the offset given to list_create) a list_node_t; a list holds
 * records of one type. The list never allocates and never frees records.
 */
typedef struct list_node {
	struct list_node *list_next;
	struct list_node *list_prev;
} list_node_t;

typedef struct list {
	size_t list_size;      /* size of one record */
	size_t list_offset;    /* offset of the list_node_t inside the record */
	list_node_t list_head; /* sentinel */
} list_t;

/* Prepares an empty list of records of `size` bytes with their node at `offset`. */
void list_create(list_t *list, size_t size, size_t offset) KEL_NOEXCEPT;
/* Ends a list's use; the list must be empty. */
void list_destroy(list_t *list) KEL_NOEXCEPT;
void list_insert_tail(list_t *list, void *object) KEL_NOEXCEPT;
/* The first record, or NULL for an empty list. */
void *list_head(list_t *list) KEL_NOEXCEPT;
/* The record after `object`, or NULL at the end. */
void *list_next(list_t *list, void *object) KEL_NOEXCEPT;
/* Unlinks `object`, which must be on the list. */
void list_remove(list_t *list, void *object) KEL_NOEXCEPT;
/* Unlinks and returns the first record, or NULL for an empty list. */
void *list_remove_head(list_t *list) KEL_NOEXCEPT;
/* Non-zero when the list holds no record. */
int list_is_empty(list_t *list) KEL_NOEXCEPT;
/* The number of records on the list; 0 for an empty list. */
int kel_list_count(list_t *list) KEL_NOEXCEPT;

/*
 * Attribute sets: ordered sets of named, typed entries (strings and 32-bit
 * integers), the working form of property sets and filters. The set owns copies
 * of every name and value. Functions return 0 or an errno value: ENOMEM, ENOENT
 * when nothing matched, EINVAL for a wrong type or argument.
 */
typedef struct attrset attrset_t;
typedef struct attrset_entry attrset_entry_t;

/* Creation flag: adding a name first removes every entry of that name. */
#define ATTRSET_UNIQUE_NAME 1

int attrset_create(attrset_t **setp, int flags) KEL_NOEXCEPT;
void attrset_free(attrset_t *set) KEL_NOEXCEPT;
int attrset_add_string(attrset_t *set, const char *name, const char *value) KEL_NOEXCEPT;
int attrset_add_int32(attrset_t *set, const char *name, int32_t value) KEL_NOEXCEPT;
/* The string value of `name`; it stays owned by the set. */
int attrset_lookup_string(attrset_t *set, const char *name, char **valuep) KEL_NOEXCEPT;
boolean_t attrset_exists(attrset_t *set, const char *name) KEL_NOEXCEPT;
/* Removes every entry with that name and type; ENOENT when there was none. */
int attrset_remove(attrset_t *set, const char *name, data_type_t type) KEL_NOEXCEPT;
/* The entry after `entry`, the first one for NULL; NULL at the end or for no set. */
attrset_entry_t *attrset_next_entry(attrset_t *set, attrset_entry_t *entry) KEL_NOEXCEPT;
const char *attrset_entry_name(attrset_entry_t *entry) KEL_NOEXCEPT;
data_type_t attrset_entry_type(attrset_entry_t *entry) KEL_NOEXCEPT;
int attrset_entry_value_string(attrset_entry_t *entry, char **valuep) KEL_NOEXCEPT;
int attrset_entry_value_int32(attrset_entry_t *entry, int32_t *valuep) KEL_NOEXCEPT;

/*
 * Property-string codec. A property string is name=value entries joined by commas,
 * with no quoting; a value may hold commas but never '='. Texts are read from their end,
 * so a set's entries stand in the reverse of the text's order.
 */

/*
 * Reads `text` into a new set made with `flags` (*out is NULL for the empty text).
 * `values` B_TRUE reads name=value entries, B_FALSE a list of names (each with the
 * empty value). KEL_E_INVALID_ARGS for a trailing comma, white space only, or a
 * name=value text with a leading piece that has no '='.
 */
int kel_str2attrset(const char *text, attrset_t **out, boolean_t values, int flags) KEL_NOEXCEPT;
/* Writes a set of string entries as a new text (freed by the caller); entries with the
 * empty value are left out, and NULL gives "". */
int kel_attrset2str(attrset_t *set, char **out) KEL_NOEXCEPT;
/*
 * Composes name=value pairs (`count` pairs of const char * name and value; a pair with
 * no name, no value or an empty value is skipped) into `buf`, followed by `tail` when
 * given. KEL_E_NOSPACE when the text and its terminator do not fit in `size` bytes.
 */
int kel_create_attrstr(char *buf, size_t size, const char *tail, int count, ...) KEL_NOEXCEPT;
/* A new unique-name set of `count` triples (const char *name, data_type_t type,
 * const char *value), strings only; a triple without a value adds nothing. NULL when
 * memory ran out. */
attrset_t *kel_create_attrset(int count, ...) KEL_NOEXCEPT;
/* The number of entries of a set. */
int kel_attrset_count(attrset_t *set) KEL_NOEXCEPT;
/* A base-10 integer (strtol's syntax, nothing after it); "" reads as 0. */
int kel_str2int(const char *text, int *out) KEL_NOEXCEPT;

/*
 * Names. A name is a UUID text or a human-readable name: 1 to 127 characters, each an
 * ASCII letter or digit, '_', '-' or '.'. A compound name is "kel/member".
 */
boolean_t kel_valid_name(const char *text) KEL_NOEXCEPT;
/* KEL_SUCCESS or KEL_E_INVALID_NAME; *is_uuid tells whether the name is a UUID text. */
int kel_parse_name(const char *text, boolean_t *is_uuid) KEL_NOEXCEPT;
/* Split a compound name into its kel part and its member part (128-byte outputs, each
 * optional). Without '/', the kel part is empty. */
boolean_t kel_parse_kelvportname(const char *text, char *kelname, char *vportname) KEL_NOEXCEPT;
boolean_t kel_parse_kelipnetname(const char *text, char *kelname, char *ipnetname) KEL_NOEXCEPT;
/* Whether a vport name is a system vport's ("sys-vport" and a number). */
boolean_t kel_is_system_vport(const char *vportname) KEL_NOEXCEPT;
/* Whether an address text (with or without "/prefix") is 0.0.0.0 or ::. A text that is
 * not an IP address gives B_FALSE. */
boolean_t kel_address_unspecified(const char *text) KEL_NOEXCEPT;
/* Whether the address part of a text (before any '/') resolves on this host. */
boolean_t kel_valid_address(const char *text) KEL_NOEXCEPT;

/* Object kinds: bits for property catalogue lookups, and plain kinds. */
typedef enum { KEL_PROPTYPE_KEL = 1, KEL_PROPTYPE_VPORT = 2, KEL_PROPTYPE_IPNET = 4 } kel_proptype_t;

typedef enum { KEL_TYPE_KEL = 0, KEL_TYPE_VPORT = 1, KEL_TYPE_IPNET = 2 } kel_type_t;

/* Records. Each is one heap block owned by the caller; its property set, its owned
 * strings and the records on its lists belong to it. */
#define KEL_NAME_LEN       128
#define KEL_UUID_TEXT_LEN  37           /* a UUID's text, lower case, and its terminator */
#define KEL_FILTER_LEN     1024         /* room for a filter text such as "tenant=t,kel=k" */
#define KEL_DEFAULT_TENANT "sys-global" /* the tenant of objects given without one */
#define KEL_VNICNAME_LEN   96
#define KEL_HOSTNAME_LEN   1025
#define KEL_SUBNET_LEN     50
#define KEL_ADDRSTR_LEN    46

typedef enum { KEL_STATUS_IDLE = 0, KEL_STATUS_BUSY = 1 } kel_status_t;
typedef enum { VPORT_STATUS_FREE = 0, VPORT_STATUS_USED = 1 } vport_status_t;

/* An IP network. */
typedef struct kel_ipnet_s {
	list_node_t ei_node;
	char ei_tenantname[KEL_NAME_LEN];
	char ei_kelname[KEL_NAME_LEN];
	uuid_t ei_keluuid;
	char ei_name[KEL_NAME_LEN];
	uuid_t ei_uuid;
	attrset_t *ei_props;
	sa_family_t ei_af;
	char ei_subnet[KEL_SUBNET_LEN]; /* network address "/" prefix length */
	uint32_t ei_prefixlen;
	char ei_sastr[KEL_ADDRSTR_LEN]; /* first usable address */
	char ei_eastr[KEL_ADDRSTR_LEN]; /* last usable address */
	char *ei_availrange;            /* addresses not yet handed out */
	struct sockaddr_storage ei_ca;  /* network address */
	struct sockaddr_storage ei_sa;
	struct sockaddr_storage ei_ea;
} kel_ipnet_t;

/* A virtual port. */
typedef struct kel_vport_s {
	list_node_t evp_node;
	char evp_tenantname[KEL_NAME_LEN];
	char evp_kelname[KEL_NAME_LEN];
	uuid_t evp_keluuid;
	char evp_name[KEL_NAME_LEN];
	uuid_t evp_uuid;
	attrset_t *evp_props;
	vport_status_t evp_status;
	char evp_vnicname[KEL_VNICNAME_LEN];
	char evp_hostname[KEL_HOSTNAME_LEN];
} kel_vport_t;

/* A virtual switch with its ports and networks. */
typedef struct kel_s {
	list_node_t kel_node;
	char kel_tenantname[KEL_NAME_LEN];
	char kel_name[KEL_NAME_LEN];
	uuid_t kel_uuid;
	attrset_t *kel_props;
	list_t kel_ipnets; /* kel_ipnet_t */
	list_t kel_ports;  /* kel_vport_t */
	kel_status_t kel_status;
	char kel_uport[32];     /* for the bound host: uplink port */
	char kel_localaddr[50]; /* VXLAN endpoint address */
	char kel_mgroup[50];    /* VXLAN multicast group */
	char kel_ipvers[3];     /* "v4" or "v6" */
} kel_t;

/* One listed property of an object. */
typedef struct kel_prop_s {
	list_node_t ep_node;
	char ep_propname[32];
	char ep_perm[3];  /* "rw" or "r-" */
	char *ep_current; /* the object's value; NULL when it has none */
	char ep_default[1024];
	char ep_possible[1024];
} kel_prop_t;

/* Error codes: the reason in the low 8 bits. */
/* clang-format off */
#define KEL_SUCCESS                   0
#define KEL_E_FAILED                  1
#define KEL_E_CONTINUE                2
#define KEL_E_AUTH                    3
#define KEL_E_IPADDR_INUSE            4
#define KEL_E_IPNET_INUSE             5
#define KEL_E_MACADDR_INUSE           6
#define KEL_E_VPORT_INUSE             7
#define KEL_E_ADDR_MGROUP_MISMATCH    8
#define KEL_E_IPVERS_MGROUP_MISMATCH  9
#define KEL_E_L2TYPE_INCOMPAT         10
#define KEL_E_MGROUP_IPVERS_MISMATCH  11
#define KEL_E_DB_VERSION              12
#define KEL_E_EXISTS                  13
#define KEL_E_INVALID_ARGS            14
#define KEL_E_INVALID_CTRLPROP        15
#define KEL_E_INVALID_COS             16
#define KEL_E_INVALID_HOSTNAME        17
#define KEL_E_INVALID_IPADDR          18
#define KEL_E_INVALID_IPNET           19
#define KEL_E_IP_NOT_IN_IPNET         20
#define KEL_E_INVALID_IPVERS          21
#define KEL_E_INVALID_L2TYPE          22
#define KEL_E_INVALID_LOCALADDR       23
#define KEL_E_INVALID_MACADDR         24
#define KEL_E_INVALID_MAXBW           25
#define KEL_E_INVALID_MGROUP          26
#define KEL_E_INVALID_NAME            27
#define KEL_E_INVALID_PRIORITY        28
#define KEL_E_INVALID_PROP            29
#define KEL_E_INVALID_URI             30
#define KEL_E_INVALID_RANGE           31
#define KEL_E_INVALID_SUBNET          32
#define KEL_E_INVALID_UPLINK          33
#define KEL_E_INVALID_VLANID_RANGE    34
#define KEL_E_INVALID_VLANID          35
#define KEL_E_INVALID_VNI             36
#define KEL_E_WEXO                    37
#define KEL_E_FENU                    38
#define KEL_E_HOSTNAME_LOOKUP         39
#define KEL_E_NOSPACE                 40
#define KEL_E_KEL_NOTFOUND            41
#define KEL_E_IPNET_NOTFOUND          42
#define KEL_E_VPORT_NOTFOUND          43
#define KEL_E_NOTFOUND                44
#define KEL_E_NOMEM                   45
#define KEL_E_RANGE_INUSE             46
#define KEL_E_NORESOURCE              47
#define KEL_E_NO_VLANID               48
#define KEL_E_NO_VNI                  49
#define KEL_E_URI_NOTSUP              50
#define KEL_E_NOTSUP                  51
#define KEL_E_IPNET_OVERLAP           52
#define KEL_E_ONE_IPNET               53
#define KEL_E_PROP_PARTIAL            54
#define KEL_E_PERM                    55
#define KEL_E_READONLY                56
#define KEL_E_NUQ                     57
#define KEL_E_CTRL_CONNECT            58
#define KEL_E_HOST_CONNECT            59
#define KEL_E_MACADDR_RANDOM          60
#define KEL_E_ARGS_REQUIRED           61
#define KEL_E_UPLINK_REQUIRED         62
#define KEL_E_VUR                     63
#define KEL_E_SQL                     64
#define KEL_E_SYSTEM                  65
#define KEL_E_HOST_NORESPONSE         66
#define KEL_E_VLANID_UNAVAIL          67
#define KEL_E_VNI_UNAVAIL             68
#define KEL_E_UUID                    69
#define KEL_E_INVALID_POOL            70
#define KEL_E_RANGE_EXCLUSIVE         71
#define KEL_E_POOL_DEFROUTER          72
#define KEL_E_INVALID_PROTECTION      73
#define KEL_E_RANGE_NOT_SUBSET        74
#define KEL_E_RANGE_OVERLAP           75
#define KEL_E_RANGE_PARTIAL           76
#define KEL_E_RANGE_MANUAL            77
#define KEL_E_INVALID_URI_TEMPLATE    78
#define KEL_E_INVALID_FILTER          79
#define KEL_E_UPLINK_ATTRS            80
#define KEL_E_VXLANADDR_ATTRS         81
/* The number of reasons; kel_errlist has one message for each. */
#define KEL_NUM_REASONS               82

/* The reason and the facility status of a code, and the code of both. */
#define KEL_ERR_REASON(code)          ((int)((unsigned int)(code) & 0xFFu))
#define KEL_ERR_STATUS(code)          ((int)(code) >> 8)
#define KEL_ERR_CODE(status, reason)  ((int)(status) * 256 + (int)(reason))
/* clang-format on */

/* The English message of each reason, indexed by reason. */
extern const char *const kel_errlist[KEL_NUM_REASONS];

/*
 * Formats the message of `code` into `buf` (cut to `len` - 1 characters and
 * terminated) and returns its translation in the message domain
 * "QARN_OST_OSLIB": either `buf` itself or a string owned by the message
 * catalogue. Never fails; the caller keeps `buf` alive while using the result.
 */
const char *kel_errmsg(int code, char *buf, uint_t len) KEL_NOEXCEPT;

/*
 * The configuration store: "/etc/kel/kel.db" and its lock file
 * "/etc/kel/kel.lock" (below $KEL_ROOT when that is set).
 */
typedef struct kel_dbhandle *kel_dbhandle_t;

/* Open modes for kel_db_open: SQLite's own SQLITE_OPEN_READONLY and _READWRITE. */
#define KEL_DB_READONLY  0x00000001
#define KEL_DB_READWRITE 0x00000002

/*
 * Opens the store with the given SQLite open flags (SQLITE_OPEN_READONLY to read,
 * SQLITE_OPEN_READWRITE to change it). Both files must exist. On failure *handlep
 * is NULL and the code is KEL_E_NOMEM, an SQLite code under KEL_E_SQL, or an
 * errno under KEL_E_SYSTEM (lock file missing or inaccessible).
 * A store that may not be written is refused to SQLITE_OPEN_READWRITE, and left as it
 * is: KEL_E_DB_VERSION for a schema newer than this library's, SQLITE_CORRUPT under
 * KEL_E_SQL for a damaged file or one without a usable schema version, SQLITE_NOTADB
 * under KEL_E_SQL for a file that is not a store. While another process holds the store
 * lock, the handle is opened and its first operation refuses the store in the same way,
 * as every operation does on a store damaged since its handle was opened. The whole
 * file is read for this only after something other than the library changed it.
 */
int kel_db_open(kel_dbhandle_t *handlep, int flags) KEL_NOEXCEPT;
/* Closes a handle; NULL is accepted. */
void kel_db_close(kel_dbhandle_t handle) KEL_NOEXCEPT;
/* B_TRUE when the store's database file exists. */
boolean_t kel_db_exists(void) KEL_NOEXCEPT;
/*
 * Creates the store (both files, mode 0600, owner 16, group 65, schema version 3)
 * unless the database file exists, in which case nothing is touched. The
 * directory "/etc/kel" must exist. A failed creation leaves neither file behind.
 */
int kel_db_create(void) KEL_NOEXCEPT;
/*
 * Copies the store at `from` into a new one at `to`: each a libpq connection string of a
 * PostgreSQL database, or NULL or "" for the SQLite file. Every row of every table is
 * read back from the new store and compared with the old before the copy is committed,
 * under both stores' locks. The source must be of the current schema (KEL_E_DB_VERSION:
 * upgrade it first) and stays as it is; the target must hold no store (KEL_E_EXISTS).
 * A failed copy leaves no file behind and a database as empty as it was.
 * KEL_E_NOTFOUND when there is no store at `from`, SQLITE_CORRUPT under KEL_E_SQL when
 * what was read back differs, KEL_E_INVALID_ARGS when both name the same store.
 */
int kel_db_copy_store(const char *from, const char *to) KEL_NOEXCEPT;
/*
 * Brings a store of schema version 1 or 2 to version 3 in one transaction; a version-3
 * store is left as it is. It refuses what kel_db_open refuses to a writer (a newer
 * store with KEL_E_DB_VERSION, one without a usable version with SQLITE_CORRUPT under
 * KEL_E_SQL); such a store is left untouched, and so is a store whose upgrade fails.
 */
int kel_db_upgrade(void) KEL_NOEXCEPT;

/*
 * Checking the store against the invariants every operation keeps: each ID range's free
 * set and the IDs kels hold make up the range exactly, and the hosts' shares lie within
 * it without overlapping; each network's free addresses are its span less the router and
 * the addresses its ports hold, and its free pool addresses the same within the pool; no
 * address, MAC address, VLAN ID or VNI is held twice; each kel's free system port
 * numbers and those its system ports use make up all numbers; no port or network
 * belongs to a missing kel; the schema version is 3. Each violation found becomes a
 * record in `problems` (an empty list when there is none), which the caller frees with
 * kel_free_problemlist. With KEL_CHECK_REPAIR the same call also puts back what leaked,
 * takes out of the free sets what is held, and deletes rows of missing kels, under the
 * store lock in one transaction (a read-write handle is needed), and marks each record
 * that it repaired; the others need an operator. Returns the store's error when it could
 * not check (or repair), with nothing to free.
 */
#define KEL_CHECK_REPAIR 0x1

typedef struct kel_store_problem {
	list_node_t esp_node;
	char esp_object[3 * KEL_NAME_LEN]; /* what it concerns: "vlan-range", "ipnet t/k/n" */
	char *esp_text;                    /* what is wrong */
	boolean_t esp_repaired;            /* put right by this call */
} kel_store_problem_t;

int kel_db_check_store(kel_dbhandle_t h, uint32_t flags, list_t *problems) KEL_NOEXCEPT;
void kel_free_problemlist(list_t *problems) KEL_NOEXCEPT;

/*
 * Drift between the store and the hosts. kel_db_verify compares, for every bound port
 * that `filter` selects ("tenant=", "kel=", "vport=", "host=" keys; NULL: all), what the
 * store says with what the port's host has: that its VNIC is there with the port's MAC
 * address, over the link the kel needs (the uplink; the kel's VLAN link; its VXLAN link
 * with the VNI, an endpoint in the host's endpoint subnet and the fabric's group), with
 * the bandwidth cap, protection filters, allowed addresses and priority the port inherits
 * in force; and for VXLAN kels without a group, that each host's link floods to the
 * kel's other hosts. When `filter` names no kel and no port, it also asks every host the
 * store knows (or the filter's "host") what the fabric left there that nothing uses:
 * "leftover" entries, named by the VNIC record, link or filter table. One kel_drift_t a
 * difference, or a host that did not answer. With KEL_VERIFY_REPAIR it also applies the
 * link properties and flood lists again, releases a port bound to a VNIC its host does
 * not have (the handle must then be read-write), removes the leftovers, and marks what it
 * put right; what it cannot (another lower link or address) is left to the operator. A
 * VNIC recorded on its host less than a minute ago is still being made: its port is
 * neither released nor its record taken for a leftover. The hosts are asked without the
 * store lock held. Free the list with kel_free_driftlist.
 */
#define KEL_VERIFY_REPAIR 0x1

typedef struct kel_drift {
	list_node_t edr_node;
	char edr_object[3 * KEL_NAME_LEN]; /* "tenant/kel/vport", "tenant/kel" for a flood list, the
					   VNIC, link or table of a leftover, a host */
	char edr_host[256];
	char edr_what[32];      /* "vnic", "mac", "lower", "maxbw", "protection", "allowed-ips",
					   "priority", "flood", "leftover" or "host" (it did not
					   answer) */
	char edr_store[1024];   /* what the store says */
	char edr_found[1024];   /* what the host has */
	boolean_t edr_repaired; /* put right by this call */
} kel_drift_t;

int kel_db_verify(kel_dbhandle_t h, const char *filter, uint32_t flags, list_t *drifts) KEL_NOEXCEPT;
void kel_free_driftlist(list_t *drifts) KEL_NOEXCEPT;

/*
 * Store lists. Each takes the store lock itself. On success the caller owns the list's
 * records and frees them with the matching kel_free_*list; on failure there is nothing
 * to free. `flags` is 0, or KEL_LIST_NO_MEMBERS and KEL_LIST_BOUND_PORTS where said below.
 */

/*
 * Switches that match `filter` (for example "tenant=t1,kel=k1,k2"), each with the ports
 * and networks that match. None: KEL_E_KEL_NOTFOUND, or KEL_E_VPORT_NOTFOUND when the
 * filter named a port of an existing switch or a port alone.
 */
int kel_db_get_filtered_kellist(kel_dbhandle_t h, const char *filter, list_t *out, uint32_t flags) KEL_NOEXCEPT;
/* Switches named `name` (of `tenant`, when given). */
int kel_db_get_kellist(kel_dbhandle_t h, const char *tenant, const char *name, list_t *out,
    uint32_t flags) KEL_NOEXCEPT;
/* One switch carrying exactly its port `vport`. */
int kel_db_get_kelvport(kel_dbhandle_t h, const char *tenant, const char *kel, const char *vport,
    kel_t **out) KEL_NOEXCEPT;
/* Whether `tenant` has a switch `name` (a name or a UUID text). */
boolean_t kel_db_kel_exists(kel_dbhandle_t h, const char *tenant, const char *name) KEL_NOEXCEPT;
/* The same, telling a store that cannot be read from a switch that is not there:
 * KEL_SUCCESS, KEL_E_KEL_NOTFOUND, or the store's code. */
int kel_db_find_kel(kel_dbhandle_t h, const char *tenant, const char *name) KEL_NOEXCEPT;
/* Ports that match; none is KEL_E_VPORT_NOTFOUND. */
int kel_db_get_filtered_vportlist(kel_dbhandle_t h, const char *filter, list_t *out, uint32_t flags) KEL_NOEXCEPT;
/* Networks that match; none is KEL_E_IPNET_NOTFOUND. */
int kel_db_get_filtered_ipnetlist(kel_dbhandle_t h, const char *filter, list_t *out, uint32_t flags) KEL_NOEXCEPT;
/* Networks by tenant, switch and network name; each may be NULL or empty. */
int kel_db_get_ipnetlist(kel_dbhandle_t h, const char *tenant, const char *kel, const char *ipnet, list_t *out,
    uint32_t flags) KEL_NOEXCEPT;

/*
 * Listing large stores without holding them in memory.
 *
 * KEL_LIST_NO_MEMBERS, as the flags of kel_db_get_filtered_kellist: the switches come
 * with empty kel_ports and kel_ipnets, so listing them costs what the switches cost, not
 * what their ports do. kel_status is still KEL_STATUS_BUSY when a port of the switch is
 * bound, and a filter that names ports or networks still selects by them.
 */
#define KEL_LIST_NO_MEMBERS 0x1u
/* KEL_WALK_NO_PROPS, as the flags of kel_db_walk_vports: evp_props stays NULL. */
#define KEL_WALK_NO_PROPS 0x2u
/*
 * KEL_LIST_BOUND_PORTS, as the flags of kel_db_get_filtered_kellist,
 * kel_db_get_filtered_vportlist and kel_db_walk_vports: of the ports, only the bound ones
 * come (a switch without one still comes, with none). The free ports are not read at all,
 * so what the switch's own work costs stays what its bound ports cost, however many
 * free ports it has.
 */
#define KEL_LIST_BOUND_PORTS 0x4u

typedef int kel_vport_walk_fn_t(const kel_vport_t *vport, void *arg);
/*
 * Hands each port that matches `filter` to `fn`, one at a time, in the order of
 * kel_db_get_filtered_vportlist: the record belongs to the library and is gone once `fn`
 * returns. A non-zero return of `fn` ends the walk and becomes the walk's result. None
 * matched: KEL_E_VPORT_NOTFOUND. The store lock is held until the walk ends (shared for a
 * read-only handle), so `fn` should collect rather than wait on anything slow.
 */
int kel_db_walk_vports(kel_dbhandle_t h, const char *filter, uint32_t flags, kel_vport_walk_fn_t *fn,
    void *arg) KEL_NOEXCEPT;

/* L2 network types of a switch. */
typedef enum {
	KEL_L2NTYPE_UNKNOWN = 0,
	KEL_L2NTYPE_VLAN = 1,
	KEL_L2NTYPE_VXLAN = 2,
	KEL_L2NTYPE_FLAT = 3
} kel_l2ntype_t;

/* Flag for creating switches and networks: the name may contain '-'. */
#define KEL_NAME_DASH_OK 0x1

/*
 * Creates a switch of `tenant` (NULL: "sys-global"). `name` NULL derives the name from
 * the UUID. `props` (may be NULL) may set "l2-type" (else the controller's), "vlanid" or
 * "vni" (else the lowest free ID is drawn), "uuid", "protection", "maxbw", "priority"
 * and extended "vendor:name" properties. *kelp receives the new switch. Nothing is left
 * in the store, and no ID stays drawn, when it fails.
 */
int kel_db_create_kel(kel_dbhandle_t h, const char *tenant, const char *name, const char *props, uint32_t flags,
    kel_t **kelp) KEL_NOEXCEPT;
/* Deletes a switch with its ports and network and gives its ID back; refused with
 * KEL_E_VPORT_INUSE while a port is bound. */
int kel_db_delete_kel(kel_dbhandle_t h, const char *tenant, const char *name, uint32_t flags) KEL_NOEXCEPT;

/*
 * Adds the IP network of switch `kel`. `props` must give "subnet" and may give
 * "defrouter" (default: the first usable address; 0.0.0.0 or :: for none), "pool"
 * (default: every address left), "uuid" and extended properties.
 */
int kel_db_add_ipnet(kel_dbhandle_t h, const char *tenant, const char *kel, const char *name, const char *props,
    kel_ipnet_t **ipnetp, uint32_t flags) KEL_NOEXCEPT;
/* Removes a network; refused with KEL_E_IPNET_INUSE while its switch has ports. */
int kel_db_remove_ipnet(kel_dbhandle_t h, const char *tenant, const char *kel, const char *name,
    uint32_t flags) KEL_NOEXCEPT;

/* One controller property, fabric-wide or of one host, as listed. */
typedef struct kel_ctrlprop_s {
	list_node_t ecp_node;
	char ecp_propname[32];
	char *ecp_propval;
	char ecp_defvalue[1024]; /* empty for a host row and "uuid" */
	char ecp_host[256];      /* empty for a fabric-wide row */
	char ecp_perm[3];        /* "rw" or "r-" */
	char *ecp_vlanrange;     /* NULL for "uuid" */
	char *ecp_vxlanrange;
	char *ecp_flatrange;
} kel_ctrlprop_t;

/*
 * Controller properties: "uri-template", "uuid", "l2-type", "vlan-range",
 * "vlan-range-avail", "vxlan-range", "vxlan-range-avail", "vxlan-mgroup", "vxlan-ipvers",
 * "vxlan-addr", "uplink-port". Lists those named in `propnames` (comma-separated; NULL for
 * all), for one host or (host NULL) every row with the fabric's "uuid" last.
 */
int kel_db_get_ctrlprop(kel_dbhandle_t h, const char *propnames, const char *host, list_t *list) KEL_NOEXCEPT;
void kel_free_ctrlproplist(list_t *list) KEL_NOEXCEPT;
/*
 * Sets one property from "name=value" (an empty value resets it), fabric-wide or for
 * `host`. "uplink-port=net0" may carry vlan-range=, vxlan-range= and flat=yes|no;
 * "vxlan-addr=..." may carry vxlan-range=. KEL_E_RANGE_PARTIAL and KEL_E_RANGE_MANUAL
 * are warnings returned after the change was made.
 */
int kel_db_set_ctrlprop(kel_dbhandle_t h, const char *propstr, const char *host) KEL_NOEXCEPT;

/*
 * The hosts an operator adds to the fabric, so that the controller knows them before any
 * port is bound there (a host is known too by its own controller properties and by the
 * ports bound on it). kel_db_add_host: KEL_E_INVALID_HOSTNAME for a name that is none,
 * KEL_E_EXISTS when added already, KEL_E_NORESOURCE past 65536 hosts.
 * kel_db_remove_host: KEL_E_NOTFOUND when not added; ports bound there stay bound.
 * kel_db_walk_hosts calls `fn` with each added host, by name, until it returns non-zero.
 */
int kel_db_add_host(kel_dbhandle_t h, const char *host) KEL_NOEXCEPT;
int kel_db_remove_host(kel_dbhandle_t h, const char *host) KEL_NOEXCEPT;
int kel_db_walk_hosts(kel_dbhandle_t h, int (*fn)(const char *host, void *arg), void *arg) KEL_NOEXCEPT;

/*
 * Connections for remote administration. A node reaches its controller through its
 * "controller" client setting; the controller reaches a node through the node's
 * "uri-template" (or the fabric's), with the node's name filled in.
 */
typedef struct nuq_conn nuq_conn_t;

/* KEL_E_CTRL_CONNECT when the setting is empty, not a URI, or nobody answers. */
int kel_nuq_connection_to_controller(nuq_conn_t **conn) KEL_NOEXCEPT;
/* KEL_E_HOST_CONNECT when the host cannot be reached. */
int kel_nuq_connection_to_kelnode(kel_dbhandle_t h, const char *hostname, nuq_conn_t **conn) KEL_NOEXCEPT;
/* A connection to this host's own keld, through its socket (for kel_get_vnicstat and
 * kel_get_hostinfo). */
int kel_nuq_connection_to_self(nuq_conn_t **conn) KEL_NOEXCEPT;
/* Closes a connection; NULL is accepted. */
void nuq_disconnect(nuq_conn_t *conn) KEL_NOEXCEPT;

/* What a host's daemon says of itself. */
typedef struct kel_hostinfo {
	char ehi_host[256]; /* its node name */
	char ehi_version[32];
	int64_t ehi_pid;
	uint64_t ehi_uptime;       /* seconds since it started */
	uint64_t ehi_reloads;      /* configuration reads, the first at start included */
	char ehi_controller[1024]; /* its "controller" client setting ("" when unset) */
	int ehi_controller_rc;     /* with KEL_HOSTINFO_CHECK: KEL_SUCCESS when it reached
					   its controller, else why not; otherwise KEL_E_NOTSUP */
} kel_hostinfo_t;

/* For kel_get_hostinfo: the daemon first tries to reach its own controller. */
#define KEL_HOSTINFO_CHECK 0x1u

/*
 * Asks the daemon at the other end of `conn` (kel_nuq_connection_to_kelnode,
 * kel_nuq_connection_to_self) about itself, into `*info`. KEL_E_NUQ (with the transport's
 * status) when it does not answer as a daemon should; `*info` is cleared on failure.
 * With KEL_HOSTINFO_CHECK the call lasts as long as that daemon's own attempt.
 */
int kel_get_hostinfo(nuq_conn_t *conn, uint32_t flags, kel_hostinfo_t *info) KEL_NOEXCEPT;
/*
 * Whether this host reaches its controller: connects as its "controller" setting says and
 * finds the controller's object there. KEL_SUCCESS; KEL_E_CTRL_CONNECT when the setting is
 * empty or nobody answers; KEL_E_NUQ when what answers is no controller.
 */
int kel_check_controller(void) KEL_NOEXCEPT;

/* One client setting of this host, as listed. */
typedef struct kel_togprop_s {
	list_node_t esp_node;
	char esp_propname[32];
	char esp_propval[1024];
	char esp_defvalue[1024];
	char esp_perm[3];
} kel_togprop_t;

/*
 * This host's client settings, kept in its service configuration. Today there is one:
 * "controller", where the host finds the controller ("unix://" when it is this host,
 * "ssh://[user@]host[:port][/path]" otherwise; empty when not configured).
 */
/* Sets one setting from "name=value" and asks the running daemon to re-read it. */
int kel_set_client_togprop(const char *propstr) KEL_NOEXCEPT;
/* Lists the settings named in `propnames` (comma-separated; NULL for all) into a list
 * that it creates; free it with kel_free_togproplist. */
int kel_get_client_togprop(const char *propnames, list_t *list) KEL_NOEXCEPT;
void kel_free_togproplist(list_t *list) KEL_NOEXCEPT;
/*
 * The controller's own settings: "uuid", its identity, and "store", the libpq connection
 * string of the PostgreSQL database that holds the store (unset or empty: the SQLite
 * file /etc/kel/kel.db). Any other `name` is KEL_E_INVALID_CTRLPROP. A NULL `value`
 * removes the setting.
 */
int kel_set_controller_togprop(const char *name, const char *value) KEL_NOEXCEPT;
int kel_get_controller_togprop(const char *name, char *buf, size_t size) KEL_NOEXCEPT;

/* Flag for removing ports: a system vport may be removed (the library's own use). */
#define KEL_SYSTEM_VPORT_OK 0x1

/*
 * Ports. `props` of kel_db_add_vport may give "ipaddr" (default: the lowest free pool
 * address), "macaddr" (default: a random 2:8:20:... address not in use), "uuid", "cos",
 * "protection", "maxbw", "priority", "vmid" and extended properties; `vportp` may be NULL.
 * Remove and reset take NULL or "force=yes", which overrides the in-use refusal.
 */
boolean_t kel_db_vport_exists(kel_dbhandle_t h, const char *tenant, const char *kel, const char *vport) KEL_NOEXCEPT;
int kel_db_add_vport(kel_dbhandle_t h, const char *tenant, const char *kel, const char *name, const char *props,
    kel_vport_t **vportp, uint32_t flags) KEL_NOEXCEPT;
int kel_db_remove_vport(kel_dbhandle_t h, const char *tenant, const char *kel, const char *name, const char *props,
    uint32_t flags) KEL_NOEXCEPT;
/* Frees a bound port whose VNIC is gone (checked on its host unless "force=yes"). */
int kel_db_reset_vport(kel_dbhandle_t h, const char *tenant, const char *kel, const char *name, const char *props,
    uint32_t flags) KEL_NOEXCEPT;
/* A port named "sys-vport" and the kel's next number; `name` gets it (128 bytes). */
int kel_db_add_system_vport(kel_dbhandle_t h, const char *tenant, const char *kel, char *name) KEL_NOEXCEPT;
int kel_db_remove_system_vport(kel_dbhandle_t h, const char *tenant, const char *kel, const char *name) KEL_NOEXCEPT;

/*
 * Binding ports to VNICs. kel_db_assign_vport binds `vport` (NULL: a new system port) of
 * `kel` to VNIC `vnic` on `host`, and returns the switch with that one port and, for the
 * host, its uplink port, VXLAN endpoint, multicast group and IP version. Binding the same
 * VNIC again returns the current binding. A port bound elsewhere is in use, unless `props`
 * and the port carry the same "vmid": then the port starts migrating to `host`.
 */
int kel_db_assign_vport(kel_dbhandle_t h, const char *tenant, const char *kel, const char *vport, const char *vnic,
    const char *host, const char *props, kel_t **kelp) KEL_NOEXCEPT;
/* Unbinds the port bound to `vnic` on `host` (or, failing that, found with `filter`). */
int kel_db_unassign_vport(kel_dbhandle_t h, const char *vnic, const char *host, const char *filter) KEL_NOEXCEPT;

/* A port's traffic counters. */
typedef struct kel_vport_counters {
	uint64_t evc_ipackets;
	uint64_t evc_rbytes;
	uint64_t evc_opackets;
	uint64_t evc_obytes;
} kel_vport_counters_t;

/*
 * kel_db_unassign_vport, with `last` (NULL: none) the counters the VNIC going away carried:
 * they are added, in the unbinding's own transaction, to the counters the port keeps of its
 * VNICs that are gone (hidden property "kel:counters_gone"). A migration's old host
 * letting go thus hands its counters over with the port.
 */
int kel_db_unassign_vport_counted(kel_dbhandle_t h, const char *vnic, const char *host, const char *filter,
    const kel_vport_counters_t *last) KEL_NOEXCEPT;
/*
 * A port's traffic in all: what its VNICs that are gone carried, plus what its VNIC reports
 * now when it is bound (asked of its host, without the store lock held). KEL_E_KEL_NOTFOUND,
 * KEL_E_VPORT_NOTFOUND, or the host's code (KEL_E_HOST_CONNECT, KEL_E_NUQ, KEL_E_WEXO) when
 * the VNIC cannot be read; `*total` is cleared on failure.
 */
int kel_db_get_vport_counters(kel_dbhandle_t h, const char *tenant, const char *kel, const char *vport,
    kel_vport_counters_t *total) KEL_NOEXCEPT;
/*
 * Joins the hosts of VXLAN kel `kel` when the fabric has no multicast group: each host
 * with a port of the kel bound (or migrating) there gets the VXLAN endpoints of the
 * others as its link's flood list. Nothing is done for other kels. KEL_E_HOST_CONNECT
 * when some host could not be reached or updated: the others were updated, only adding
 * to their lists, and a later call completes them.
 */
int kel_sync_vxlan_flood(kel_dbhandle_t h, const char *tenant, const char *kel) KEL_NOEXCEPT;

/* Free a record, or a whole list (its records and the list's use); NULL is accepted. */
void kel_free_kel(kel_t *kel) KEL_NOEXCEPT;
void kel_free_kellist(void *list) KEL_NOEXCEPT;
void kel_free_vport(kel_vport_t *vport) KEL_NOEXCEPT;
void kel_free_vportlist(void *list) KEL_NOEXCEPT;
void kel_free_ipnet(kel_ipnet_t *ipnet) KEL_NOEXCEPT;
void kel_free_ipnetlist(void *list) KEL_NOEXCEPT;
void kel_free_prop(kel_prop_t *prop) KEL_NOEXCEPT;
void kel_free_proplist(void *list) KEL_NOEXCEPT;

/*
 * Properties. kel_db_get_filtered_proplist lists, for each object of `type` that `filter`
 * selects (NULL: all), every visible property in catalogue order, or only those named
 * in `names` ("a,b"; hidden and extended names allowed). The caller frees the list
 * with kel_free_proplist.
 */
int kel_db_get_filtered_proplist(kel_dbhandle_t h, const char *filter, const char *names, list_t *list,
    kel_proptype_t type) KEL_NOEXCEPT;
/* The value of the first element named exactly `name` in a remote property array. */
struct kelcntl_PropertyNV;
char *kel_propattrset_lookup(struct kelcntl_PropertyNV **props, int count, const char *name) KEL_NOEXCEPT;
/*
 * Changing one writable property ("name=value"; an empty value clears it). A switch's
 * change reaches every bound port without its own value, live on the port's host
 * (KEL_E_PROP_PARTIAL when some host could not take it; the stored value stays). A bound
 * port's link property is set on its host first and stored after. A network's "pool"
 * must keep every address in use; an empty pool means the whole span.
 */
int kel_set_kelprop(kel_dbhandle_t h, const char *tenant, const char *kel, const char *prop,
    uint32_t flags) KEL_NOEXCEPT;
int kel_set_vportprop(kel_dbhandle_t h, const char *tenant, const char *kel, const char *vport, const char *prop,
    uint32_t flags) KEL_NOEXCEPT;
int kel_set_ipnetprop(kel_dbhandle_t h, const char *tenant, const char *kel, const char *ipnet, const char *prop,
    uint32_t flags) KEL_NOEXCEPT;

/* Filters. */
/* KEL_E_INVALID_FILTER unless every name is a property of `proptype` or a key that
 * suits objects of `type`; KEL_E_INVALID_ARGS for a malformed text. */
int kel_validate_filterstr(const char *filter, kel_type_t type, kel_proptype_t proptype) KEL_NOEXCEPT;
/* Turns "a,b,c" into "a|b|c" in place. */
void kel_filterstr2regex(char *text) KEL_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif /* LIBKEL_H */
