// The public list operations over the store.
#include <cstring>
#include <new>
#include <unordered_map>
#include <vector>

#include "attrset_ptr.h"
#include "c_boundary.h"
#include "filter.h"
#include "names.h"
#include "owners.h"
#include "records.h"
#include "sql.h"
#include "store_handle.h"
#include "uuid_text.h"

namespace {

// Builds one switch list over kel_tbl joined with `table2`.
int switches_joined_with(kel_dbhandle_t h, const char *filter, const char *table2, const char *joincol,
    kel_infotype_t info, kel_kellist_cbarg_t *arg, bool bound_only = false)
{
	arg->evc_infotype = info;
	return kel_db_get_filtered_common(h, "kel_tbl", table2, "kel_uuid", joincol, filter, arg, kel_dbrow2kellist,
	    bound_only);
}

// The not-found code for a switch list that came back empty, from what the filter named.
int kel_not_found(kel_dbhandle_t h, const char *filter)
{
	if (filter == nullptr || *filter == '\0')
		return KEL_E_KEL_NOTFOUND;
	attrset_t *set = nullptr;
	if (kel_str2attrset(filter, &set, B_TRUE, ATTRSET_UNIQUE_NAME) != KEL_SUCCESS)
		return KEL_E_KEL_NOTFOUND;
	char *kel = nullptr, *vport = nullptr, *tenant = nullptr;
	(void)attrset_lookup_string(set, "kel", &kel);
	(void)attrset_lookup_string(set, "vport", &vport);
	(void)attrset_lookup_string(set, "tenant", &tenant);
	int rc = KEL_E_KEL_NOTFOUND;
	if (kel != nullptr && vport != nullptr)
		rc = kel_db_kel_exists(h, tenant != nullptr ? tenant : KEL_DEFAULT_TENANT, kel) ? KEL_E_VPORT_NOTFOUND
		                                                                                : KEL_E_KEL_NOTFOUND;
	else if (vport != nullptr)
		rc = KEL_E_VPORT_NOTFOUND;
	attrset_free(set);
	return rc;
}

// The switches of A that also came out of B, in A's order: B's record (with its
// networks) takes A's ports. Switches on only one side are dropped. Everything that
// allocates runs before `out` is made: it is made complete, or not at all (KEL_E_NOMEM).
int assemble(list_t *a, list_t *b, list_t *out)
{
	std::vector<std::pair<kel_t *, kel_t *>> pairs;
	const int rc = kel::c_boundary([&] {
		std::unordered_map<std::string, kel_t *> in_b;
		for (auto *k = static_cast<kel_t *>(list_head(b)); k; k = static_cast<kel_t *>(list_next(b, k)))
			in_b.emplace(kel_uuid_key(k->kel_uuid), k);
		for (auto *ka = static_cast<kel_t *>(list_head(a)); ka; ka = static_cast<kel_t *>(list_next(a, ka)))
			if (auto it = in_b.find(kel_uuid_key(ka->kel_uuid)); it != in_b.end())
				pairs.emplace_back(ka, it->second);
		return KEL_SUCCESS;
	});
	if (rc != KEL_SUCCESS)
		return rc;
	kel_create_kellist(out);
	for (auto [ka, kb] : pairs) {
		list_remove(b, kb);
		list_insert_tail(out, kb);
		kb->kel_status = KEL_STATUS_IDLE;
		while (auto *vp = static_cast<kel_vport_t *>(list_remove_head(&ka->kel_ports))) {
			if (vp->evp_status == VPORT_STATUS_USED)
				kb->kel_status = KEL_STATUS_BUSY;
			list_insert_tail(&kb->kel_ports, vp);
		}
	}
	return KEL_SUCCESS;
}

// Whether every key of `filter` selects on kel_tbl's own columns, so that the switches it
// selects can be read without joining their ports or networks.
bool selects_switches_only(const char *filter)
{
	if (filter == nullptr || *filter == '\0')
		return true;
	attrset_t *raw = nullptr;
	if (kel_fstr2fattrset(filter, &raw, "kel_tbl") != KEL_SUCCESS)
		return false;  // the joined path reports what is wrong with it
	kel::AttrSetPtr keys(raw);
	for (attrset_entry_t *e = attrset_next_entry(keys.get(), nullptr); e != nullptr;
	     e = attrset_next_entry(keys.get(), e)) {
		const kel_filter_entry_t *entry = kel_get_filter_entry(attrset_entry_name(e));
		if (entry == nullptr || std::strcmp(entry->efe_tblname, "kel_tbl") != 0)
			return false;
	}
	return true;
}

// A switch read alone: BUSY when one of its ports is bound (an index of bound ports
// answers that without reading the switch's other ports).
int switch_alone(const kel::Statement &stmt, void *list)
{
	kel_t *kel = nullptr;
	int rc = kel_dbrow2kel(stmt, &kel);
	if (rc != KEL_SUCCESS)
		return rc;
	list_insert_tail(static_cast<list_t *>(list), kel);
	bool bound = false;
	rc = kel::for_each_row(stmt.db(),
	    "SELECT 1 FROM vport_tbl WHERE vport_keluuid = ? AND vport_status = 1 LIMIT 1",
	    {kel::uuid_text(kel->kel_uuid)}, [&](kel::Statement &) {
		    bound = true;
		    return KEL_SUCCESS;
	    });
	kel->kel_status = bound ? KEL_STATUS_BUSY : KEL_STATUS_IDLE;
	return rc;
}

// The switches without their members, for a filter on switches alone.
int switches_alone(kel_dbhandle_t h, const char *filter, list_t *out)
{
	kel::RecordList<kel_t> kels;
	kels.start();
	kel::StoreLock lock(h);
	int rc = lock.status();
	if (rc == KEL_SUCCESS)
		rc = kel_db_get_filtered_common(h, "kel_tbl", nullptr, nullptr, nullptr, filter, kels.get(),
		    switch_alone);
	if (rc == KEL_SUCCESS && kels.empty())
		rc = kel_not_found(h, filter);
	if (rc != KEL_SUCCESS)
		return rc;
	kels.release(out);
	return KEL_SUCCESS;
}

// Drops the ports and networks of every listed switch.
void drop_members(list_t *kels)
{
	for (auto *k = static_cast<kel_t *>(list_head(kels)); k; k = static_cast<kel_t *>(list_next(kels, k))) {
		while (auto *vp = static_cast<kel_vport_t *>(list_remove_head(&k->kel_ports)))
			kel_free_vport(vp);
		while (auto *ip = static_cast<kel_ipnet_t *>(list_remove_head(&k->kel_ipnets)))
			kel_free_ipnet(ip);
	}
}

// One port at a time to the caller's function.
struct Walk {
	kel_vport_walk_fn_t *fn;
	void *arg;
	bool with_props;
	bool any = false;
	int verdict = 0;
};

int walk_row(const kel::Statement &stmt, void *p)
{
	auto *walk = static_cast<Walk *>(p);
	kel_vport_t *vp = nullptr;
	if (int rc = kel_dbrow2vport(stmt, &vp, 0, walk->with_props); rc != KEL_SUCCESS)
		return rc;
	walk->any = true;
	walk->verdict = walk->fn(vp, walk->arg);
	kel_free_vport(vp);
	// Any code but KEL_SUCCESS stops the row loop; the walk then answers the verdict.
	return walk->verdict != 0 ? KEL_E_CONTINUE : KEL_SUCCESS;
}

int walk_vports(kel_dbhandle_t h, const char *filter, uint32_t flags, kel_vport_walk_fn_t *fn, void *arg)
{
	Walk walk{fn, arg, (flags & KEL_WALK_NO_PROPS) == 0};
	kel::StoreLock lock(h);
	if (int rc = lock.status(); rc != KEL_SUCCESS)
		return rc;
	const int rc = kel_db_get_filtered_common(h, "vport_tbl", "kel_tbl", "vport_keluuid", "kel_uuid", filter, &walk,
	    walk_row, (flags & KEL_LIST_BOUND_PORTS) != 0);
	if (walk.verdict != 0)
		return walk.verdict;
	if (rc == KEL_SUCCESS && !walk.any)
		return KEL_E_VPORT_NOTFOUND;
	return rc;
}

int filtered_kellist(kel_dbhandle_t h, const char *filter, list_t *out, uint32_t flags)
{
	const bool no_members = (flags & KEL_LIST_NO_MEMBERS) != 0;
	if (no_members && selects_switches_only(filter))
		return switches_alone(h, filter, out);
	kel_kellist_cbarg_t with_ports, with_ipnets;
	kel::RecordList<kel_t> a, b;
	a.start();
	b.start();
	with_ports.evc_list = a.get();
	with_ipnets.evc_list = b.get();
	int rc;
	{
		kel::StoreLock lock(h);
		if ((rc = lock.status()) != KEL_SUCCESS)
			return rc;
		rc = switches_joined_with(h, filter, "vport_tbl", "vport_keluuid", KEL_VPORTINFO, &with_ports,
		    (flags & KEL_LIST_BOUND_PORTS) != 0);
		if (rc == KEL_SUCCESS)
			rc = switches_joined_with(h, filter, "ipnet_tbl", "ipnet_keluuid", KEL_IPNETINFO, &with_ipnets);
		// The not-found test reads the store, so it runs before the lock goes.
		if (rc == KEL_SUCCESS && a.empty())
			rc = kel_not_found(h, filter);
	}
	if (rc == KEL_SUCCESS && (rc = assemble(a.get(), b.get(), out)) == KEL_SUCCESS && no_members)
		drop_members(out);
	return rc;
}

// A port or network list: `table` joined with kel_tbl, read by `reader`.
int member_list(kel_dbhandle_t h, const char *filter, list_t *out, const char *table, const char *joincol,
    kel_row_cb_t *reader, void (*create)(list_t *), void (*free_list)(void *), int notfound, bool bound_only = false)
{
	kel::StoreLock lock(h);
	if (int rc = lock.status(); rc != KEL_SUCCESS)
		return rc;
	create(out);
	int rc = kel_db_get_filtered_common(h, table, "kel_tbl", joincol, "kel_uuid", filter, out, reader, bound_only);
	if (rc == KEL_SUCCESS && list_is_empty(out))
		rc = notfound;
	if (rc != KEL_SUCCESS)
		free_list(out);
	return rc;
}

}  // namespace

namespace {

// The readers take an empty name, like a NULL one, as "any": their callers select with it.
const char *any_if_empty(const char *name)
{
	return name != nullptr && *name == '\0' ? nullptr : name;
}

}  // namespace

extern "C" {

int kel_db_get_filtered_kellist(kel_dbhandle_t h, const char *filter, list_t *out, uint32_t flags) noexcept
{
	if (h == nullptr || out == nullptr)
		return KEL_E_INVALID_ARGS;
	return kel::c_boundary([&] { return filtered_kellist(h, filter, out, flags); });
}

int kel_db_get_kellist(kel_dbhandle_t h, const char *tenant, const char *name, list_t *out, uint32_t flags) noexcept
{
	return kel::c_boundary([&] {
		if (name == nullptr)
			return KEL_E_INVALID_NAME;
		char filter[KEL_FILTER_LEN];
		int rc = kel::names_filter(filter, any_if_empty(tenant), name);
		return rc != KEL_SUCCESS ? rc : kel_db_get_filtered_kellist(h, filter, out, flags);
	});
}

int kel_db_get_kelvport(kel_dbhandle_t h, const char *tenant, const char *kel, const char *vport, kel_t **out) noexcept
{
	return kel::c_boundary([&] {
		if (out == nullptr)
			return KEL_E_INVALID_ARGS;
		*out = nullptr;
		if (tenant == nullptr || kel == nullptr || vport == nullptr)
			return KEL_E_INVALID_NAME;
		char filter[KEL_FILTER_LEN];
		int rc = kel::names_filter(filter, tenant, kel, "vport", vport);
		kel::RecordList<kel_t> kels;
		if (rc == KEL_SUCCESS)
			rc = kels.read([&](list_t *l) { return kel_db_get_filtered_kellist(h, filter, l, 0); });
		if (rc != KEL_SUCCESS)
			return rc;
		// Names are unique per tenant and switch: one switch with one port came back.
		*out = kels.take(kels.front());
		return KEL_SUCCESS;
	});
}

int kel_db_find_kel(kel_dbhandle_t h, const char *tenant, const char *name) noexcept
{
	if (h == nullptr || name == nullptr)
		return KEL_E_INVALID_ARGS;
	return kel::c_boundary([&] {
		boolean_t is_uuid = B_FALSE;
		(void)kel_parse_name(name, &is_uuid);
		kel::StoreLock lock(h);
		if (const int rc = lock.status(); rc != KEL_SUCCESS)
			return rc;
		const char *sql = is_uuid
		    ? "SELECT 1 FROM kel_tbl WHERE kel_tenant_name = ?1 AND kel_uuid = ?2 LIMIT 1"
		    : "SELECT 1 FROM kel_tbl WHERE kel_tenant_name = ?1 AND kel_name = ?2 LIMIT 1";
		const int rc = kel::for_each_row(h, sql, {tenant != nullptr ? tenant : KEL_DEFAULT_TENANT, name},
		    [](kel::Statement &) { return KEL_E_CONTINUE; });
		return rc == KEL_E_CONTINUE ? KEL_SUCCESS : rc == KEL_SUCCESS ? KEL_E_KEL_NOTFOUND : rc;
	});
}

boolean_t kel_db_kel_exists(kel_dbhandle_t h, const char *tenant, const char *name) noexcept
{
	return kel::c_boundary_as<boolean_t>(B_FALSE, B_FALSE,
	    [&] { return kel_db_find_kel(h, tenant, name) == KEL_SUCCESS ? B_TRUE : B_FALSE; });
}

int kel_db_get_filtered_vportlist(kel_dbhandle_t h, const char *filter, list_t *out, uint32_t flags) noexcept
{
	if (h == nullptr || out == nullptr)
		return KEL_E_INVALID_ARGS;
	return kel::c_boundary([&] {
		return member_list(h, filter, out, "vport_tbl", "vport_keluuid", kel_dbrow2vportlist,
		    kel_create_vportlist, kel_free_vportlist, KEL_E_VPORT_NOTFOUND,
		    (flags & KEL_LIST_BOUND_PORTS) != 0);
	});
}

int kel_db_walk_vports(kel_dbhandle_t h, const char *filter, uint32_t flags, kel_vport_walk_fn_t *fn,
    void *arg) noexcept
{
	if (h == nullptr || fn == nullptr)
		return KEL_E_INVALID_ARGS;
	return kel::c_boundary([&] { return walk_vports(h, filter, flags, fn, arg); });
}

int kel_db_get_filtered_ipnetlist(kel_dbhandle_t h, const char *filter, list_t *out, uint32_t) noexcept
{
	if (h == nullptr || out == nullptr)
		return KEL_E_INVALID_ARGS;
	return kel::c_boundary([&] {
		return member_list(h, filter, out, "ipnet_tbl", "ipnet_keluuid", kel_dbrow2ipnetlist,
		    kel_create_ipnetlist, kel_free_ipnetlist, KEL_E_IPNET_NOTFOUND);
	});
}

int kel_db_get_ipnetlist(kel_dbhandle_t h, const char *tenant, const char *kel, const char *ipnet, list_t *out,
    uint32_t flags) noexcept
{
	return kel::c_boundary([&] {
		if (out == nullptr)
			return KEL_E_INVALID_ARGS;
		char filter[KEL_FILTER_LEN];
		int rc = kel::names_filter(filter, any_if_empty(tenant), any_if_empty(kel), "ipnet",
		    any_if_empty(ipnet));
		// This reader's names have always been checked as the filter's values are, and its
		// callers are told KEL_E_INVALID_ARGS for one that is not a name. The check is made
		// before the filter is composed all the same: a comma in a name would add an
		// alternative to it.
		if (rc == KEL_E_INVALID_NAME)
			return KEL_E_INVALID_ARGS;
		return rc != KEL_SUCCESS ? rc : kel_db_get_filtered_ipnetlist(h, filter, out, flags);
	});
}

}  // extern "C"
