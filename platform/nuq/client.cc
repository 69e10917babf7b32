#include "client.h"

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <string>

#include "conn.h"
#include "nuq_errors.h"
#include "paths.h"
#include "request.h"
#include "unique_fd.h"
#include "wire.h"

using nlohmann::json;

struct nuq_instance {
	nuq_conn_t *conn;
	std::string interface;
	json keys;
};

namespace nuq {

std::chrono::milliseconds call_timeout()
{
	const char *text = secure_getenv("KEL_NUQ_TIMEOUT_MS");
	const long ms = text != nullptr ? std::strtol(text, nullptr, 10) : 0;
	return std::chrono::milliseconds(ms > 0 ? ms : 30000);
}

}  // namespace nuq

namespace {

// What ssh said since the last exchange is passed on before the next, so that a
// talkative ssh (a configuration asking for its debug output) never fills the pipe and
// stalls.
void pass_on_errors(nuq_conn_t *conn)
{
	if (conn->relay_errors != -1)
		nuq::relay_errors(conn);
}

}  // namespace

namespace nuq {

int exchange(nuq_conn_t *conn, const std::string &op, const json &params, json *result, json *error)
{
	if (conn->broken)
		return NUQ_E_CLOSED;
	const long id = conn->next_id++;
	const json req = {{"jsonrpc", "2.0"}, {"id", id}, {"method", op}, {"params", params}};
	// A server that turned this connection away has answered and closed it: the write
	// may fail, but its answer is still there to read.
	const bool sent = nuq::write_line(conn->out, nuq::dump_line(req));
	std::string line;
	const nuq::ReadResult got = conn->reader.read(&line, conn->timeout);
	if (!sent || got != nuq::ReadResult::Line)
		conn->broken = true;
	switch (got) {
	case nuq::ReadResult::Line: break;
	case nuq::ReadResult::Timeout: return sent ? NUQ_E_TIMEOUT : NUQ_E_CLOSED;
	case nuq::ReadResult::TooLong: return NUQ_E_PROTOCOL;
	default: return NUQ_E_CLOSED;
	}
	// A reply is held to the same nesting bound as a request: it may come from a host
	// that is not to be trusted.
	const json reply = nuq::nesting_within(line, nuq::kMaxNesting) ? json::parse(line, nullptr, false)
	                                                               : json(json::value_t::discarded);
	const json *reply_id = nuq::member(reply, "id");
	if (reply_id == nullptr) {
		conn->broken = true;
		return NUQ_E_PROTOCOL;
	}
	const json *res = nuq::member(reply, "result");
	if (res != nullptr && *reply_id == json(id)) {
		*result = *res;
		return NUQ_E_SUCCESS;
	}
	// An error without an id answers a request the server could not read, or the
	// connection itself (a refused caller): with one request in flight, it is this one's.
	const json *err = nuq::member(reply, "error");
	const json *code = err != nullptr ? nuq::member(*err, "code") : nullptr;
	if (code == nullptr || !code->is_number_integer() || (*reply_id != json(id) && !reply_id->is_null())) {
		conn->broken = true;
		return NUQ_E_PROTOCOL;
	}
	if (error != nullptr) {
		const json *data = nuq::member(*err, "data");
		*error = data != nullptr ? *data : json();
	}
	return nuq::from_wire_code(code->get<long>());
}

int connect_unix(const std::string &path)
{
	struct sockaddr_un addr {};
	if (path.size() >= sizeof(addr.sun_path))
		return -1;
	kel::UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
	if (!fd.valid())
		return -1;
	addr.sun_family = AF_UNIX;
	std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
	if (connect(fd.get(), reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr)) != 0)
		return -1;
	return fd.release();
}

nuq_conn_t *connect_fds(int in, int out)
{
	auto *conn = new (std::nothrow) nuq_conn_t;
	if (conn == nullptr)
		return nullptr;
	conn->in = in;
	conn->out = out;
	conn->reader = LineReader(in);
	conn->timeout = call_timeout();
	return conn;
}

int call(nuq_instance_t *inst, const char *method, const json &args, json *result, json *error)
{
	if (inst == nullptr || method == nullptr)
		return NUQ_E_BADARGS;
	try {
		std::lock_guard<std::mutex> hold(inst->conn->mutex);
		pass_on_errors(inst->conn);
		json res;
		const int rc = exchange(inst->conn, "call",
		    {{"interface", inst->interface}, {"keys", inst->keys}, {"method", method}, {"args", args}}, &res,
		    error);
		if (rc == NUQ_E_SUCCESS && result != nullptr)
			*result = std::move(res);
		return rc;
	} catch (const std::bad_alloc &) {
		return NUQ_E_NOMEM;
	}
}

int lookup_v(nuq_conn_t *conn, const char *interface, int strict, nuq_instance_t **out, int nkeys, va_list ap)
{
	if (out == nullptr)
		return NUQ_E_BADARGS;
	*out = nullptr;
	if (conn == nullptr || interface == nullptr)
		return NUQ_E_BADARGS;
	try {
		json keys = json::object();
		for (int i = 0; i < nkeys; i++) {
			const char *name = va_arg(ap, const char *);
			const char *value = va_arg(ap, const char *);
			if (name == nullptr)
				return NUQ_E_BADARGS;
			if (value != nullptr)  // a key without a value is left to the server's default
				keys[name] = value;
		}
		if (strict == NUQ_LOOKUP_NAMED) {
			*out = new nuq_instance_t{conn, interface, keys};
			return NUQ_E_SUCCESS;
		}
		std::lock_guard<std::mutex> hold(conn->mutex);
		pass_on_errors(conn);
		json result;
		const int rc = exchange(conn, "lookup",
		    {{"interface", interface}, {"keys", keys}, {"strict", strict != 0}}, &result, nullptr);
		if (rc != NUQ_E_SUCCESS)
			return rc;
		const json *found = nuq::member(result, "keys");
		if (found == nullptr || !found->is_object())
			return NUQ_E_PROTOCOL;
		*out = new nuq_instance_t{conn, interface, *found};
		return NUQ_E_SUCCESS;
	} catch (const std::bad_alloc &) {
		return NUQ_E_NOMEM;
	}
}

const json &keys(const nuq_instance_t *inst)
{
	return inst->keys;
}

}  // namespace nuq

extern "C" {

nuq_conn_t *nuq_connect_uri(const nuq_uri_t *uri, void *)
{
	if (uri == nullptr)
		return nullptr;
	try {
		if (nuq_uri_get_scheme(uri) == NUQS_UNIX) {
			const std::string path = *nuq_uri_get_path(uri) != '\0'
			    ? std::string(nuq_uri_get_path(uri))
			    : kel::paths::under_root(kel::paths::kSocketFile);
			kel::UniqueFd fd(nuq::connect_unix(path));
			if (!fd.valid())
				return nullptr;
			nuq_conn_t *conn = nuq::connect_fds(fd.get(), fd.get());
			if (conn != nullptr)
				(void)fd.release();  // the connection's from now on
			return conn;
		}
		if (*nuq_uri_get_host(uri) == '\0')
			return nullptr;  // an ssh template without a host reaches nobody
		return nuq::connect_ssh(uri);
	} catch (const std::bad_alloc &) {
		return nullptr;
	}
}

void nuq_disconnect(nuq_conn_t *conn) noexcept
{
	if (conn == nullptr)
		return;
	if (conn->out != -1 && conn->out != conn->in)
		close(conn->out);
	if (conn->in != -1)
		close(conn->in);
	if (conn->relay != -1) {
		// Closing its stdin ends the ssh session; it is reaped so no zombie stays.
		int status;
		if (waitpid(conn->relay, &status, WNOHANG) == 0) {
			kill(conn->relay, SIGTERM);
			waitpid(conn->relay, &status, 0);
		}
	}
	if (conn->relay_errors != -1) {
		try {
			nuq::relay_errors(conn);
		} catch (const std::bad_alloc &) {
			// Without memory ssh's words are lost; the connection still goes.
		}
		close(conn->relay_errors);
	}
	delete conn;
}

int nuq_lookup(nuq_conn_t *conn, const char *interface, int strict, nuq_instance_t **out, int nkeys, ...)
{
	va_list ap;
	va_start(ap, nkeys);
	const int rc = nuq::lookup_v(conn, interface, strict, out, nkeys, ap);
	va_end(ap);
	return rc;
}

void nuq_instance_rele(nuq_instance_t *inst) noexcept
{
	delete inst;
}

int nuq_conn_usable(const nuq_conn_t *conn)
{
	if (conn == nullptr || conn->broken)
		return 0;
	// Between calls nothing is owed on a connection: anything to read is its end (the
	// server gone, the ssh session closed) or words out of turn, and either leaves it
	// unfit to carry the next call.
	struct pollfd p = {conn->in, POLLIN, 0};
	return poll(&p, 1, 0) == 0;
}

}  // extern "C"
