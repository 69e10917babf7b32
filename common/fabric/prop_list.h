// Property listing: the table of name, permission, value, default and possible values
// that administrators see for switches, ports and networks.
#pragma once

#include <kel/libkel.h>
#include <kel/sys/fabric.h>
#include "prop_catalogue.h"

// One object's records: all visible catalogue properties of `type`, or those in `names`.
int kel_get_props(void *object, list_t *list, attrset_t *names, kel_proptype_t type);
int kel_get_filtered_props(void *object, list_t *list, attrset_t *names, kel_proptype_t type);
int kel_get_all_props(void *object, list_t *list, kel_proptype_t type);
// Appends the record of `desc` for `object`: KEL_SUCCESS or KEL_E_NOMEM.
int kel_build_proplist(void *object, list_t *list, const kel_prop_desc_t *desc, kel_proptype_t type);
