// Host networking routines: link-layer address text, host names, datalink names, the
// unspecified-address test and tunnel endpoints. Plain functions of their arguments; no
// state.
#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>

extern "C" {

// Parses colon-separated hexadecimal octets ("2:8:20:a:1b:ff", one or two digits each,
// 1 to 20 octets) into a newly allocated byte array that the caller frees. On failure
// returns NULL with *lenp = -1 for a malformed text, 0 when memory ran out.
unsigned char *_link_aton(const char *text, int *lenp);

// Prints `len` octets as lower-case hexadecimal without leading zeros, joined by ':',
// into `buf` (3 * len bytes, at least 1), or into a newly allocated buffer when `buf` is
// NULL. `type` names the link type; every type prints alike. NULL when memory ran out.
char *_link_ntoa(const unsigned char *addr, char *buf, int len, int type);

// A host name as RFC 1123 writes it: dot-separated labels of 1-63 letters, digits and
// '-', neither starting nor ending with '-', 253 characters at most, one trailing dot
// allowed.
bool valid_hostname(const char *name);

// A driver-style datalink name: a letter, then letters, digits, '_' or '.', ending in a
// decimal instance number without leading zeros ("net0", "eth1", "ens3"), 15 characters
// at most. The driver part goes to `driver` (`driverlen` bytes) and the instance to
// *ppa, each when given.
bool dlparse_drvppa(const char *name, char *driver, size_t driverlen, uint32_t *ppa);

// A link name as Linux takes it, optionally preceded by a network namespace name and '/'
// ("vnic0", "tenant1/vnic0"). Link names have 1-15 characters, namespace names 1-255,
// both of letters, digits, '_', '-' and '.', and neither is "." or "..". The parts go
// to `link` and `ns` (the namespace empty when none was given), each when given.
bool dlparse_zonelinkname(const char *name, char *link, size_t linklen, char *ns, size_t nslen) noexcept;

// Whether `sa` holds the unspecified address of its family (0.0.0.0 or ::). False for
// any other address and for families other than IPv4 and IPv6.
bool sockaddrunspec(const struct sockaddr *sa);

// Whether `text` is a whole IPv4 or IPv6 address that a tunnel may send frames to: not
// unspecified, loopback, multicast or broadcast (nor in 0/8, nor IPv4 written as IPv6).
// Its family (AF_INET or AF_INET6) goes to *family when given.
bool unicast_endpoint(const char *text, int *family);
}
