// Property listing: the table of name, permission, value, default and possible values
// that administrators see for switches, ports and networks.
#pragma once

#include "kelcntl.h"
#include "libkel.h"
#include "prop_catalogue.h"

// One object's records: all visible catalogue properties of `type`, or those in `names`.
int kel_get_props(void *object, list_t *list, attrset_t *names, kel_proptype_t type);
int kel_get_filtered_props(void *object, list_t *list, attrset_t *names, kel_proptype_t type);
int kel_get_all_props(void *object, list_t *list, kel_proptype_t type);
// Appends the record of `desc` for `object`: KEL_SUCCESS or KEL_E_NOMEM.
int kel_build_proplist(void *object, list_t *list, const kel_prop_desc_t *desc, kel_proptype_t type);

// The link properties a port's VNIC gets: for each link property, the port's value, else
// its switch's ("protection=none" left out), as "name=value,...". KEL_E_NOSPACE, with
// `buf` empty, when the text would not fit `size`.
// Exported for libkel_node.so.
extern "C" int kel_inherit_dlprops(kelcntl_KELInfo *kel, kelcntl_VPortInfo *vport, char *buf, size_t size) noexcept;
