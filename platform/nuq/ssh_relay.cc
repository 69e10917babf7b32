// Reaching a host over ssh: ssh runs "keld bridge" there, which relays the session to
// keld's socket. The connection is shared through ssh's multiplexing (ssh_share.h), and
// set up again when ssh could not set it up, before anything but a ping went. Once a
// session on the shared connection is answered, the connection is asked to forward a
// socket of the caller's to keld's socket there, and later calls go that way: a session
// costs an ssh client, a remote shell and the bridge, started anew for each call (some
// 20 ms), while a forwarded call costs a connect.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
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
#include "request.h"
#include "ssh_share.h"
#include "unique_fd.h"

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

// ssh's arguments up to the destination: `options`, then the fabric's own settings (keys,
// known hosts, options) when it has them, the port, and the destination.
std::vector<std::string> ssh_argv(const nuq_uri_t *uri, const std::vector<std::string> &options)
{
	// A host that does not take the connection within 10 s counts as down: a node with
	// several controllers goes on to the next rather than wait out TCP's own time-out,
	// and a fan-out is not held up by a machine that is gone.
	std::vector<std::string> argv = {"ssh", "-o", "BatchMode=yes", "-o", "ConnectTimeout=10"};
	argv.insert(argv.end(), options.begin(), options.end());
	if (const char *config = ssh_config(); *config != '\0') {
		argv.push_back("-F");
		argv.push_back(config);
	}
	if (nuq_uri_get_port(uri) != 0) {
		argv.push_back("-p");
		argv.push_back(std::to_string(nuq_uri_get_port(uri)));
	}
	argv.push_back(ssh_target(uri));
	return argv;
}

std::vector<char *> c_args(std::vector<std::string> &argv)
{
	std::vector<char *> args;
	for (std::string &a : argv)
		args.push_back(a.data());
	args.push_back(nullptr);
	return args;
}

// A pipe, its ends into *read_end and *write_end; false when none could be made.
bool make_pipe(kel::UniqueFd *read_end, kel::UniqueFd *write_end)
{
	int ends[2];
	if (pipe2(ends, O_CLOEXEC) != 0)
		return false;
	read_end->reset(ends[0]);
	write_end->reset(ends[1]);
	return true;
}

// Starts ssh with the remote command "SBINDIR/keld bridge [path]"; its stdio carries the
// wire, and what it says on its standard error comes to *errors_from_child, to be passed
// on with the host's name (relay_errors). posix_spawn rather than fork: callers may reach
// several hosts from several threads.
pid_t start_relay(const nuq_uri_t *uri, const std::vector<std::string> &share, kel::UniqueFd *to_child,
    kel::UniqueFd *from_child, kel::UniqueFd *errors_from_child)
{
	std::vector<std::string> options = {"-T"};
	options.insert(options.end(), share.begin(), share.end());
	std::vector<std::string> argv = ssh_argv(uri, options);
	// keld by the path it is installed at rather than by name: the login may be a user of
	// the fabric's own, not root, and such a login's PATH holds no sbin directory (Debian
	// gives /usr/local/bin:/usr/bin:/bin:/usr/games). A fixed path is found whatever that
	// PATH holds, lets no directory on it stand in for keld, and is no shell syntax to
	// the login shell, whichever it is. Every host installs keld at the same path.
	argv.push_back(KEL_INSTALLED_KELD);
	argv.push_back("bridge");
	if (*nuq_uri_get_path(uri) != '\0')
		argv.push_back(nuq_uri_get_path(uri));
	std::vector<char *> args = c_args(argv);

	kel::UniqueFd child_in, to, from, child_out, errors, child_err;
	if (!make_pipe(&child_in, &to) || !make_pipe(&from, &child_out) || !make_pipe(&errors, &child_err))
		return -1;
	posix_spawn_file_actions_t actions;
	pid_t pid = -1;
	if (posix_spawn_file_actions_init(&actions) == 0) {
		if (posix_spawn_file_actions_adddup2(&actions, child_in.get(), STDIN_FILENO) == 0 &&
		    posix_spawn_file_actions_adddup2(&actions, child_out.get(), STDOUT_FILENO) == 0 &&
		    posix_spawn_file_actions_adddup2(&actions, child_err.get(), STDERR_FILENO) == 0 &&
		    posix_spawnp(&pid, "ssh", &actions, nullptr, args.data(), environ) != 0)
			pid = -1;
		posix_spawn_file_actions_destroy(&actions);
	}
	if (pid == -1)
		return -1;
	// Read before each exchange and when the connection ends; a shared connection's
	// master leaves the pipe when it goes to the background.
	(void)fcntl(errors.get(), F_SETFL, O_NONBLOCK);
	*to_child = std::move(to);
	*from_child = std::move(from);
	*errors_from_child = std::move(errors);
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
	nuq_conn_t *conn = nullptr;  // the connection made
	std::string keld_socket;     // where keld listens on its host, as its ping answered
	bool again = false;          // else: ssh failed to set it up, before any reply
	std::string words;           // what ssh said of the failure, kept back
};

// keld's answer to a ping: where it listens, when it says so.
std::string socket_of(const json &pong)
{
	const json *socket = pong.is_object() ? nuq::member(pong, "socket") : nullptr;
	return socket != nullptr && socket->is_string() ? socket->get<std::string>() : std::string();
}

// One attempt at a connection over ssh with the sharing options `share`: made once a
// ping is answered. When ssh fails before any reply, nothing but the ping went, and a
// ping changes nothing: another attempt is safe, as it would not be once a call may have
// been delivered.
Attempt try_ssh(const nuq_uri_t *uri, const std::vector<std::string> &share)
{
	Attempt attempt;
	kel::UniqueFd to_child, from_child, errors;
	const pid_t pid = start_relay(uri, share, &to_child, &from_child, &errors);
	if (pid == -1)
		return attempt;
	nuq_conn_t *conn = nuq::connect_fds(from_child.get(), to_child.get());
	if (conn == nullptr) {
		// Its stdin closed first, ssh is then stopped and reaped.
		to_child.reset();
		from_child.reset();
		errors.reset();
		kill(pid, SIGTERM);
		waitpid(pid, nullptr, 0);
		return attempt;
	}
	(void)to_child.release();  // the connection's from now on
	(void)from_child.release();
	conn->relay = pid;
	conn->relay_errors = errors.get();
	conn->host = nuq_uri_get_host(uri);
	// Starting ssh proves nothing about the far end: one exchange does.
	json pong;
	const int rc = nuq::exchange(conn, "ping", json::object(), &pong, nullptr);
	if (rc == NUQ_E_SUCCESS) {
		(void)errors.release();  // the connection's, as conn->relay_errors
		attempt.conn = conn;
		attempt.keld_socket = socket_of(pong);
		return attempt;
	}
	attempt.again = rc == NUQ_E_CLOSED && relay_status(conn) == kSshFailed;
	// ssh's words wait for the caller to know whether another attempt follows; the
	// connection's end stops ssh if it still runs, so that they are all there.
	conn->relay_errors = -1;
	nuq_disconnect(conn);
	attempt.words = read_errors(errors.get());
	return attempt;
}

// A call forwarded by the shared connection: made once keld answers a ping through it.
// None when nothing listens on `socket` (no forward, or its connection has ended), or the
// far end does not answer (the host refused the forward, or its keld is not there).
nuq_conn_t *connect_forwarded(const std::string &socket, const char *host)
{
	kel::UniqueFd fd(nuq::connect_unix(socket));
	if (!fd.valid())
		return nullptr;
	nuq_conn_t *conn = nuq::connect_fds(fd.get(), fd.get());
	if (conn == nullptr)
		return nullptr;
	(void)fd.release();  // the connection's from now on
	conn->host = host;
	json pong;
	if (nuq::exchange(conn, "ping", json::object(), &pong, nullptr) == NUQ_E_SUCCESS)
		return conn;
	nuq_disconnect(conn);
	return nullptr;
}

// A host that refused a forward (its sshd allows no socket forwarding) is not asked
// again for a while: each call would pay the refusal and then its session.
constexpr auto kRefusalKept = std::chrono::minutes(10);

bool recently_refused(const std::string &file)
{
	struct stat st;
	return stat(file.c_str(), &st) == 0 &&
	    std::chrono::system_clock::now() - std::chrono::system_clock::from_time_t(st.st_mtime) < kRefusalKept;
}

// A path keld may listen on, as the forward's far end: the ping's answer comes from the
// host, and only a plain absolute path goes into ssh's arguments.
bool plain_socket_path(const std::string &path)
{
	if (path.empty() || path.front() != '/' || path.size() > 100 || path.find("/../") != std::string::npos)
		return false;
	return std::all_of(path.begin(), path.end(), [](char c) {
		return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '/' ||
		    c == '.' || c == '_' || c == '-';
	});
}

// Runs ssh with `argv` to talk to the shared connection's master, output dropped: true
// when it says done within a few seconds (a master that hangs is left to its time-out).
bool run_control(std::vector<std::string> argv)
{
	std::vector<char *> args = c_args(argv);
	posix_spawn_file_actions_t actions;
	if (posix_spawn_file_actions_init(&actions) != 0)
		return false;
	bool ready = true;
	for (int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
		ready = ready && posix_spawn_file_actions_addopen(&actions, fd, "/dev/null", O_RDWR, 0) == 0;
	pid_t pid = -1;
	const bool started = ready && posix_spawnp(&pid, "ssh", &actions, nullptr, args.data(), environ) == 0;
	posix_spawn_file_actions_destroy(&actions);
	if (!started)
		return false;
	int status = 0;
	for (int i = 0; i < 300; i++) {
		const pid_t done = waitpid(pid, &status, WNOHANG);
		if (done == pid)
			return WIFEXITED(status) && WEXITSTATUS(status) == 0;
		if (done == -1 && errno != EINTR)
			return false;
		std::this_thread::sleep_for(std::chrono::milliseconds(10));
	}
	kill(pid, SIGTERM);
	waitpid(pid, &status, 0);
	return false;
}

// After a session on the shared connection was answered by keld at `keld_socket`: has
// the connection forward `forward` there, unless it does already or the host refused it
// lately, and returns a connection through the forward (none when there is none). Done
// under the set-up lock, so that a burst of callers asks once.
nuq_conn_t *offer_forward(const nuq_uri_t *uri, const nuq::SshShare &share, const std::string &forward,
    const std::string &keld_socket)
{
	if (!plain_socket_path(keld_socket) || recently_refused(share.refused_file()))
		return nullptr;
	const nuq::FileSlot setup(share.setup_file(), 1, std::chrono::steady_clock::now() + std::chrono::seconds(2));
	if (!setup.held())
		return nullptr;
	// When something listens already, another caller made the forward meanwhile, or the
	// host refused it (the session just answered, so its keld is there). Else a forward
	// left by a connection that has ended is in the way: ssh would not listen over it.
	if (const int fd = nuq::connect_unix(forward); fd != -1) {
		close(fd);
	} else {
		(void)unlink(forward.c_str());
		std::vector<std::string> argv = ssh_argv(uri,
		    {"-o", "ControlPath=" + share.control_socket(), "-O", "forward", "-L",
		        forward + ":" + keld_socket});
		if (!run_control(std::move(argv)))
			return nullptr;
	}
	if (nuq_conn_t *conn = connect_forwarded(forward, nuq_uri_get_host(uri)); conn != nullptr)
		return conn;
	const int marker = open(share.refused_file().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW,
	    0600);
	if (marker != -1)
		close(marker);
	return nullptr;
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
	const std::string forward = share.forward_socket(nuq_uri_get_path(uri));
	if (!forward.empty() && !recently_refused(share.refused_file()))
		if (nuq_conn_t *conn = connect_forwarded(forward, nuq_uri_get_host(uri)); conn != nullptr)
			return conn;
	const auto deadline = std::chrono::steady_clock::now() + call_timeout();
	nuq::FileSlot session;
	if (share.enabled() &&
	    (session = nuq::FileSlot(share.sessions_file(), nuq::SshShare::kSessions, deadline)).timed_out())
		return nullptr;  // the call's time is up, waiting for a session
	std::minstd_rand jitter(std::random_device{}());
	std::chrono::milliseconds pause = kFirstPause;
	for (int logins = 0;;) {
		bool through_master = share.master_up();
		nuq::FileSlot setup;
		if (share.enabled() && !through_master) {
			if ((setup = nuq::FileSlot(share.setup_file(), 1, deadline)).timed_out())
				return nullptr;              // likewise, waiting for another's set-up
			through_master = share.master_up();  // made while this one waited
		}
		logins += through_master ? 0 : 1;
		Attempt attempt = try_ssh(uri, share.options(through_master));
		if (attempt.conn != nullptr) {
			attempt.conn->session = std::move(session);
			if (forward.empty())
				return attempt.conn;
			// The call goes through the forward too, once there is one: a connection
			// kept for later calls then holds no ssh process of its own.
			setup = nuq::FileSlot();
			if (nuq_conn_t *forwarded = offer_forward(uri, share, forward, attempt.keld_socket)) {
				nuq_disconnect(attempt.conn);
				return forwarded;
			}
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
