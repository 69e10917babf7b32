// Switch creation and deletion.
#pragma once

#include <cstring>

#include <kel/libkel.h>

// The type an "l2-type" text names; KEL_L2NTYPE_UNKNOWN for NULL or any other text.
inline void kel_str2ntype(const char *str, kel_l2ntype_t *type)
{
	*type = KEL_L2NTYPE_UNKNOWN;
	if (str == nullptr)
		return;
	if (std::strcmp(str, "vlan") == 0)
		*type = KEL_L2NTYPE_VLAN;
	else if (std::strcmp(str, "vxlan") == 0)
		*type = KEL_L2NTYPE_VXLAN;
	else if (std::strcmp(str, "flat") == 0)
		*type = KEL_L2NTYPE_FLAT;
}
// The controller's "l2-type" text into buf and its type; KEL_E_INVALID_L2TYPE when it
// names none of the three.
int kel_get_l2type_info(kel_dbhandle_t h, kel_l2ntype_t *type, char *buf, int buflen);

// Whether `tenant` has an ipnet `name` (a name or a UUID text), on any of its switches.
boolean_t kel_db_ipnet_exists(kel_dbhandle_t h, const char *tenant, const char *name);
