// The client stubs: each call is one request; replies become the caller's records.
#include <cstdarg>
#include <new>

#include "client.h"
#include "kelcntl_wire.h"
#include "nuq_errors.h"

using nlohmann::json;

namespace {

constexpr const char *kKel = "kelcntl.KEL";
constexpr const char *kController = "kelcntl.KELController";

json text_or_null(const char *s)
{
	return s != nullptr ? json(s) : json(nullptr);
}

// Calls `method` and hands a successful result to `take`, which builds the caller's
// records; a controller error becomes the caller's error record.
template <class Take>
int call(nuq_instance_t *inst, const char *method, const json &args, kelcntl_KELError **err, Take &&take)
{
	if (err != nullptr)
		*err = nullptr;
	json result, error;
	// A record that runs out of memory or does not read is the stub's boundary's to answer.
	int rc = nuq::call(inst, method, args, &result, &error);
	if (rc == NUQ_E_OBJECT && err != nullptr)
		*err = kelcntl::wire::error_from(error);
	if (rc == NUQ_E_SUCCESS)
		take(result);
	return rc;
}

}  // namespace

extern "C" {

int kelcntl_KEL__nuq_lookup(nuq_conn_t *conn, int strict, nuq_instance_t **inst, int nkeys, ...) noexcept
{
	va_list ap;
	va_start(ap, nkeys);
	const int rc = nuq::lookup_v(conn, kKel, strict, inst, nkeys, ap);
	va_end(ap);
	return rc;
}

int kelcntl_KELController__nuq_lookup(nuq_conn_t *conn, int strict, nuq_instance_t **inst, int nkeys, ...) noexcept
{
	va_list ap;
	va_start(ap, nkeys);
	const int rc = nuq::lookup_v(conn, kController, strict, inst, nkeys, ap);
	va_end(ap);
	return rc;
}

int kelcntl_KEL_assignVPort(nuq_instance_t *inst, const char *vnicname, const char *hostname, const char *vportname,
    const char *extra, kelcntl_KELImplInfo **implinfo, kelcntl_KELError **err) noexcept
{
	return nuq::client_boundary([&] {
		if (implinfo == nullptr)
			return NUQ_E_BADARGS;
		*implinfo = nullptr;
		if (vnicname == nullptr || hostname == nullptr)
			return NUQ_E_BADARGS;
		return call(inst, "assignVPort",
		    {{"vnicname", vnicname}, {"hostname", hostname}, {"vportname", text_or_null(vportname)},
		        {"extra", text_or_null(extra)}},
		    err, [&](const json &result) { *implinfo = kelcntl::wire::implinfo_from(result); });
	});
}

int kelcntl_KEL_unAssignVPort(nuq_instance_t *inst, const char *vnicname, const char *hostname, const char *extra,
    const kel_vport_counters_t *last, kelcntl_KELError **err) noexcept
{
	return nuq::client_boundary([&] {
		if (vnicname == nullptr || hostname == nullptr)
			return NUQ_E_BADARGS;
		json args = {{"vnicname", vnicname}, {"hostname", hostname}, {"extra", text_or_null(extra)}};
		if (last != nullptr)
			args["counters"] = {{"ipackets", last->evc_ipackets}, {"rbytes", last->evc_rbytes},
			    {"opackets", last->evc_opackets}, {"obytes", last->evc_obytes}};
		return call(inst, "unAssignVPort", args, err, [](const json &) {});
	});
}

int kelcntl_KEL_syncFlood(nuq_instance_t *inst, kelcntl_KELError **err) noexcept
{
	return nuq::client_boundary([&] { return call(inst, "syncFlood", json::object(), err, [](const json &) {}); });
}

int kelcntl_KELController_getVPortInfo(nuq_instance_t *inst, const char *filter, kelcntl_VPortInfo ***array, int *count,
    kelcntl_KELError **err) noexcept
{
	return nuq::client_boundary([&] {
		if (array == nullptr || count == nullptr)
			return NUQ_E_BADARGS;
		*array = nullptr;
		*count = 0;
		return call(inst, "getVPortInfo", {{"filter", filter != nullptr ? filter : ""}}, err,
		    [&](const json &result) { *array = kelcntl::wire::vports_from(result, count); });
	});
}

}  // extern "C"
