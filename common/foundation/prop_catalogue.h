// The property catalogue: which property names exist, on which objects, how their values
// are checked, and what each reports as permission, default and possible values.
#pragma once

#include <cstddef>
#include <cstdint>

#include <kel/libkel.h>

// Property flags (a bit set).
typedef uint32_t kel_propflags_t;
inline constexpr kel_propflags_t EPD_DLPROP = 1;     // applied as a link property to a VNIC
inline constexpr kel_propflags_t EPD_INVISIBLE = 2;  // not shown in listings

typedef enum { KEL_PROPINFO_PERM = 0, KEL_PROPINFO_DEFAULT = 1, KEL_PROPINFO_POSSIBLE = 2 } kel_pinfo_type_t;

// Every object kind at once, for lookups that do not care which.
inline constexpr kel_proptype_t KEL_PROPTYPE_ALL = static_cast<kel_proptype_t>(
    KEL_PROPTYPE_KEL | KEL_PROPTYPE_VPORT | KEL_PROPTYPE_IPNET);

typedef int kel_pcheckfn_t(const char *value, uint32_t flags);
typedef int kel_pinfofn_t(char *buf, size_t size, kel_pinfo_type_t kind);

struct kel_prop_desc_t {
	const char *ep_pname;
	kel_propflags_t ep_flags;
	kel_proptype_t ep_ptype;
	kel_pcheckfn_t *ep_pcheckfn;  // NULL: any value
	kel_pinfofn_t *ep_pinfofn;
};

// The catalogue, ended by a row whose name is NULL.
extern const kel_prop_desc_t kel_prop_table[];
// The template for extended properties (names holding ':'); its name is NULL.
extern const kel_prop_desc_t kel_extended_prop;

// The row for `name` (ignoring case) that allows one of `types`, or for a name holding
// ':' the extended descriptor carrying `name`. Returned by value, so that lookups of
// different extended names (from any threads) never see each other's names; the
// descriptor's name points into `name`. ep_pname is NULL when there is no such property.
kel_prop_desc_t kel_get_prop_entry(const char *name, kel_proptype_t types);

// Checks every entry of `props` (set order) for objects of `type`: KEL_SUCCESS,
// KEL_E_INVALID_PROP for an unknown name, or the first failing value check's code.
int kel_check_prop(attrset_t *props, kel_proptype_t type);
// Whether every name in `names` is a property of one of `types` (or extended).
boolean_t kel_check_propname(attrset_t *names, kel_proptype_t types);

// The permission ("rw" or "r-"), default or possible values of a property, into `buf`:
// KEL_E_INVALID_PROP for an unknown name, KEL_E_NOSPACE (buf untouched) when too small.
int kel_get_prop_info(const char *name, char *buf, size_t size, kel_pinfo_type_t kind);
int kel_get_prop_perm(const char *name, char *buf, size_t size);
int kel_get_prop_default(const char *name, char *buf, size_t size);

// Value checks: KEL_SUCCESS or the property's own error code.
int kel_check_protection(const char *value, uint32_t flags);
int kel_check_cos(const char *value, uint32_t flags);
int kel_check_maxbw(const char *value, uint32_t flags);
int kel_check_priority(const char *value, uint32_t flags);
int kel_check_ipaddr(const char *value, uint32_t flags);
int kel_check_subnet(const char *value, uint32_t flags);
int kel_check_macaddr(const char *value, uint32_t flags);
int kel_check_l2type(const char *value, uint32_t flags);
int kel_check_vlanid(const char *value, uint32_t flags);
int kel_check_vni(const char *value, uint32_t flags);
int kel_check_name(const char *value, uint32_t flags);
int kel_check_uuid(const char *value, uint32_t flags);
int kel_check_extended_prop(const char *value, uint32_t flags);
