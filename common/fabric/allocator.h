// The fabric's scarce values: VLAN IDs, VNIs, ipnet addresses, system vport numbers
// and MAC addresses. Every operation runs under the caller's store lock.
#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>

#include <kel/libkel.h>

int kel_db_get_next_vlanid(kel_dbhandle_t h, int *vlanid);
int kel_db_get_this_vlanid(kel_dbhandle_t h, int vlanid);
int kel_db_free_vlanid(kel_dbhandle_t h, int vlanid);
int kel_db_get_next_vni(kel_dbhandle_t h, int *vni);
int kel_db_get_this_vni(kel_dbhandle_t h, int vni);
int kel_db_free_vni(kel_dbhandle_t h, int vni);

// Automatic addresses come from the pool; a given address may lie anywhere in the
// subnet and is drawn from the pool too when it lies in it.
int kel_db_get_next_ipaddr(kel_dbhandle_t h, const kel_ipnet_t *ipnet, char *addr);
int kel_db_get_this_ipaddr(kel_dbhandle_t h, const kel_ipnet_t *ipnet, const char *addr);
int kel_db_free_ipaddr(kel_dbhandle_t h, const uuid_t ipnet_uuid, sa_family_t af, const char *addr);
int kel_ipnpool_contains_addr(kel_dbhandle_t h, const char *filter, const char *addr, sa_family_t af,
    boolean_t *inpool);
boolean_t kel_is_defrouter(const char *addr, const kel_ipnet_t *ipnet);

int kel_db_get_next_sysvportname(kel_dbhandle_t h, const char *tenant, const char *kel, char *name, size_t namelen);
int kel_db_free_sysvportname(kel_dbhandle_t h, const char *tenant, const char *kel, const char *name);

// The first three bytes of every generated MAC address: 02:08:20.
extern const uint8_t vport_def_prefix[3];
// Fills mac with the prefix and len - 3 random bytes; 0, or -1 when the random source
// fails.
int kel_macaddr_random(uint8_t *mac, size_t len);
boolean_t kel_db_macaddr_exists(kel_dbhandle_t h, const char *mac);
// Whether a port's macaddr is the 6-octet address `mac`, however it is spelled (with or
// without leading zeros, in either case).
boolean_t kel_db_macaddr_value_taken(kel_dbhandle_t h, const uint8_t *mac);
// A port's MAC address: 6 octets, unicast and not all zero. KEL_SUCCESS with the octets
// in `mac` and the canonical spelling (lower case, no leading zeros) in `text`, else
// KEL_E_INVALID_MACADDR.
int kel_parse_port_mac(const char *given, uint8_t mac[6], char (&text)[18]);

int kel_check_ipnet_overlap(kel_dbhandle_t h, const kel_ipnet_t *ipnet);
int kel_valid_poolrange(const char *pool, const char *defrouter, const kel_ipnet_t *ipnet);

// The range type of an ipnet's addresses.
int kel_ipnet_rangetype(sa_family_t af);
