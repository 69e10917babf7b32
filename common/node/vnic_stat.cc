// A VNIC's traffic counters, read from its host's datalink interface.
#include <cstring>

#include <kel/libkel_node.h>
#include "c_boundary.h"
#include "error_code.h"
#include "harl.h"
#include "kel_assert.h"
#include "nuq_errors.h"
#include "owners.h"

namespace {

using Instance = kel::Owned<nuq_instance_t, nuq_instance_rele>;
using StatValue = kel::Owned<harl_StatValue, harl_StatValue_free>;
using DatalinkError = kel::Owned<harl_DatalinkError, harl_DatalinkError_free>;

int get_vnicstat(nuq_conn_t *conn, const char *vnicname, link_stat_t *stats)
{
	nuq_instance_t *raw = nullptr;
	int r = harl_Datalink__nuq_lookup(conn, 1, &raw, 1, "name", vnicname);
	Instance link(raw);
	if (r != NUQ_E_SUCCESS)
		return kel::compose_error(r, KEL_E_NUQ);
	harl_StatValue *value = nullptr;
	harl_DatalinkError *error = nullptr;
	r = harl_Datalink_getStat(link.get(), nullptr, &value, &error);
	StatValue v(value);
	DatalinkError err(error);
	if (r == NUQ_E_OBJECT && err != nullptr)
		return kel::wexo_error(err->dde_err);
	if (r != NUQ_E_SUCCESS)
		return kel::compose_error(r, KEL_E_NUQ);
	if (v == nullptr)
		return KEL_SUCCESS;
	KEL_ASSERT(kel::kAreaCore, v->dsv_linkstat != NULL);
	const harl_LinkStat &s = *v->dsv_linkstat;
	stats->ls_ipackets = s.dls_ipackets;
	stats->ls_rbytes = s.dls_rbytes;
	stats->ls_idrops = s.dls_idrops;
	stats->ls_idropbytes = s.dls_idropbytes;
	stats->ls_obytes = s.dls_obytes;
	stats->ls_opackets = s.dls_opackets;
	stats->ls_odrops = s.dls_odrops;
	stats->ls_odropbytes = s.dls_odropbytes;
	return KEL_SUCCESS;
}

}  // namespace

extern "C" {

int kel_get_vnicstat(nuq_conn_t *conn, const char *vnicname, link_stat_t *stats) noexcept
{
	if (stats == nullptr)
		return KEL_E_INVALID_ARGS;
	std::memset(stats, 0, sizeof(*stats));
	if (conn == nullptr || vnicname == nullptr)
		return KEL_E_INVALID_ARGS;
	return kel::c_boundary([&] { return get_vnicstat(conn, vnicname, stats); });
}

}  // extern "C"
