#include "daemon_client.h"

#include <type_traits>

#include "client.h"
#include "nuq_errors.h"
#include "request.h"

namespace {

// Calls `method` of the host's kel.Daemon.
int call_daemon(nuq_conn_t *conn, const char *method, const nlohmann::json &args, nlohmann::json *result)
{
	nuq_instance_t *inst = nullptr;
	int rc = nuq_lookup(conn, "kel.Daemon", 0, &inst, 0);
	if (rc != NUQ_E_SUCCESS)
		return rc;
	nlohmann::json error;
	rc = nuq::call(inst, method, args, result, &error);
	nuq_instance_rele(inst);
	return rc;
}

}  // namespace

int daemon_info(nuq_conn_t *conn, bool check, DaemonInfo *out)
{
	nlohmann::json result;
	const int rc = call_daemon(conn, "info", {{"check", check}}, &result);
	if (rc != NUQ_E_SUCCESS)
		return rc;
	// The answer comes from another host: a member that is absent or of the wrong type
	// leaves the field as it was, and a missing core refuses the whole answer.
	const std::string *version = nuq::text_member(result, "version");
	if (version == nullptr)
		return NUQ_E_PROTOCOL;
	out->version = *version;
	if (const std::string *host = nuq::text_member(result, "host"))
		out->host = *host;
	if (const std::string *controller = nuq::text_member(result, "controller"))
		out->controller = *controller;
	auto number = [&](const char *name, auto *to) {
		using T = std::remove_pointer_t<decltype(to)>;
		const nlohmann::json *n = nuq::member(result, name);
		if (n != nullptr && (std::is_signed_v<T> ? n->is_number_integer() : n->is_number_unsigned()))
			*to = n->get<T>();
	};
	number("pid", &out->pid);
	number("uptime", &out->uptime);
	number("reloads", &out->reloads);
	if (const nlohmann::json *reached = nuq::member(result, "controller_rc");
	    reached != nullptr && reached->is_number_integer()) {
		out->checked = true;
		out->controller_rc = reached->get<int>();
	}
	return NUQ_E_SUCCESS;
}

int daemon_leftovers(nuq_conn_t *conn, std::vector<Leftover> *out)
{
	nlohmann::json result;
	const int rc = call_daemon(conn, "getLeftovers", {{"grace", 0}}, &result);
	if (rc != NUQ_E_SUCCESS)
		return rc;
	const nlohmann::json *list = nuq::member(result, "leftovers");
	if (list == nullptr || !list->is_array())
		return NUQ_E_PROTOCOL;
	for (const nlohmann::json &l : *list) {
		const std::string *kind = nuq::text_member(l, "kind"), *name = nuq::text_member(l, "name"),
		                  *what = nuq::text_member(l, "what");
		const nlohmann::json *age = nuq::member(l, "age");
		if (kind == nullptr || name == nullptr || what == nullptr)
			return NUQ_E_PROTOCOL;
		out->push_back(
		    {*kind, *name, *what, age != nullptr && age->is_number_integer() ? age->get<int64_t>() : 0});
	}
	return NUQ_E_SUCCESS;
}

int daemon_remove_leftover(nuq_conn_t *conn, const Leftover &what)
{
	nlohmann::json result;
	return call_daemon(conn, "removeLeftover", {{"kind", what.kind}, {"name", what.name}}, &result);
}
