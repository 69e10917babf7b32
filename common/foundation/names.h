// Names, UUID texts and address texts: the library's internal checks.
#pragma once

#include <kel/libkel.h>

// Room for a name, the terminator included; names have at most 127 characters.
inline constexpr unsigned kKelNameLen = 128;
// The size KEL_UUID_TEXT_LEN under the name the UUID-to-name assertion is written with.
#define UUID_PRINTABLE_STRING_LENGTH KEL_UUID_TEXT_LEN

boolean_t kel_valid_uuidstr(const char *text);
boolean_t kel_valid_hrname(const char *text);
boolean_t kel_parse_name_common(const char *text, char *kelname, char *member);
// The UUID text without its hyphens; `size` must be at least 33.
void kel_uuidstr2name(const char *uuidtext, char *buf, uint_t size);

#include <net/if.h>
#include <uuid/uuid.h>

#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <string>

#include "kelnet.h"
#include "uuid_text.h"

// The address responder of a kel on a host answers from a link of its own over the kel's
// lower link, bound to a system port of the kel like a guest's VNIC, under this prefix.
inline constexpr char kDhcpEndpointPrefix[] = "kel-dhcp";
inline bool kel_is_dhcp_endpoint(const char *vnicname)
{
	return std::strncmp(vnicname, kDhcpEndpointPrefix, sizeof(kDhcpEndpointPrefix) - 1) == 0;
}

// The name of the VXLAN link of `vni` ("kel-vxlan5000"), into 32 bytes; the controller
// names a host's link by it too.
inline void kel_vxlan_linkname(int vni, char *buf, size_t size)
{
	// A Linux link name has at most 15 characters: VNIs above 999999 get the short
	// prefix, which keeps the "kel-" that marks links made for VNICs.
	const int n = std::snprintf(buf, size, "kel-vxlan%d", vni);
	if (n >= IFNAMSIZ)
		std::snprintf(buf, size, "kel-vx%d", vni);
}

// A VNIC's name, with its network namespace when it has one ("ns/vnic0").
inline boolean_t kel_valid_zonevnicname(const char *text)
{
	return dlparse_zonelinkname(text, nullptr, 0, nullptr, 0) ? B_TRUE : B_FALSE;
}

namespace kel {

// Whether every name a caller gave is a valid name or UUID text; NULL stands for a name
// not given. Checked before any of them goes into a filter.
inline bool names_valid(std::initializer_list<const char *> names)
{
	for (const char *name : names)
		if (name != nullptr && !kel_valid_name(name))
			return false;
	return true;
}

// Whether `name` may name a new kel, vport or ipnet: a valid name, and without a "-"
// unless `flags` hold KEL_NAME_DASH_OK ("-" is how the library marks the names it makes).
inline bool valid_new_name(const char *name, uint32_t flags)
{
	return kel_valid_name(name) && ((flags & KEL_NAME_DASH_OK) || std::strchr(name, '-') == nullptr);
}

}  // namespace kel

// An object's UUID text at creation: the "uuid" property given (and removed from
// `props`), or a new time-based UUID.
void kel_take_uuid(attrset_t *props, char (&text)[KEL_UUID_TEXT_LEN]);
