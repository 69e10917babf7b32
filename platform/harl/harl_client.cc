#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <new>

#include "harl.h"
#include "nuq_errors.h"

namespace {

constexpr const char *kInterface = "harl.Datalink";

// The method's error record as the caller receives it; NULL when memory ran out.
harl_DatalinkError *error_record(const nlohmann::json &data)
{
	auto *err = static_cast<harl_DatalinkError *>(std::calloc(1, sizeof(harl_DatalinkError)));
	if (err == nullptr)
		return nullptr;
	err->dde_err = data.is_object() ? data.value("dde_err", 0) : 0;
	const std::string msg = data.is_object() ? data.value("dde_errmsg", "") : "";
	err->dde_errmsg = strdup(msg.c_str());
	return err;
}

}  // namespace

extern "C" {

int harl_Datalink__nuq_lookup(nuq_conn_t *conn, int strict, nuq_instance_t **inst, int nkeys, ...)
{
	va_list ap;
	va_start(ap, nkeys);
	const int rc = nuq::lookup_v(conn, kInterface, strict, inst, nkeys, ap);
	va_end(ap);
	return rc;
}

int harl_Datalink_getStat(nuq_instance_t *inst, void *, harl_StatValue **value,
    harl_DatalinkError **err)
{
	*value = nullptr;
	if (err != nullptr)
		*err = nullptr;
	nlohmann::json result, error;
	const int rc = nuq::call(inst, "getStat", nlohmann::json::object(), &result, &error);
	if (rc == NUQ_E_OBJECT && err != nullptr)
		*err = error_record(error);
	if (rc != NUQ_E_SUCCESS)
		return rc;
	auto *v = static_cast<harl_StatValue *>(std::calloc(1, sizeof(harl_StatValue)));
	auto *s = static_cast<harl_LinkStat *>(std::calloc(1, sizeof(harl_LinkStat)));
	if (v == nullptr || s == nullptr) {
		std::free(v);
		std::free(s);
		return NUQ_E_NOMEM;
	}
	try {
		s->dls_ipackets = result.at("dls_ipackets");
		s->dls_rbytes = result.at("dls_rbytes");
		s->dls_idrops = result.at("dls_idrops");
		s->dls_idropbytes = result.at("dls_idropbytes");
		s->dls_obytes = result.at("dls_obytes");
		s->dls_opackets = result.at("dls_opackets");
		s->dls_odrops = result.at("dls_odrops");
		s->dls_odropbytes = result.at("dls_odropbytes");
	} catch (const nlohmann::json::exception &) {
		std::free(v);
		std::free(s);
		return NUQ_E_PROTOCOL;
	}
	v->dsv_discriminant = DST_LINK;
	v->dsv_linkstat = s;
	*value = v;
	return NUQ_E_SUCCESS;
}

int harl_Datalink_setProperty(nuq_instance_t *inst, const char *text, int flags,
    harl_DatalinkError **err)
{
	if (err != nullptr)
		*err = nullptr;
	if (text == nullptr)
		return NUQ_E_BADARGS;
	nlohmann::json result, error;
	const int rc = nuq::call(inst, "setProperty", {{"text", text}, {"flags", flags}}, &result, &error);
	if (rc == NUQ_E_OBJECT && err != nullptr)
		*err = error_record(error);
	return rc;
}

void harl_StatValue_free(harl_StatValue *value)
{
	if (value == nullptr)
		return;
	std::free(value->dsv_linkstat);
	std::free(value);
}

void harl_DatalinkError_free(harl_DatalinkError *err)
{
	if (err == nullptr)
		return;
	std::free(err->dde_errmsg);
	std::free(err);
}

}  // extern "C"
