#include "usage_rows.h"

#include <cstring>

#include "owners.h"

namespace keladm {
namespace {

// A row for `range`, of which the values in `in_use` are taken.
UsageRow count_row(std::string resource, std::string owner, const std::string &range, const ValueRanges &in_use)
{
	UsageRow row{std::move(resource), std::move(owner), range};
	ValueRanges r;
	row.known = r.parse(range);
	if (row.known) {
		row.total = r.count();
		row.used = r.within(in_use).count();
	}
	return row;
}

}  // namespace

// The ID ranges: the fabric's, then each host's shares, with what kels hold of them.
int id_rows(kel_dbhandle_t h, std::vector<UsageRow> *rows)
{
	kel::RecordList<kel_ctrlprop_t> props;
	if (int rc = props.read([&](list_t *l) { return kel_db_get_ctrlprop(h, nullptr, nullptr, l); });
	    rc != KEL_SUCCESS)
		return rc;
	auto fabric = [&](const char *name) -> std::string {
		for (kel_ctrlprop_t *p : props)
			if (*p->ecp_host == '\0' && std::strcmp(p->ecp_propname, name) == 0 &&
			    p->ecp_propval != nullptr)
				return p->ecp_propval;
		return "";
	};
	for (const char *id : {"vlan-range", "vxlan-range"}) {
		const std::string range = fabric(id), avail = fabric((std::string(id) + "-avail").c_str());
		ValueRanges all, free;
		if (!all.parse(range) || !free.parse(avail))
			continue;
		const ValueRanges held = all.minus(free);
		if (!range.empty())
			rows->push_back(count_row(id, "", range, held));
		for (kel_ctrlprop_t *p : props) {
			const char *share = std::strcmp(id, "vlan-range") == 0 ? p->ecp_vlanrange : p->ecp_vxlanrange;
			if (*p->ecp_host != '\0' && share != nullptr && *share != '\0')
				rows->push_back(count_row(id,
				    std::string("host ") + p->ecp_host + " " + p->ecp_propname + " " +
				        (p->ecp_propval != nullptr ? p->ecp_propval : ""),
				    share, held));
		}
	}
	return KEL_SUCCESS;
}

// Each network's pool, with what its ports hold of it.
int pool_rows(kel_dbhandle_t h, const std::string &tenant, std::vector<UsageRow> *rows)
{
	kel::RecordList<kel_ipnet_t> nets;
	int rc = nets.read([&](list_t *l) { return kel_db_get_ipnetlist(h, tenant.c_str(), nullptr, nullptr, l, 0); });
	if (rc == KEL_E_IPNET_NOTFOUND)
		return KEL_SUCCESS;
	if (rc != KEL_SUCCESS)
		return rc;
	for (kel_ipnet_t *n : nets) {
		const std::string pool = kel::prop_text(n->ei_props, "pool"),
		                  router = kel::prop_text(n->ei_props, "defrouter");
		UsageRow row{"pool", std::string(n->ei_tenantname) + "/" + n->ei_kelname + "/" + n->ei_name, pool};
		ValueRanges in_pool, free;
		if (pool.empty()) {
			// An empty pool is the usable span but the router.
			row.range = std::string(n->ei_sastr) + "-" + n->ei_eastr;
			ValueRanges span, routers;
			const bool routed = !router.empty() && !kel_address_unspecified(router.c_str());
			row.known = span.parse(row.range) && (!routed || routers.parse(router));
			in_pool = span.minus(routers);
		} else {
			row.known = in_pool.parse(pool);
		}
		row.known = row.known && free.parse(n->ei_availrange != nullptr ? n->ei_availrange : "");
		row.total = in_pool.count();
		row.used = in_pool.minus(free).count();
		rows->push_back(row);
	}
	return KEL_SUCCESS;
}

}  // namespace keladm
