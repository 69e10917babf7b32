// Reaching a host over ssh: ssh runs "keld bridge" there, which relays the session to
// keld's socket. The connection is shared through ssh's multiplexing (ssh_share.h), and
// set up again when ssh could not set it up, before anything but a ping went.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "client.h"
#include "conn.h"
#include "nuq_errors.h"
#include "ssh_share.h"

using nlohmann::json;

namespace {

const char *ssh_config()
{
	const char *config = secure_getenv("KEL_SSH_CONFIG");
	return config != nullptr ? config : "";
}

std::string ssh_target(const nuq_uri_t *uri)
{
	std::string target = nuq_uri_get_host(uri);
	if (*nuq_uri_get_user(uri) != '\0')
		target = std::string(nuq_uri_get_user(uri)) + "@" + target;
	return target;
}

// Starts ssh with the remote command "keld bridge [path]"; its stdio carries the wire, and
// what it says on its standard error comes to *errors_from_child, to be passed on with
// the host's name (relay_errors). posix_spawn rather than fork: callers may reach several
// hosts from several threads.
pid_t start_relay(const nuq_uri_t *uri, const std::vector<std::string> &share, int *to_child, int *from_child,
    int *errors_from_child)
{
	std::vector<std::string> argv = {"ssh", "-T", "-o", "BatchMode=yes"};
	argv.insert(argv.end(), share.begin(), share.end());
	// The fabric's own ssh settings (keys, known hosts, options), when it has them.
	if (const char *config = ssh_config(); *config != '\0') {
		argv.push_back("-F");
		argv.push_back(config);
	}
	if (nuq_uri_get_port(uri) != 0) {
		argv.push_back("-p");
		argv.push_back(std::to_string(nuq_uri_get_port(uri)));
	}
	argv.push_back(ssh_target(uri));
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

// What ssh has written to its standard error so far.
std::string read_errors(int fd)
{
	std::string text;
	char buf[4096];
	ssize_t n;
	while ((n = read(fd, buf, sizeof(buf))) > 0)
		text.append(buf, static_cast<size_t>(n));
	return text;
}

// Passes on what ssh said, each line named with its host, so that an operator sees whose
// message it is; a caller's terminal never gets ssh's bare words.
void say_for(const std::string &host, const std::string &text)
{
	for (size_t pos = 0; pos < text.size();) {
		size_t end = text.find('\n', pos);
		if (end == std::string::npos)
			end = text.size();
		std::string line = text.substr(pos, end - pos);
		if (!line.empty() && line.back() == '\r')
			line.pop_back();
		if (!line.empty()) {
			const std::string out = "ssh to " + host + ": " + line + "\n";
			(void)!write(STDERR_FILENO, out.data(), out.size());
		}
		pos = end + 1;
	}
}

// ssh's exit status for a failure of its own (connecting, key exchange, authentication,
// a session the shared connection refused), as opposed to the remote command's.
constexpr int kSshFailed = 255;
// A login that ssh could not make (the sshd turning new connections away while too many
// are pending) is tried a few times; a session the standing connection refused (it
// holds as many as the sshd allows) is tried until the call's time is up, for one of its
// sessions to end. Each after a pause that grows and varies, so that callers turned away
// together come back apart.
constexpr int kLoginAttempts = 5;
constexpr std::chrono::milliseconds kFirstPause{50}, kLongestPause{500};

// The exit status of the connection's ssh, which has closed its end; -1 when it does not
// end within a second (the connection's end then stops it).
int relay_status(nuq_conn_t *conn)
{
	for (int i = 0; i < 100; i++) {
		int status = 0;
		const pid_t done = waitpid(conn->relay, &status, WNOHANG);
		if (done == conn->relay) {
			conn->relay = -1;
			return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
		}
		if (done == -1 && errno != EINTR)
			return -1;
		std::this_thread::sleep_for(std::chrono::milliseconds(10));
	}
	return -1;
}

struct Attempt {
	nuq_conn_t *conn = nullptr;	// the connection made
	bool again = false;	// else: ssh failed to set it up, before any reply
	std::string words;	// what ssh said of the failure, kept back
};

// One attempt at a connection over ssh with the sharing options `share`: made once a
// ping is answered. When ssh fails before any reply, nothing but the ping went, and a
// ping changes nothing: another attempt is safe, as it would not be once a call may have
// been delivered.
Attempt try_ssh(const nuq_uri_t *uri, const std::vector<std::string> &share)
{
	Attempt attempt;
	int to_child = -1, from_child = -1, errors = -1;
	const pid_t pid = start_relay(uri, share, &to_child, &from_child, &errors);
	if (pid == -1)
		return attempt;
	nuq_conn_t *conn = nuq::connect_fds(from_child, to_child);
	if (conn == nullptr) {
		close(to_child);
		close(from_child);
		close(errors);
		kill(pid, SIGTERM);
		waitpid(pid, nullptr, 0);
		return attempt;
	}
	conn->relay = pid;
	conn->relay_errors = errors;
	conn->host = nuq_uri_get_host(uri);
	// Starting ssh proves nothing about the far end: one exchange does.
	json pong;
	const int rc = nuq::exchange(conn, "ping", json::object(), &pong, nullptr);
	if (rc == NUQ_E_SUCCESS) {
		attempt.conn = conn;
		return attempt;
	}
	attempt.again = rc == NUQ_E_CLOSED && relay_status(conn) == kSshFailed;
	// ssh's words wait for the caller to know whether another attempt follows; the
	// connection's end stops ssh if it still runs, so that they are all there.
	conn->relay_errors = -1;
	nuq_disconnect(conn);
	attempt.words = read_errors(errors);
	close(errors);
	return attempt;
}

}  // namespace

namespace nuq {

void relay_errors(nuq_conn_t *conn)
{
	say_for(conn->host, read_errors(conn->relay_errors));
}

// A connection over ssh, sharing the destination's standing connection, or making it
// while the other callers that find none wait for it rather than log in beside it.
nuq_conn_t *connect_ssh(const nuq_uri_t *uri)
{
	const nuq::SshShare share(ssh_target(uri) + "\n" + std::to_string(nuq_uri_get_port(uri)) + "\n" + ssh_config());
	const auto deadline = std::chrono::steady_clock::now() + call_timeout();
	nuq::FileSlot session;
	if (share.enabled() &&
	    (session = nuq::FileSlot(share.sessions_file(), nuq::SshShare::kSessions, deadline)).timed_out())
		return nullptr;	// the call's time is up, waiting for a session
	std::minstd_rand jitter(std::random_device{}());
	std::chrono::milliseconds pause = kFirstPause;
	for (int logins = 0;;) {
		bool through_master = share.master_up();
		nuq::FileSlot setup;
		if (share.enabled() && !through_master) {
			if ((setup = nuq::FileSlot(share.setup_file(), 1, deadline)).timed_out())
				return nullptr;	// likewise, waiting for another's set-up
			through_master = share.master_up();	// made while this one waited
		}
		logins += through_master ? 0 : 1;
		Attempt attempt = try_ssh(uri, share.options(through_master));
		if (attempt.conn != nullptr) {
			attempt.conn->session = std::move(session);
			return attempt.conn;
		}
		const auto wait = pause / 2 + std::chrono::milliseconds(jitter() % pause.count());
		if (!attempt.again || (!through_master && logins == kLoginAttempts) ||
		    std::chrono::steady_clock::now() + wait >= deadline) {
			say_for(nuq_uri_get_host(uri), attempt.words);
			return nullptr;
		}
		setup = nuq::FileSlot();
		std::this_thread::sleep_for(wait);
		pause = std::min(pause * 2, kLongestPause);
	}
}

}  // namespace nuq
