#include "daemon_client.h"

#include <type_traits>

#include "client.h"
#include "nuq_errors.h"
#include "request.h"

int daemon_info(nuq_conn_t *conn, bool check, DaemonInfo *out)
{
	nuq_instance_t *inst = nullptr;
	int rc = nuq_lookup(conn, "kel.Daemon", 0, &inst, 0);
	if (rc != NUQ_E_SUCCESS)
		return rc;
	nlohmann::json result, error;
	rc = nuq::call(inst, "info", {{"check", check}}, &result, &error);
	nuq_instance_rele(inst);
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
