// Subnet texts: an address, '/' and a prefix length.
#pragma once

#include <kel/libkel.h>

// Fills the address fields of `ipnet` (family, canonical subnet text, prefix length,
// first and last usable address, network address) from `subnet`. IPv4 subnets span the
// network address + 1 to the broadcast address - 1 and are at most /30; IPv6 subnets
// span the network address + 1 to the last address and are at most /126. The address
// must be the network address. KEL_E_INVALID_IPNET on any fault.
int kel_parse_ipnet(const char *subnet, kel_ipnet_t *ipnet);

// Whether `addr` lies in the subnet of `ipnet` (network and broadcast addresses
// included). False for NULL, an address of the other family or a text that is not one.
boolean_t kel_ipnet_contains_ip(const kel_ipnet_t *ipnet, const char *addr);
