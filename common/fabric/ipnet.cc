// IP networks of switches: adding one (its router, pool and available addresses) and
// removing it.
#include <uuid/uuid.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "allocator.h"
#include "attrset_ptr.h"
#include "audit.h"
#include "c_boundary.h"
#include "filter.h"
#include "kel_lifecycle.h"
#include "names.h"
#include "owners.h"
#include "prop_catalogue.h"
#include "range.h"
#include "sql.h"
#include "subnet.h"
#include "text.h"

namespace {

constexpr size_t kRangeLen = 8192;

using kel::AttrSetPtr;

// What an ipnet's row holds beyond its properties.
struct IpnetPlan {
	kel_ipnet_t span{};      // subnet fields only
	std::string avail;       // every free address
	std::string avail_pool;  // the free addresses of the pool
};

// Works out the router, the available addresses and the pool, completing `set` with the
// defaults ("defrouter", "pool") and the canonical "subnet".
int plan_ipnet(attrset_t *set, IpnetPlan *plan)
{
	char *subnet = nullptr;
	if (attrset_lookup_string(set, "subnet", &subnet) != 0)
		return KEL_E_ARGS_REQUIRED;
	int rc = kel_parse_ipnet(subnet, &plan->span);
	if (rc != KEL_SUCCESS)
		return rc;
	const kel_ipnet_t &ip = plan->span;
	if (attrset_add_string(set, "subnet", ip.ei_subnet) != 0)
		return KEL_E_NOMEM;
	const int type = kel_ipnet_rangetype(ip.ei_af);
	const std::string full = std::string(ip.ei_sastr) + "-" + ip.ei_eastr;

	char *given = nullptr;
	std::string router;
	if (attrset_lookup_string(set, "defrouter", &given) != 0) {
		router = ip.ei_sastr;
		if (attrset_add_string(set, "defrouter", router.c_str()) != 0)
			return KEL_E_NOMEM;
	} else if (!kel_address_unspecified(given)) {
		// The network and broadcast addresses lie in the subnet but no host can use
		// them as its router: the router must lie in the usable span.
		if (!kel_ipnet_contains_ip(&ip, given) || kel_rsrc_cmp(given, ip.ei_sastr, type) < 0 ||
		    kel_rsrc_cmp(given, ip.ei_eastr, type) > 0)
			return KEL_E_IP_NOT_IN_IPNET;
		router = given;
	}
	if (router.empty()) {
		plan->avail = full;
	} else {
		char avail[kRangeLen];
		if ((rc = kel_rsrc_range_diff(full.c_str(), router.c_str(), avail, sizeof(avail), type)) != KEL_SUCCESS)
			return rc;
		plan->avail = avail;
	}

	char *pool = nullptr;
	if (attrset_lookup_string(set, "pool", &pool) != 0) {
		plan->avail_pool = plan->avail;
		return attrset_add_string(set, "pool", plan->avail.c_str()) == 0 ? KEL_SUCCESS : KEL_E_NOMEM;
	}
	if (*pool == '\0')
		return KEL_E_INVALID_ARGS;
	if ((rc = kel_valid_poolrange(pool, router.empty() ? nullptr : router.c_str(), &ip)) != KEL_SUCCESS)
		return rc;
	char merged[1024];
	if ((rc = kel_rsrc_range_merge(pool, merged, sizeof(merged), type)) != KEL_SUCCESS)
		return rc;
	plan->avail_pool = merged;
	return attrset_add_string(set, "pool", merged) == 0 ? KEL_SUCCESS : KEL_E_NOMEM;
}

boolean_t ipnet_exists(kel_dbhandle_t h, const char *tenant, const char *name)
{
	boolean_t is_uuid = B_FALSE;
	(void)kel_parse_name(name, &is_uuid);
	return kel_db_value_exists(h, "AND", "=", "kel_ipnet_view", 2, "kel_tenant_name", DATA_TYPE_STRING, tenant,
	    is_uuid ? "ipnet_uuid" : "ipnet_name", DATA_TYPE_STRING, name);
}

// The store keeps the address family as 2 or 26 whatever this host calls them.
int stored_family(sa_family_t af)
{
	return af == AF_INET ? 2 : 26;
}

int add_ipnet(kel_dbhandle_t h, const char *tenant, const char *kelname, const char *name, const char *props,
    uint32_t flags, kel_ipnet_t **ipnetp)
{
	if (name != nullptr && !kel::valid_new_name(name, flags))
		return KEL_E_INVALID_NAME;
	// An ipnet needs a text (its subnet is in it): none is a bad one, while an empty one
	// lacks the subnet.
	AttrSetPtr set;
	int rc = kel::read_props(props, &set, {.null_text = KEL_E_INVALID_PROP});
	if (rc != KEL_SUCCESS)
		return rc;
	if ((rc = kel_check_prop(set.get(), KEL_PROPTYPE_IPNET)) != KEL_SUCCESS)
		return rc;
	IpnetPlan plan;
	if ((rc = plan_ipnet(set.get(), &plan)) != KEL_SUCCESS)
		return rc;

	kel::StoreLock lock(h);
	if ((rc = lock.status()) != KEL_SUCCESS)
		return rc;
	char uuidtext[KEL_UUID_TEXT_LEN];
	kel_take_uuid(set.get(), uuidtext);
	char derived[KEL_UUID_TEXT_LEN];
	if (name == nullptr) {
		kel_uuidstr2name(uuidtext, derived, sizeof(derived));
		name = derived;
	} else if (ipnet_exists(h, tenant, name)) {
		return KEL_E_EXISTS;
	}

	char filter[KEL_FILTER_LEN];
	kel::RecordList<kel_t> kels;
	// Only its networks are asked of the switch: none of its ports is read.
	const auto no_free_ports = [&](list_t *l) {
		return kel_db_get_filtered_kellist(h, filter, l, KEL_LIST_BOUND_PORTS);
	};
	if ((rc = kel::names_filter(filter, tenant, kelname)) != KEL_SUCCESS ||
	    (rc = kels.read(no_free_ports)) != KEL_SUCCESS)
		return rc;
	char keluuid[KEL_UUID_TEXT_LEN];
	uuid_unparse_lower(kels.front()->kel_uuid, keluuid);
	if (!list_is_empty(&kels.front()->kel_ipnets))
		return KEL_E_ONE_IPNET;
	if ((rc = kel_check_ipnet_overlap(h, &plan.span)) != KEL_SUCCESS)
		return rc;

	kel::Text propstr;
	if ((rc = kel::props_text(set.get(), &propstr)) != KEL_SUCCESS)
		return rc;
	const char *text = propstr.get();
	rc = kel::exec(h,
	    "INSERT INTO ipnet_tbl (ipnet_uuid, ipnet_name, ipnet_keluuid, ipnet_props, ipnet_af, "
	    "ipnet_start_addr, ipnet_end_addr, ipnet_avail_range, ipnet_avail_pool_range) "
	    "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)",
	    {uuidtext, name, keluuid, text, stored_family(plan.span.ei_af), plan.span.ei_sastr, plan.span.ei_eastr,
	        plan.avail, plan.avail_pool});
	if (rc != KEL_SUCCESS)
		return rc;
	kel::RecordList<kel_ipnet_t> nets;
	if ((rc = nets.read([&](list_t *l) { return kel_db_get_ipnetlist(h, tenant, kelname, name, l, 0); })) !=
	    KEL_SUCCESS) {
		(void)kel_db_remove_ipnet(h, tenant, kelname, name, 0);
		return rc;
	}
	*ipnetp = nets.take(nets.front());
	return KEL_SUCCESS;
}

int remove_ipnet(kel_dbhandle_t h, const char *tenant, const char *kelname, const char *name)
{
	if (!kel_valid_name(name))
		return KEL_E_INVALID_NAME;
	char filter[KEL_FILTER_LEN];
	int rc = kel::names_filter(filter, tenant, kelname, "ipnet", name);
	if (rc != KEL_SUCCESS)
		return rc;
	kel::StoreLock lock(h);
	if ((rc = lock.status()) != KEL_SUCCESS)
		return rc;
	kel::RecordList<kel_ipnet_t> nets;
	if ((rc = nets.read([&](list_t *l) { return kel_db_get_filtered_ipnetlist(h, filter, l, 0); })) != KEL_SUCCESS)
		return rc;
	char ipuuid[KEL_UUID_TEXT_LEN];
	uuid_unparse_lower(nets.front()->ei_uuid, ipuuid);

	kel::RecordList<kel_t> kels;
	if ((rc = kel::names_filter(filter, tenant, kelname)) != KEL_SUCCESS ||
	    (rc = kels.read([&](list_t *l) { return kel_db_get_filtered_kellist(h, filter, l, 0); })) != KEL_SUCCESS)
		return rc;
	if (!list_is_empty(&kels.front()->kel_ports))
		return KEL_E_IPNET_INUSE;
	return kel::exec(h, "DELETE FROM ipnet_tbl WHERE ipnet_uuid = ?", {ipuuid});
}

}  // namespace

boolean_t kel_db_ipnet_exists(kel_dbhandle_t h, const char *tenant, const char *name)
{
	kel::StoreLock lock(h);
	return lock.status() == KEL_SUCCESS ? ipnet_exists(h, tenant, name) : B_FALSE;
}

extern "C" {

int kel_db_add_ipnet(kel_dbhandle_t h, const char *tenant, const char *kel, const char *name, const char *props,
    kel_ipnet_t **ipnetp, uint32_t flags) noexcept
{
	if (ipnetp == nullptr)
		return KEL_E_INVALID_ARGS;
	*ipnetp = nullptr;
	if (h == nullptr)
		return KEL_E_INVALID_ARGS;
	if (!kel::names_valid({tenant, kel}))
		return KEL_E_INVALID_NAME;
	return kel::audit::logged(
	    [&] { return kel::audit::on("add-ipnet", tenant, kel::audit::member(kel, name), props); },
	    [&] { return add_ipnet(h, tenant, kel, name, props, flags, ipnetp); });
}

int kel_db_remove_ipnet(kel_dbhandle_t h, const char *tenant, const char *kel, const char *name, uint32_t) noexcept
{
	if (h == nullptr)
		return KEL_E_INVALID_ARGS;
	if (!kel::names_valid({tenant, kel, name}))
		return KEL_E_INVALID_NAME;
	return kel::audit::logged([&] { return kel::audit::on("remove-ipnet", tenant, kel::audit::member(kel, name)); },
	    [&] { return remove_ipnet(h, tenant, kel, name); });
}

}  // extern "C"
