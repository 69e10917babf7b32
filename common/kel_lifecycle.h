// Switch creation and deletion.
#pragma once

#include "libkel.h"


void kel_str2ntype(const char *str, kel_l2ntype_t *type);
// The controller's "l2-type" text into buf and its type; KEL_E_INVALID_L2TYPE when it
// names none of the three.
int kel_get_l2type_info(kel_dbhandle_t h, kel_l2ntype_t *type, char *buf, int buflen);

// Whether `tenant` has an ipnet `name` (a name or a UUID text), on any of its switches.
boolean_t kel_db_ipnet_exists(kel_dbhandle_t h, const char *tenant, const char *name);
