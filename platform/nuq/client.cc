#include "client.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
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
#include <vector>

#include "nuq_errors.h"
#include "paths.h"
#include "request.h"
#include "ssh_share.h"
#include "wire.h"

using nlohmann::json;

struct nuq_conn {
	int in = -1;		// replies come from here
	int out = -1;		// requests go there (the same socket for unix://)
	pid_t relay = -1;	// the ssh process, for ssh://
	int relay_errors = -1;	// what it writes to its standard error (non-blocking)
	std::string host;	// where it goes, to name in what it says
	nuq::LineReader reader{-1};
	std::mutex mutex;	// one call at a time per connection
	long next_id = 1;
	std::chrono::milliseconds timeout{30000};
	bool broken = false;	// after a time-out or a framing error replies cannot be matched
};

struct nuq_instance {
	nuq_conn_t *conn;
	std::string interface;
	json keys;
};

namespace {

std::chrono::milliseconds call_timeout()
{
	const char *text = secure_getenv("KEL_NUQ_TIMEOUT_MS");
	const long ms = text != nullptr ? std::strtol(text, nullptr, 10) : 0;
	return std::chrono::milliseconds(ms > 0 ? ms : 30000);
}

int connect_unix(const std::string &path)
{
	struct sockaddr_un addr {};
	if (path.size() >= sizeof(addr.sun_path))
		return -1;
	const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
	if (fd == -1)
		return -1;
	addr.sun_family = AF_UNIX;
	std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
	if (connect(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr)) != 0) {
		close(fd);
		return -1;
	}
	return fd;
}

// Starts ssh with the remote command "keld bridge [path]"; its stdio carries the wire, and
// what it says on its standard error comes to *errors_from_child, to be passed on with
// the host's name (relay_errors). posix_spawn rather than fork: callers may reach several
// hosts from several threads.
pid_t start_relay(const nuq_uri_t *uri, int *to_child, int *from_child, int *errors_from_child)
{
	std::string target = nuq_uri_get_host(uri);
	if (*nuq_uri_get_user(uri) != '\0')
		target = std::string(nuq_uri_get_user(uri)) + "@" + target;
	std::vector<std::string> argv = {"ssh", "-T", "-o", "BatchMode=yes"};
	for (std::string &option : nuq::ssh_share_options())
		argv.push_back(std::move(option));
	// The fabric's own ssh settings (keys, known hosts, options), when it has them.
	if (const char *config = secure_getenv("KEL_SSH_CONFIG"); config != nullptr && *config) {
		argv.push_back("-F");
		argv.push_back(config);
	}
	if (nuq_uri_get_port(uri) != 0) {
		argv.push_back("-p");
		argv.push_back(std::to_string(nuq_uri_get_port(uri)));
	}
	argv.push_back(target);
	argv.push_back("keld");
	argv.push_back("bridge");
	if (*nuq_uri_get_path(uri) != '\0')
		argv.push_back(nuq_uri_get_path(uri));
	std::vector<char *> args;
	for (std::string &a : argv)
		args.push_back(a.data());
	args.push_back(nullptr);

	int down[2], up[2], err[2];
	if (pipe2(down, O_CLOEXEC) != 0)
		return -1;
	if (pipe2(up, O_CLOEXEC) != 0) {
		close(down[0]);
		close(down[1]);
		return -1;
	}
	if (pipe2(err, O_CLOEXEC) != 0) {
		for (int fd : {down[0], down[1], up[0], up[1]})
			close(fd);
		return -1;
	}
	posix_spawn_file_actions_t actions;
	pid_t pid = -1;
	if (posix_spawn_file_actions_init(&actions) == 0) {
		if (posix_spawn_file_actions_adddup2(&actions, down[0], STDIN_FILENO) == 0 &&
		    posix_spawn_file_actions_adddup2(&actions, up[1], STDOUT_FILENO) == 0 &&
		    posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO) == 0 &&
		    posix_spawnp(&pid, "ssh", &actions, nullptr, args.data(), environ) != 0)
			pid = -1;
		posix_spawn_file_actions_destroy(&actions);
	}
	close(down[0]);
	close(up[1]);
	close(err[1]);
	if (pid == -1) {
		close(down[1]);
		close(up[0]);
		close(err[0]);
		return -1;
	}
	// Read before each exchange and when the connection ends; a shared connection's
	// master leaves the pipe when it goes to the background.
	(void)fcntl(err[0], F_SETFL, O_NONBLOCK);
	*to_child = down[1];
	*from_child = up[0];
	*errors_from_child = err[0];
	return pid;
}

// Passes on what the connection's ssh said, each line named with its host, so that an
// operator sees whose message it is; a caller's terminal never gets ssh's bare words.
void relay_errors(nuq_conn_t *conn)
{
	std::string text;
	char buf[4096];
	ssize_t n;
	while ((n = read(conn->relay_errors, buf, sizeof(buf))) > 0)
		text.append(buf, static_cast<size_t>(n));
	for (size_t pos = 0; pos < text.size();) {
		size_t end = text.find('\n', pos);
		if (end == std::string::npos)
			end = text.size();
		std::string line = text.substr(pos, end - pos);
		if (!line.empty() && line.back() == '\r')
			line.pop_back();
		if (!line.empty()) {
			const std::string out = "ssh to " + conn->host + ": " + line + "\n";
			(void)!write(STDERR_FILENO, out.data(), out.size());
		}
		pos = end + 1;
	}
}

// Sends one request and waits for its reply; the connection's mutex is held.
int exchange(nuq_conn_t *conn, const std::string &op, const json &params, json *result,
    json *error)
{
	if (conn->broken)
		return NUQ_E_CLOSED;
	// What ssh said since the last exchange is passed on now, so that a talkative ssh
	// (a configuration asking for its debug output) never fills the pipe and stalls.
	if (conn->relay_errors != -1)
		relay_errors(conn);
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

}  // namespace

namespace nuq {

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
		json res;
		const int rc = exchange(inst->conn, "call",
		    {{"interface", inst->interface}, {"keys", inst->keys}, {"method", method}, {"args", args}},
		    &res, error);
		if (rc == NUQ_E_SUCCESS && result != nullptr)
			*result = std::move(res);
		return rc;
	} catch (const std::bad_alloc &) {
		return NUQ_E_NOMEM;
	}
}

int lookup_v(nuq_conn_t *conn, const char *interface, int strict, nuq_instance_t **out,
    int nkeys, va_list ap)
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
			if (value != nullptr)	// a key without a value is left to the server's default
				keys[name] = value;
		}
		std::lock_guard<std::mutex> hold(conn->mutex);
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
			const int fd = connect_unix(path);
			if (fd == -1)
				return nullptr;
			nuq_conn_t *conn = nuq::connect_fds(fd, fd);
			if (conn == nullptr)
				close(fd);
			return conn;
		}
		if (*nuq_uri_get_host(uri) == '\0')
			return nullptr;	// an ssh template without a host reaches nobody
		int to_child = -1, from_child = -1, errors = -1;
		const pid_t pid = start_relay(uri, &to_child, &from_child, &errors);
		if (pid == -1)
			return nullptr;
		nuq_conn_t *conn = nuq::connect_fds(from_child, to_child);
		if (conn == nullptr) {
			close(to_child);
			close(from_child);
			close(errors);
			kill(pid, SIGTERM);
			waitpid(pid, nullptr, 0);
			return nullptr;
		}
		conn->relay = pid;
		conn->relay_errors = errors;
		conn->host = nuq_uri_get_host(uri);
		// Starting ssh proves nothing about the far end: one exchange does.
		json pong;
		if (exchange(conn, "ping", json::object(), &pong, nullptr) != NUQ_E_SUCCESS) {
			nuq_disconnect(conn);
			return nullptr;
		}
		return conn;
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
			relay_errors(conn);
		} catch (const std::bad_alloc &) {
			// Without memory ssh's words are lost; the connection still goes.
		}
		close(conn->relay_errors);
	}
	delete conn;
}

int nuq_lookup(nuq_conn_t *conn, const char *interface, int strict, nuq_instance_t **out,
    int nkeys, ...)
{
	va_list ap;
	va_start(ap, nkeys);
	const int rc = nuq::lookup_v(conn, interface, strict, out, nkeys, ap);
	va_end(ap);
	return rc;
}

void nuq_instance_rele(nuq_instance_t *inst)
{
	delete inst;
}

}  // extern "C"
