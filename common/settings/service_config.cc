#include "service_config.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "audit.h"
#include "c_boundary.h"
#include "error_code.h"
#include "kel_assert.h"
#include "nuq_uri.h"
#include "owners.h"
#include "text.h"

namespace {

constexpr size_t kSettingLen = 1024;
constexpr size_t kGroupNameLen = 257;

int vur_failure()
{
	return kel::compose_error(vur_error(), KEL_E_VUR);
}

// A read's failure: "not found" is the library's own code.
int read_failure()
{
	return vur_error() == VUR_ERROR_NOT_FOUND ? KEL_E_NOTFOUND : vur_failure();
}

void check_type(vur_type_t type)
{
	KEL_ASSERT(kel::kAreaTog, type == VUR_TYPE_ASTRING || type == VUR_TYPE_NET_ADDR);
}

using kel::Owned;
using Value = Owned<vur_value_t, vur_value_destroy>;
// An open instance, closed on scope exit.
using OpenInstance = Owned<kel_vur_state_t, kel_vur_close>;
// A read's or a write's per-call objects in an open instance's state, dropped on scope
// exit; the instance stays open.
using Composed = Owned<kel_vur_state_t, kel_drop_composed>;

// Commits one transaction on the group st->ess_pg, whose entries `fill` adds (false
// when it cannot). A commit answering 0 means the group changed since the transaction
// started: take the new state and try again, for as long as that happens. *fill_error
// is the facility's error when `fill` failed, else 0.
template <class Fill>
int commit_until_current(kel_vur_state_t *st, Fill &&fill, int *fill_error)
{
	for (;;) {
		int result = -1;
		*fill_error = 0;
		if (vur_transaction_start(st->ess_trans, st->ess_pg) == 0) {
			if (fill())
				result = vur_transaction_commit(st->ess_trans);
			else
				*fill_error = vur_error();
		}
		const int err = vur_error();
		vur_transaction_reset(st->ess_trans);
		if (result == 1)
			return KEL_SUCCESS;
		if (result == 0 && vur_pg_update(st->ess_pg) == 0)
			continue;
		return kel::compose_error(result == 0 ? vur_error() : err, KEL_E_VUR);
	}
}

int set_existing_or_new(kel_vur_state_t *st, const char *pgname, const char *pname, vur_type_t type, const char *value)
{
	bool created = false;
	if (vur_instance_add_pg(st->ess_inst, pgname, "application", 0, st->ess_pg) == 0)
		created = true;
	else if (vur_instance_get_pg(st->ess_inst, pgname, st->ess_pg) != 0)
		return vur_failure();
	Value val(vur_value_create(st->ess_handle));
	int rc = KEL_SUCCESS;
	const int filled = val.get() == nullptr ? -1
	    : type == VUR_TYPE_ASTRING          ? vur_value_set_astring(val.get(), value)
	                                        : vur_value_set_from_string(val.get(), type, value);
	if (filled != 0) {
		rc = vur_failure();
	} else {
		int ignored;
		rc = commit_until_current(
		    st,
		    [&] {
			    return (vur_transaction_property_new(st->ess_trans, st->ess_tent, pname, type) == 0 ||
			               vur_transaction_property_change(st->ess_trans, st->ess_tent, pname, type) ==
			                   0) &&
			        vur_entry_add_value(st->ess_tent, val.get()) == 0;
		    },
		    &ignored);
	}
	// A failed first write leaves no empty group behind.
	if (rc != KEL_SUCCESS && created)
		(void)vur_pg_delete(st->ess_pg);
	return rc;
}

int delete_property(kel_vur_state_t *st, const char *pgname, const char *pname)
{
	if (vur_instance_get_pg(st->ess_inst, pgname, st->ess_pg) != 0)
		return vur_error() == VUR_ERROR_NOT_FOUND ? KEL_SUCCESS : vur_failure();
	int fill_error = 0;
	const int rc = commit_until_current(
	    st, [&] { return vur_transaction_property_delete(st->ess_trans, st->ess_tent, pname) == 0; }, &fill_error);
	// A property that is not there is deleted already.
	return fill_error == VUR_ERROR_NOT_FOUND ? KEL_SUCCESS : rc;
}

// Appends setting `name` (its table row `row`) with `value` to `list`; false when memory
// runs out.
bool append_togprop(kel::RecordList<kel_togprop_t> *list, const kel_tog_pdesc_t *row, const char *name,
    const char *value)
{
	kel_togprop_t *rec = list->append();
	if (rec == nullptr)
		return false;
	kel::copy_text(rec->esp_propname, name, sizeof(rec->esp_propname));
	kel::copy_text(rec->esp_propval, value, sizeof(rec->esp_propval));
	kel::copy_text(rec->esp_defvalue, row->espd_defvalue, sizeof(rec->esp_defvalue));
	kel::copy_text(rec->esp_perm, row->espd_perm, sizeof(rec->esp_perm));
	return true;
}

// The walk of one instance's "application" groups, appending the client settings asked
// for to `list`.
int walk(kel_vur_state_t *st, attrset_t *names, kel::RecordList<kel_togprop_t> *list)
{
	vur_handle_t *h = st->ess_handle;
	Owned<vur_propertygroup_t, vur_pg_destroy> pg(vur_pg_create(h));
	Owned<vur_iter_t, vur_iter_destroy> pgs(vur_iter_create(h));
	Owned<vur_property_t, vur_property_destroy> prop(vur_property_create(h));
	Owned<vur_iter_t, vur_iter_destroy> props(vur_iter_create(h));
	Value val(vur_value_create(h));
	if (!pg.get() || !pgs.get() || !prop.get() || !props.get() || !val.get() ||
	    vur_iter_instance_pgs_typed_composed(pgs.get(), st->ess_inst, nullptr, "application") != 0)
		return vur_failure();
	int more;
	while ((more = vur_iter_next_pg(pgs.get(), pg.get())) == 1) {
		char group[kGroupNameLen];
		if (vur_pg_get_name(pg.get(), group, sizeof(group)) < 0 ||
		    vur_iter_pg_properties(props.get(), pg.get()) != 0)
			return vur_failure();
		int pmore;
		while ((pmore = vur_iter_next_property(props.get(), prop.get())) == 1) {
			char name[kSettingLen], value[kSettingLen];
			if (vur_property_get_name(prop.get(), name, sizeof(name)) < 0)
				return vur_failure();
			const kel_tog_pdesc_t *row = kel_get_tog_pdesc_entry(kel_tog_client_table, name);
			if (row == nullptr || (names != nullptr && !attrset_exists(names, name)))
				continue;
			if (vur_property_get_value(prop.get(), val.get()) != 0 ||
			    vur_value_get_as_string(val.get(), value, sizeof(value)) < 0)
				return vur_failure();
			if (!append_togprop(list, row, name, value))
				return KEL_E_NOMEM;
		}
		if (pmore != 0)
			return vur_failure();
		vur_iter_reset(props.get());
	}
	return more == 0 ? KEL_SUCCESS : vur_failure();
}

}  // namespace

const kel_tog_pdesc_t kel_tog_client_table[] = {
    {"controller", "config", "", VUR_TYPE_ASTRING, kel_set_controller, "rw"},
    {nullptr, nullptr, nullptr, VUR_TYPE_ASTRING, nullptr, nullptr},
};

int kel_vur_open(const char *instance, kel_vur_state_t *state)
{
	std::memset(state, 0, sizeof(*state));
	// Closed again unless it opens whole: after a failure, and when memory runs out
	// part-way (the exception goes on to the caller's boundary).
	OpenInstance opening(state);
	if ((state->ess_handle = vur_handle_create(1)) == nullptr || vur_handle_bind(state->ess_handle) != 0 ||
	    (state->ess_inst = vur_instance_create(state->ess_handle)) == nullptr ||
	    vur_handle_decode_fmri(state->ess_handle, instance, nullptr, nullptr, state->ess_inst, nullptr, nullptr,
	        0) != 0)
		return vur_failure();
	(void)opening.release();
	return KEL_SUCCESS;
}

void kel_vur_close(kel_vur_state_t *state)
{
	if (state == nullptr)
		return;
	vur_instance_destroy(state->ess_inst);
	state->ess_inst = nullptr;
	if (state->ess_handle != nullptr) {
		(void)vur_handle_unbind(state->ess_handle);
		vur_handle_destroy(state->ess_handle);
		state->ess_handle = nullptr;
	}
}

int kel_get_composed_properties(const char *pgname, kel_vur_state_t *state)
{
	state->ess_pg = nullptr;
	state->ess_prop = nullptr;
	if ((state->ess_pg = vur_pg_create(state->ess_handle)) == nullptr ||
	    (state->ess_prop = vur_property_create(state->ess_handle)) == nullptr) {
		const int rc = vur_failure();
		kel_drop_composed(state);
		return rc;
	}
	if (vur_instance_get_pg_composed(state->ess_inst, nullptr, pgname, state->ess_pg) != 0) {
		const int rc = read_failure();
		kel_drop_composed(state);
		return rc;
	}
	return KEL_SUCCESS;
}

void kel_drop_composed(kel_vur_state_t *state)
{
	vur_transaction_destroy(state->ess_trans);
	vur_entry_destroy(state->ess_tent);
	vur_property_destroy(state->ess_prop);
	vur_pg_destroy(state->ess_pg);
	state->ess_trans = nullptr;
	state->ess_tent = nullptr;
	state->ess_prop = nullptr;
	state->ess_pg = nullptr;
}

int kel_tog_get_value(kel_vur_state_t *state, const char *pgname, const char *pname, vur_type_t type, void *buf,
    size_t size)
{
	check_type(type);
	int rc = kel_get_composed_properties(pgname, state);
	if (rc != KEL_SUCCESS)
		return rc;
	const Composed composed(state);
	Value val(vur_value_create(state->ess_handle));
	char *text = static_cast<char *>(buf);
	if (val.get() == nullptr || vur_pg_get_property(state->ess_pg, pname, state->ess_prop) != 0 ||
	    vur_property_get_value(state->ess_prop, val.get()) != 0)
		return read_failure();
	const ssize_t n = type == VUR_TYPE_ASTRING
	    ? vur_value_get_astring(val.get(), text, size)
	    : vur_value_get_as_string_typed(val.get(), VUR_TYPE_NET_ADDR, text, size);
	return n < 0 ? read_failure() : KEL_SUCCESS;
}

int kel_tog_get_one_value(const char *instance, const char *pgname, const char *pname, vur_type_t type, void *buf,
    size_t size)
{
	kel_vur_state_t state;
	const int rc = kel_vur_open(instance, &state);
	if (rc != KEL_SUCCESS)
		return rc;
	const OpenInstance open(&state);
	return kel_tog_get_value(&state, pgname, pname, type, buf, size);
}

int kel_tog_set_value(kel_vur_state_t *state, const char *pgname, const char *pname, vur_type_t type, void *value)
{
	check_type(type);
	const Composed composed(state);
	if ((state->ess_trans = vur_transaction_create(state->ess_handle)) == nullptr ||
	    (state->ess_tent = vur_entry_create(state->ess_handle)) == nullptr ||
	    (state->ess_pg = vur_pg_create(state->ess_handle)) == nullptr)
		return vur_failure();
	if (value == nullptr)
		return delete_property(state, pgname, pname);
	return set_existing_or_new(state, pgname, pname, type, static_cast<const char *>(value));
}

int kel_tog_set_one_value(const char *instance, const char *pgname, const char *pname, vur_type_t type, void *value)
{
	kel_vur_state_t state;
	const int rc = kel_vur_open(instance, &state);
	if (rc != KEL_SUCCESS)
		return rc;
	const OpenInstance open(&state);
	return kel_tog_set_value(&state, pgname, pname, type, value);
}

const kel_tog_pdesc_t *kel_get_tog_pdesc_entry(const kel_tog_pdesc_t *table, const char *name)
{
	for (const kel_tog_pdesc_t *row = table; name && row->espd_pname; row++)
		if (std::strcmp(row->espd_pname, name) == 0)
			return row;
	return nullptr;
}

std::vector<std::string> kel::controller_list(const std::string &setting)
{
	std::vector<std::string> out;
	for (size_t at = 0; at <= setting.size();) {
		const size_t end = std::min(setting.find(',', at), setting.size());
		const std::string item = setting.substr(at, end - at);
		if (const size_t first = item.find_first_not_of(" \t"); first != std::string::npos)
			out.push_back(item.substr(first, item.find_last_not_of(" \t") - first + 1));
		at = end + 1;
	}
	return out;
}

int kel_set_controller(kel_dbhandle_t, void *descriptor, const char *pgname, void *value)
{
	const auto *row = static_cast<const kel_tog_pdesc_t *>(descriptor);
	const char *text = static_cast<const char *>(value);
	const std::vector<std::string> uris = kel::controller_list(text);
	// Several controllers sharing one database may be named, the one to try first first.
	for (const std::string &each : uris) {
		nuq_uri_t *uri = nuq_alloc_uri(each.c_str(), NUQS_UNIX | NUQS_SSH);
		if (uri == nullptr)
			return KEL_E_INVALID_URI;
		// The local-socket scheme must be spelled as the node service reads it.
		const bool bad = nuq_uri_get_scheme(uri) == NUQS_UNIX && each.compare(0, 7, "unix://") != 0;
		nuq_free_uri(uri);
		if (bad)
			return KEL_E_INVALID_URI;
	}
	// A list with an empty member ("a,,b", "a,") is a typing slip, not two controllers.
	if (!uris.empty() && uris.size() != static_cast<size_t>(std::count(text, text + std::strlen(text), ',')) + 1)
		return KEL_E_INVALID_URI;
	if (uris.empty())
		text = row->espd_defvalue;
	return kel_tog_set_one_value(KEL_NODE_FMRI, pgname, "controller", VUR_TYPE_ASTRING, const_cast<char *>(text));
}

int kel_walk_togprop(const char *instance, attrset_t *names, kel::RecordList<kel_togprop_t> *list)
{
	KEL_ASSERT(kel::kAreaTog, std::strcmp(instance, KEL_NODE_FMRI) == 0);
	kel_vur_state_t state;
	const int rc = kel_vur_open(instance, &state);
	if (rc != KEL_SUCCESS)
		return rc;
	const OpenInstance open(&state);
	return walk(&state, names, list);
}

extern "C" {

int kel_set_client_togprop(const char *propstr) noexcept
{
	if (propstr == nullptr || std::strlen(propstr) >= kSettingLen)
		return KEL_E_INVALID_PROP;
	char copy[kSettingLen];
	std::strcpy(copy, propstr);
	char *eq = std::strchr(copy, '=');
	if (eq == nullptr)
		return KEL_E_INVALID_PROP;
	*eq = '\0';
	const kel_tog_pdesc_t *row = kel_get_tog_pdesc_entry(kel_tog_client_table, copy);
	if (row == nullptr)
		return KEL_E_INVALID_PROP;
	int rc = kel::c_boundary(
	    [&] { return row->espd_setfn(nullptr, const_cast<kel_tog_pdesc_t *>(row), row->espd_pgname, eq + 1); });
	if (rc != KEL_SUCCESS)
		return rc;
	// The running node service picks the change up; the value is stored either way.
	return tog_refresh_instance(KEL_NODE_FMRI) == 0 ? KEL_SUCCESS : vur_failure();
}

int kel_get_client_togprop(const char *propnames, list_t *list) noexcept
{
	if (list == nullptr)
		return KEL_E_INVALID_ARGS;
	attrset_t *parsed = nullptr;
	if (propnames != nullptr) {
		int rc = kel_str2attrset(propnames, &parsed, B_FALSE, ATTRSET_UNIQUE_NAME);
		if (rc != KEL_SUCCESS)
			return rc;
	}
	const kel::AttrSetPtr names(parsed);
	for (attrset_entry_t *e = attrset_next_entry(parsed, nullptr); e != nullptr; e = attrset_next_entry(parsed, e))
		if (kel_get_tog_pdesc_entry(kel_tog_client_table, attrset_entry_name(e)) == nullptr)
			return KEL_E_INVALID_PROP;
	return kel::c_boundary([&] {
		kel::RecordList<kel_togprop_t> built;
		const int rc = kel_walk_togprop(KEL_NODE_FMRI, parsed, &built);
		if (rc == KEL_SUCCESS)
			built.release(list);
		return rc;
	});
}

void kel_free_togproplist(list_t *list) noexcept
{
	if (list == nullptr)
		return;
	while (void *rec = list_remove_head(list))
		std::free(rec);
	list_destroy(list);
}

// The controller's own settings: its identity, and the PostgreSQL database that holds its
// store (when it is not the SQLite file).
static bool controller_setting(const char *name)
{
	return name != nullptr && (std::strcmp(name, "uuid") == 0 || std::strcmp(name, kel::store::kSettingName) == 0);
}

int kel_set_controller_togprop(const char *name, const char *value) noexcept
{
	if (!controller_setting(name))
		return KEL_E_INVALID_CTRLPROP;
	// The store's setting may hold a password: the record names the setting, not its value.
	return kel::audit::logged(
	    [&] {
		    return kel::audit::Change{"set-controller-setting", "", name, ""};
	    },
	    [&] {
		    return kel_tog_set_one_value(KEL_CONTROLLER_FMRI, kel::store::kSettingGroup, name, VUR_TYPE_ASTRING,
		        const_cast<char *>(value));
	    });
}

int kel_get_controller_togprop(const char *name, char *buf, size_t size) noexcept
{
	if (!controller_setting(name))
		return KEL_E_INVALID_CTRLPROP;
	return kel::c_boundary([&] {
		return kel_tog_get_one_value(KEL_CONTROLLER_FMRI, kel::store::kSettingGroup, name, VUR_TYPE_ASTRING,
		    buf, size);
	});
}

}  // extern "C"
