#include "connections.h"

#include <netdb.h>
#include <sys/utsname.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>

#include <kel/libkel_node.h>
#include "c_boundary.h"
#include "ctrlprop.h"
#include "kel_assert.h"
#include "kept.h"
#include "nuq_errors.h"
#include "nuq_types.h"
#include "service_config.h"
#include "sql.h"
#include "text.h"
#include "xml_uri.h"

namespace {

constexpr size_t kUriLen = 1024;

int connection_to_kelnode(kel_dbhandle_t h, const char *hostname, nuq_conn_t **conn)
{
	char uri[kUriLen];
	int rc = kel_kelnode_uri(h, hostname, uri, sizeof(uri));
	if (rc != KEL_SUCCESS)
		return rc;
	return kel_connect_uri(uri, conn) == KEL_SUCCESS ? KEL_SUCCESS : KEL_E_HOST_CONNECT;
}

}  // namespace

int kel_kelnode_uri(kel_dbhandle_t h, const char *hostname, char *uri, size_t size)
{
	char tmpl[kUriLen];
	{
		// The lock covers reading the template, not the connecting.
		kel::StoreLock lock(h);
		int rc = lock.status();
		if (rc != KEL_SUCCESS)
			return rc;
		rc = kel_db_get_one_hostprop(h, hostname, "uri-template", DATA_TYPE_STRING, tmpl, sizeof(tmpl));
		if (rc == KEL_E_NOTFOUND)
			rc = kel_db_get_one_hostprop(h, nullptr, "uri-template", DATA_TYPE_STRING, tmpl, sizeof(tmpl));
		if (rc != KEL_SUCCESS)
			return rc;
	}
	return kel_host_uri(tmpl, hostname, uri, size);
}

int kel_connect_uri(const char *uri, nuq_conn_t **conn)
{
	*conn = nullptr;
	nuq_uri_t *parsed = nuq_alloc_uri(uri, NUQS_UNIX | NUQS_SSH);
	if (parsed == nullptr)
		return KEL_E_CTRL_CONNECT;
	*conn = nuq_connect_uri(parsed, nullptr);
	nuq_free_uri(parsed);
	return *conn != nullptr ? KEL_SUCCESS : KEL_E_CTRL_CONNECT;
}

int kel_host_uri(const char *tmpl, const char *hostname, char *buf, size_t size)
{
	const kel::xml_uri::Ptr uri = kel::xml_uri::parse(tmpl);
	if (uri == nullptr)
		return KEL_E_NOMEM;
	const bool user = uri->user != nullptr && *uri->user != '\0';
	int n;
	if (uri->scheme != nullptr && std::strcmp(uri->scheme, "unix") == 0) {
		// A unix template reaches the daemon of the controller's own host.
		n = std::snprintf(buf, size, "unix://%s%s%s", user ? uri->user : "", user ? "@localhost" : "",
		    uri->path != nullptr ? uri->path : "");
	} else {
		KEL_ASSERT(kel::kAreaNuq, uri->scheme != NULL && strcmp(uri->scheme, "ssh") == 0);
		n = std::snprintf(buf, size, "ssh://%s%s%s", user ? uri->user : "", user ? "@" : "", hostname);
	}
	return n >= 0 && static_cast<size_t>(n) < size ? KEL_SUCCESS : KEL_E_NOSPACE;
}

int kel_controller_uri(char *buf, size_t size) noexcept
{
	if (buf == nullptr || size == 0)
		return KEL_E_INVALID_ARGS;
	buf[0] = '\0';
	return kel::c_boundary(
	    [&] { return kel_tog_get_one_value(KEL_NODE_FMRI, "config", "controller", VUR_TYPE_ASTRING, buf, size); });
}

// The canonical name of the node name, as the name service knows it.
int kel_get_hostname(char *buf, uint_t size) noexcept
{
	if (size > 0)
		buf[0] = '\0';
	struct utsname u;
	if (uname(&u) != 0)
		return KEL_E_HOSTNAME_LOOKUP;
	struct addrinfo hints {};
	hints.ai_flags = AI_CANONNAME;
	struct addrinfo *res = nullptr;
	if (getaddrinfo(u.nodename, nullptr, &hints, &res) != 0 || res == nullptr)
		return KEL_E_HOSTNAME_LOOKUP;
	if (size > 0)
		kel::copy_text(buf, res->ai_canonname != nullptr ? res->ai_canonname : u.nodename, size);
	freeaddrinfo(res);
	return KEL_SUCCESS;
}

// The node side's hold on a kept connection to the controller.
struct kel_kept_conn_s {
	nuq::KeptConnection conn;
};

extern "C" {

int kel_kept_controller(unsigned index, kel_kept_conn_t **kept) noexcept
{
	if (kept == nullptr)
		return KEL_E_INVALID_ARGS;
	*kept = nullptr;
	return kel::c_boundary([&] {
		char setting[kUriLen];
		const int rc = kel_controller_uri(setting, sizeof(setting));
		if (rc != KEL_SUCCESS)
			return rc;
		const std::vector<std::string> uris = kel::controller_list(setting);
		// An empty setting reaches no controller, as a URI that does not parse.
		if (index >= std::max<size_t>(uris.size(), 1))
			return KEL_E_NOTFOUND;
		auto held = std::make_unique<kel_kept_conn_s>();
		if (uris.empty() || held->conn.open(uris[index]) != NUQ_E_SUCCESS)
			return KEL_E_CTRL_CONNECT;
		*kept = held.release();
		return KEL_SUCCESS;
	});
}

nuq_conn_t *kel_kept_conn(const kel_kept_conn_t *kept) noexcept
{
	return kept != nullptr ? kept->conn.get() : nullptr;
}

void kel_kept_release(kel_kept_conn_t *kept) noexcept
{
	delete kept;  // gives the connection back to be kept
}

int kel_nuq_connection_to_controller(nuq_conn_t **conn) noexcept
{
	if (conn == nullptr)
		return KEL_E_INVALID_ARGS;
	*conn = nullptr;
	return kel::c_boundary([&] {
		char setting[kUriLen];
		int rc = kel_controller_uri(setting, sizeof(setting));
		if (rc != KEL_SUCCESS)
			return rc;
		// The first of the host's controllers that answers.
		rc = KEL_E_CTRL_CONNECT;
		for (const std::string &uri : kel::controller_list(setting))
			if ((rc = kel_connect_uri(uri.c_str(), conn)) == KEL_SUCCESS)
				break;
		return rc;
	});
}

int kel_nuq_connection_to_kelnode(kel_dbhandle_t h, const char *hostname, nuq_conn_t **conn) noexcept
{
	if (conn == nullptr || h == nullptr)
		return KEL_E_INVALID_ARGS;
	*conn = nullptr;
	KEL_ASSERT(kel::kAreaNuq, hostname != NULL);
	return kel::c_boundary([&] { return connection_to_kelnode(h, hostname, conn); });
}

int kel_nuq_connection_to_self(nuq_conn_t **conn) noexcept
{
	if (conn == nullptr)
		return KEL_E_INVALID_ARGS;
	*conn = nullptr;
	return kel::c_boundary([&] { return kel_connect_uri("unix://", conn); });
}

}  // extern "C"
