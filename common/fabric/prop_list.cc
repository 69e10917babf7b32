#include "prop_list.h"

#include <uuid/uuid.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "attrset_ptr.h"
#include "c_boundary.h"
#include "kel_assert.h"
#include "records.h"
#include "text.h"

namespace {

// What a listing needs of an object, whichever kind it is.
struct ObjectFacts {
	const char *kel = nullptr;  // the owning switch's name (ports and networks)
	const char *tenant;
	const unsigned char *uuid;
	attrset_t *props;
};

ObjectFacts facts(void *object, kel_proptype_t type)
{
	switch (type) {
	case KEL_PROPTYPE_KEL: {
		auto *k = static_cast<kel_t *>(object);
		return {nullptr, k->kel_tenantname, k->kel_uuid, k->kel_props};
	}
	case KEL_PROPTYPE_VPORT: {
		auto *v = static_cast<kel_vport_t *>(object);
		return {v->evp_kelname, v->evp_tenantname, v->evp_uuid, v->evp_props};
	}
	case KEL_PROPTYPE_IPNET: {
		auto *n = static_cast<kel_ipnet_t *>(object);
		return {n->ei_kelname, n->ei_tenantname, n->ei_uuid, n->ei_props};
	}
	default: KEL_ASSERT(kel::kAreaProp, !"a listing of one object type"); return {};
	}
}

// The object's value of `name` (the catalogue's spelling, matched exactly), or NULL.
const char *current(const ObjectFacts &obj, const char *name, char (&uuid)[KEL_UUID_TEXT_LEN])
{
	if (obj.kel != nullptr && std::strcmp(name, "kel") == 0)
		return obj.kel;
	if (std::strcmp(name, "tenant") == 0)
		return obj.tenant;
	if (std::strcmp(name, "uuid") == 0) {
		uuid_unparse_lower(obj.uuid, uuid);
		return uuid;
	}
	char *value = nullptr;
	return attrset_lookup_string(obj.props, name, &value) == 0 ? value : nullptr;
}

int read_objects(kel_dbhandle_t h, const char *filter, list_t *objects, kel_proptype_t type)
{
	switch (type) {
	case KEL_PROPTYPE_KEL:
		// A switch's properties are its own: its ports are not read.
		return kel_db_get_filtered_kellist(h, filter, objects, KEL_LIST_NO_MEMBERS);
	case KEL_PROPTYPE_VPORT: return kel_db_get_filtered_vportlist(h, filter, objects, 0);
	case KEL_PROPTYPE_IPNET: return kel_db_get_filtered_ipnetlist(h, filter, objects, 0);
	default: KEL_ASSERT(kel::kAreaProp, !"a listing of one object type"); return KEL_E_INVALID_ARGS;
	}
}

void free_objects(list_t *objects, kel_proptype_t type)
{
	if (type == KEL_PROPTYPE_KEL)
		kel_free_kellist(objects);
	else if (type == KEL_PROPTYPE_VPORT)
		kel_free_vportlist(objects);
	else
		kel_free_ipnetlist(objects);
}

int list_props(kel_dbhandle_t h, const char *filter, const char *names_text, list_t *list, kel_proptype_t type)
{
	attrset_t *names_raw = nullptr;
	if (names_text != nullptr && *names_text != '\0') {
		if (int rc = kel_str2attrset(names_text, &names_raw, B_FALSE, ATTRSET_UNIQUE_NAME); rc != KEL_SUCCESS)
			return rc;
	}
	kel::AttrSetPtr names(names_raw);
	if (names && !kel_check_propname(names.get(), type))
		return KEL_E_INVALID_PROP;
	kel_create_proplist(list);
	list_t objects;
	int rc = read_objects(h, filter != nullptr ? filter : "", &objects, type);
	if (rc == KEL_SUCCESS) {
		for (void *o = list_head(&objects); o != nullptr && rc == KEL_SUCCESS; o = list_next(&objects, o))
			rc = kel_get_props(o, list, names.get(), type);
		free_objects(&objects, type);
	}
	if (rc != KEL_SUCCESS)
		kel_free_proplist(list);
	return rc;
}

}  // namespace

int kel_build_proplist(void *object, list_t *list, const kel_prop_desc_t *desc, kel_proptype_t type)
{
	const ObjectFacts obj = facts(object, type);
	auto *rec = static_cast<kel_prop_t *>(std::calloc(1, sizeof(kel_prop_t)));
	if (rec == nullptr)
		return KEL_E_NOMEM;
	kel::copy_text(rec->ep_propname, desc->ep_pname, sizeof(rec->ep_propname));
	char uuid[KEL_UUID_TEXT_LEN];
	if (const char *value = current(obj, desc->ep_pname, uuid); value != nullptr) {
		if ((rec->ep_current = strdup(value)) == nullptr) {
			kel_free_prop(rec);
			return KEL_E_NOMEM;
		}
	}
	desc->ep_pinfofn(rec->ep_perm, sizeof(rec->ep_perm), KEL_PROPINFO_PERM);
	desc->ep_pinfofn(rec->ep_default, sizeof(rec->ep_default), KEL_PROPINFO_DEFAULT);
	desc->ep_pinfofn(rec->ep_possible, sizeof(rec->ep_possible), KEL_PROPINFO_POSSIBLE);
	list_insert_tail(list, rec);
	return KEL_SUCCESS;
}

int kel_get_all_props(void *object, list_t *list, kel_proptype_t type)
{
	int rc = KEL_SUCCESS;
	for (const kel_prop_desc_t *row = kel_prop_table; row->ep_pname != nullptr && rc == KEL_SUCCESS; row++)
		if ((row->ep_ptype & type) != 0 && (row->ep_flags & EPD_INVISIBLE) == 0)
			rc = kel_build_proplist(object, list, row, type);
	return rc;
}

int kel_get_filtered_props(void *object, list_t *list, attrset_t *names, kel_proptype_t type)
{
	int rc = KEL_SUCCESS;
	for (attrset_entry_t *e = attrset_next_entry(names, nullptr); e != nullptr && rc == KEL_SUCCESS;
	     e = attrset_next_entry(names, e)) {
		const kel_prop_desc_t desc = kel_get_prop_entry(attrset_entry_name(e), type);
		const kel_prop_desc_t *epdp = desc.ep_pname != nullptr ? &desc : nullptr;
		KEL_ASSERT(kel::kAreaProp, epdp != NULL);
		rc = kel_build_proplist(object, list, epdp, type);
	}
	return rc;
}

int kel_get_props(void *object, list_t *list, attrset_t *names, kel_proptype_t type)
{
	return names != nullptr ? kel_get_filtered_props(object, list, names, type)
	                        : kel_get_all_props(object, list, type);
}

namespace {

int inherit_dlprops(kelcntl_KELInfo *kel, kelcntl_VPortInfo *vport, char *buf, size_t size)
{
	std::string text;
	for (const kel_prop_desc_t *row = kel_prop_table; row->ep_pname != nullptr; row++) {
		if ((row->ep_flags & EPD_DLPROP) == 0)
			continue;
		const char *value = kel_propattrset_lookup(vport->evpi_props, vport->evpi_props_count, row->ep_pname);
		if (value == nullptr)
			value = kel_propattrset_lookup(kel->ekeli_props, kel->ekeli_props_count, row->ep_pname);
		if (value == nullptr ||
		    (std::strcmp(row->ep_pname, "protection") == 0 && std::strcmp(value, "none") == 0))
			continue;
		text += (text.empty() ? "" : ",") + std::string(row->ep_pname) + "=" + value;
	}
	if (size > 0)
		*buf = '\0';
	// A protection value padded with empty pieces could outgrow the buffer: say so
	// rather than hand the VNIC a property text cut in the middle.
	if (text.size() >= size)
		return KEL_E_NOSPACE;
	std::memcpy(buf, text.c_str(), text.size() + 1);
	return KEL_SUCCESS;
}

}  // namespace

int kel_inherit_dlprops(kelcntl_KELInfo *kel, kelcntl_VPortInfo *vport, char *buf, size_t size) noexcept
{
	return kel::c_boundary([&] { return inherit_dlprops(kel, vport, buf, size); });
}

extern "C" {

int kel_db_get_filtered_proplist(kel_dbhandle_t h, const char *filter, const char *names, list_t *list,
    kel_proptype_t type) noexcept
{
	if (h == nullptr || list == nullptr)
		return KEL_E_INVALID_ARGS;
	return kel::c_boundary([&] { return list_props(h, filter, names, list, type); });
}

char *kel_propattrset_lookup(struct kelcntl_PropertyNV **props, int count, const char *name) noexcept
{
	for (int i = 0; name != nullptr && i < count; i++)
		if (props[i] != nullptr && props[i]->epnv_name != nullptr &&
		    std::strcmp(props[i]->epnv_name, name) == 0)
			return props[i]->epnv_value;
	return nullptr;
}

}  // extern "C"
