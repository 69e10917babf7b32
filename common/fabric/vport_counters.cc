#include "vport_counters.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>

#include "c_boundary.h"
#include "error_code.h"
#include "harl.h"
#include "host_link.h"
#include "nuq_errors.h"
#include "owners.h"
#include "sql.h"

namespace kel {
namespace {

uint64_t saturating_add(uint64_t a, uint64_t b)
{
	return a + b < a ? UINT64_MAX : a + b;
}

void add(kel_vport_counters_t *to, const kel_vport_counters_t &more)
{
	to->evc_ipackets = saturating_add(to->evc_ipackets, more.evc_ipackets);
	to->evc_rbytes = saturating_add(to->evc_rbytes, more.evc_rbytes);
	to->evc_opackets = saturating_add(to->evc_opackets, more.evc_opackets);
	to->evc_obytes = saturating_add(to->evc_obytes, more.evc_obytes);
}

// What the port's VNIC on `host` reports now.
int live_counters(kel_dbhandle_t h, const char *host, const char *vnic, kel_vport_counters_t *out)
{
	HostLink link;
	if (int rc = link.open(h, host, vnic); rc != KEL_SUCCESS)
		return rc;
	harl_StatValue *raw = nullptr;
	harl_DatalinkError *raw_err = nullptr;
	const int r = harl_Datalink_getStat(link.get(), nullptr, &raw, &raw_err);
	const Owned<harl_StatValue, harl_StatValue_free> value(raw);
	const Owned<harl_DatalinkError, harl_DatalinkError_free> err(raw_err);
	if (r == NUQ_E_OBJECT && err != nullptr)
		return wexo_error(err->dde_err);
	if (r != NUQ_E_SUCCESS)
		return compose_error(r, KEL_E_NUQ);
	if (value != nullptr && value->dsv_linkstat != nullptr) {
		const harl_LinkStat &s = *value->dsv_linkstat;
		*out = {s.dls_ipackets, s.dls_rbytes, s.dls_opackets, s.dls_obytes};
	}
	return KEL_SUCCESS;
}

int vport_counters(kel_dbhandle_t h, const char *tenant, const char *kelname, const char *vport,
    kel_vport_counters_t *total)
{
	std::string host, vnic;
	{
		// The lock covers the reading, not the asking of the host.
		StoreLock lock(h);
		if (int rc = lock.status(); rc != KEL_SUCCESS)
			return rc;
		kel_t *raw = nullptr;
		if (int rc = kel_db_get_kelvport(h, tenant, kelname, vport, &raw); rc != KEL_SUCCESS)
			return rc;
		const KelPtr k(raw);
		auto *vp = static_cast<kel_vport_t *>(list_head(&k->kel_ports));
		*total = counters_gone(vp->evp_props);
		if (vp->evp_status == VPORT_STATUS_USED) {
			host = vp->evp_hostname;
			vnic = vp->evp_vnicname;
		}
	}
	if (host.empty())
		return KEL_SUCCESS;
	kel_vport_counters_t live{};
	if (int rc = live_counters(h, host.c_str(), vnic.c_str(), &live); rc != KEL_SUCCESS)
		return rc;
	add(total, live);
	return KEL_SUCCESS;
}

}  // namespace

kel_vport_counters_t counters_gone(attrset_t *props)
{
	kel_vport_counters_t c{};
	char *text = nullptr;
	if (props == nullptr || attrset_lookup_string(props, kCountersGone, &text) != 0)
		return c;
	char end = 0;
	if (std::sscanf(text, "%" SCNu64 "/%" SCNu64 "/%" SCNu64 "/%" SCNu64 "%c", &c.evc_ipackets, &c.evc_rbytes,
	        &c.evc_opackets, &c.evc_obytes, &end) != 4 ||
	    std::strchr(text, '-') != nullptr)
		return kel_vport_counters_t{};
	return c;
}

int add_counters_gone(attrset_t *props, const kel_vport_counters_t &last)
{
	kel_vport_counters_t sum = counters_gone(props);
	add(&sum, last);
	char text[4 * 21 + 4];
	std::snprintf(text, sizeof(text), "%" PRIu64 "/%" PRIu64 "/%" PRIu64 "/%" PRIu64, sum.evc_ipackets,
	    sum.evc_rbytes, sum.evc_opackets, sum.evc_obytes);
	return attrset_add_string(props, kCountersGone, text) == 0 ? KEL_SUCCESS : KEL_E_NOMEM;
}

}  // namespace kel

extern "C" int kel_db_get_vport_counters(kel_dbhandle_t h, const char *tenant, const char *kel, const char *vport,
    kel_vport_counters_t *total) noexcept
{
	if (total == nullptr)
		return KEL_E_INVALID_ARGS;
	*total = kel_vport_counters_t{};
	if (h == nullptr || kel == nullptr || vport == nullptr)
		return KEL_E_INVALID_ARGS;
	return kel::c_boundary([&] {
		kel_vport_counters_t sum{};
		const int rc = kel::vport_counters(h, tenant, kel, vport, &sum);
		if (rc == KEL_SUCCESS)
			*total = sum;
		return rc;
	});
}
