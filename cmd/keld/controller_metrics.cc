// The controller's metrics: what its store holds by tenant, how full each ID range and
// address pool is (as keladm show-usage counts them), and which hosts answered the last
// call made to many at once. Read afresh at each write; nothing where there is no store.
#include <map>
#include <string>

#include "fan_out_note.h"
#include "metrics_writer.h"
#include "owners.h"
#include "store_pool.h"
#include "usage_rows.h"

namespace keld::metrics {
namespace {

struct TenantCounts {
	double kels = 0, ports = 0, bound = 0, pools = 0;
};

void tenant_samples(kel_dbhandle_t h, std::vector<Sample> *out)
{
	kel::RecordList<kel_t> kels;
	if (kels.read([&](list_t *l) { return kel_db_get_filtered_kellist(h, nullptr, l, 0); }) != KEL_SUCCESS)
		return;
	std::map<std::string, TenantCounts> tenants;
	for (kel_t *k : kels) {
		TenantCounts &t = tenants[k->kel_tenantname];
		t.kels++;
		for (auto *vp : kel::each<kel_vport_t>(&k->kel_ports)) {
			t.ports++;
			t.bound += vp->evp_status == VPORT_STATUS_USED ? 1 : 0;
		}
		t.pools += static_cast<double>(kel_list_count(&k->kel_ipnets));
	}
	for (const auto &[tenant, t] : tenants) {
		const Labels l = {{"tenant", tenant}};
		out->push_back({"kel_tenant_kels", l, t.kels});
		out->push_back({"kel_tenant_ports", l, t.ports});
		out->push_back({"kel_tenant_bound_ports", l, t.bound});
		out->push_back({"kel_tenant_pools", l, t.pools});
	}
}

void usage_samples(kel_dbhandle_t h, std::vector<Sample> *out)
{
	std::vector<keladm::UsageRow> rows;
	if (keladm::id_rows(h, &rows) != KEL_SUCCESS || keladm::pool_rows(h, "", &rows) != KEL_SUCCESS)
		return;
	for (const keladm::UsageRow &row : rows) {
		if (!row.known)
			continue;
		const Labels l = {{"owner", row.owner}, {"resource", row.resource}};
		out->push_back({"kel_range_values", l, static_cast<double>(row.total)});
		out->push_back({"kel_range_used_values", l, static_cast<double>(row.used)});
	}
}

void fan_out_samples(std::vector<Sample> *out)
{
	const auto note = kel::last_fan_out();
	if (!note)
		return;
	out->push_back(
	    {"kel_fan_out_timestamp_seconds", {{"operation", note->operation}}, static_cast<double>(note->ended)});
	for (const auto &[host, answered] : note->hosts)
		out->push_back({"kel_fan_out_host_answered", {{"host", host}, {"operation", note->operation}},
		    answered ? 1.0 : 0.0});
}

}  // namespace

std::vector<Sample> controller_samples()
{
	std::vector<Sample> out;
	const kelcntl::PooledStore store(KEL_DB_READONLY);
	if (store.status() != KEL_SUCCESS)
		return out;  // no store here: a node, not the controller
	tenant_samples(store.get(), &out);
	usage_samples(store.get(), &out);
	fan_out_samples(&out);
	return out;
}

}  // namespace keld::metrics
