#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <new>

#include "client.h"
#include "harl.h"
#include "nuq_errors.h"
#include "request.h"

namespace {

constexpr const char *kInterface = "harl.Datalink";

// The method's error record as the caller receives it; NULL when memory ran out.
harl_DatalinkError *error_record(const nlohmann::json &data)
{
	auto *err = static_cast<harl_DatalinkError *>(std::calloc(1, sizeof(harl_DatalinkError)));
	if (err == nullptr)
		return nullptr;
	// The record comes from another host: a member of the wrong type reads as absent.
	const nlohmann::json *code = nuq::member(data, "dde_err");
	const std::string *msg = nuq::text_member(data, "dde_errmsg");
	err->dde_err = code != nullptr && code->is_number_integer() ? code->get<int>() : 0;
	err->dde_errmsg = strdup(msg != nullptr ? msg->c_str() : "");
	return err;
}

}  // namespace

extern "C" {

int harl_Datalink__nuq_lookup(nuq_conn_t *conn, int strict, nuq_instance_t **inst, int nkeys, ...) noexcept
{
	va_list ap;
	va_start(ap, nkeys);
	const int rc = nuq::lookup_v(conn, kInterface, strict, inst, nkeys, ap);
	va_end(ap);
	return rc;
}

int harl_Datalink_getStat(nuq_instance_t *inst, void *, harl_StatValue **value, harl_DatalinkError **err) noexcept
{
	return nuq::client_boundary([&] {
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
		// Counters come from another host: anything but an unsigned integer is refused
		// rather than converted.
		const struct {
			const char *name;
			uint64_t *to;
		} counters[] = {{"dls_ipackets", &s->dls_ipackets}, {"dls_rbytes", &s->dls_rbytes},
		    {"dls_idrops", &s->dls_idrops}, {"dls_idropbytes", &s->dls_idropbytes},
		    {"dls_obytes", &s->dls_obytes}, {"dls_opackets", &s->dls_opackets}, {"dls_odrops", &s->dls_odrops},
		    {"dls_odropbytes", &s->dls_odropbytes}};
		for (const auto &c : counters) {
			const nlohmann::json *n = nuq::member(result, c.name);
			if (n == nullptr || !n->is_number_unsigned()) {
				std::free(v);
				std::free(s);
				return NUQ_E_PROTOCOL;
			}
			*c.to = n->get<uint64_t>();
		}
		v->dsv_discriminant = DST_LINK;
		v->dsv_linkstat = s;
		*value = v;
		return NUQ_E_SUCCESS;
	});
}

int harl_Datalink_setProperty(nuq_instance_t *inst, const char *text, int flags, harl_DatalinkError **err)
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

void harl_StatValue_free(harl_StatValue *value) noexcept
{
	if (value == nullptr)
		return;
	std::free(value->dsv_linkstat);
	std::free(value);
}

void harl_DatalinkError_free(harl_DatalinkError *err) noexcept
{
	if (err == nullptr)
		return;
	std::free(err->dde_errmsg);
	std::free(err);
}

}  // extern "C"

int harl_Datalink_getFlood(nuq_instance_t *inst, std::string *local, std::vector<std::string> *remotes,
    harl_DatalinkError **err)
{
	if (err != nullptr)
		*err = nullptr;
	local->clear();
	remotes->clear();
	nlohmann::json result, error;
	const int rc = nuq::call(inst, "getFlood", nlohmann::json::object(), &result, &error);
	if (rc == NUQ_E_OBJECT && err != nullptr)
		*err = error_record(error);
	if (rc != NUQ_E_SUCCESS)
		return rc;
	// From another host: anything but a text and an array of texts is refused.
	const std::string *l = nuq::text_member(result, "local");
	const nlohmann::json *list = nuq::member(result, "remotes");
	if (l == nullptr || list == nullptr || !list->is_array())
		return NUQ_E_PROTOCOL;
	for (const nlohmann::json &r : *list) {
		if (!r.is_string())
			return NUQ_E_PROTOCOL;
		remotes->push_back(r.get<std::string>());
	}
	*local = *l;
	return NUQ_E_SUCCESS;
}

int harl_Datalink_setFlood(nuq_instance_t *inst, const std::vector<std::string> &remotes, bool only_add,
    harl_DatalinkError **err)
{
	if (err != nullptr)
		*err = nullptr;
	nlohmann::json result, error;
	const int rc = nuq::call(inst, "setFlood", {{"remotes", remotes}, {"only_add", only_add}}, &result, &error);
	if (rc == NUQ_E_OBJECT && err != nullptr)
		*err = error_record(error);
	return rc;
}

int harl_Datalink_getState(nuq_instance_t *inst, HarlLinkState *state, harl_DatalinkError **err)
{
	if (err != nullptr)
		*err = nullptr;
	*state = HarlLinkState{};
	nlohmann::json result, error;
	const int rc = nuq::call(inst, "getState", nlohmann::json::object(), &result, &error);
	if (rc == NUQ_E_OBJECT && err != nullptr)
		*err = error_record(error);
	if (rc != NUQ_E_SUCCESS)
		return rc;
	// From another host: every member must be there with its type, or none is taken.
	const struct {
		const char *name;
		std::string *to;
	} texts[] = {{"mac", &state->mac}, {"lower", &state->lower}, {"lower_kind", &state->lower_kind},
	    {"local", &state->local}, {"group", &state->group}, {"filters", &state->filters},
	    {"allowed", &state->allowed}};
	for (const auto &t : texts) {
		const std::string *v = nuq::text_member(result, t.name);
		if (v == nullptr)
			return NUQ_E_PROTOCOL;
		*t.to = *v;
	}
	const nlohmann::json *id = nuq::member(result, "lower_id"), *maxbw = nuq::member(result, "maxbw"),
	                     *filtered = nuq::member(result, "filtered");
	if (id == nullptr || !id->is_number_unsigned() || id->get<uint64_t>() > UINT32_MAX || maxbw == nullptr ||
	    !maxbw->is_number_unsigned() || filtered == nullptr || !filtered->is_boolean())
		return NUQ_E_PROTOCOL;
	state->lower_id = id->get<uint32_t>();
	state->maxbw = maxbw->get<uint64_t>();
	state->filtered = filtered->get<bool>();
	return NUQ_E_SUCCESS;
}
