// keld: the kel daemon. Serves the remote administration interfaces of this host on
// /run/kel/keld.sock (below $KEL_ROOT when set). "keld bridge [path]" relays its stdio to
// that socket, so that ssh can carry the protocol to a remote host.
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>

#include "daemon_module.h"
#include "dhcp_responder.h"
#include "harl_module.h"
#include "kelcntl_module.h"
#include "log.h"
#include "metrics_writer.h"
#include "notify.h"
#include "paths.h"
#include "pid_file.h"
#include "server.h"

namespace {

constexpr const char *kUsage =
    "usage: keld [--metrics-dir DIR] [--metrics-interval SECONDS] [--no-metrics]\n"
    "                      serve this host's interfaces on /run/kel/keld.sock, writing\n"
    "                      metrics into DIR (/var/lib/prometheus/node-exporter, when there)\n"
    "       keld bridge [SOCKET]  relay standard input and output to the socket\n"
    "       keld --version  print keld's version\n";

// Where and how often the metrics are written.
struct MetricsOptions {
	std::string dir = keld::metrics::default_dir();
	bool dir_given = false;
	std::chrono::seconds interval = keld::metrics::kDefaultInterval;
	bool off = false;
};

// The serving options; false on one keld does not know or a value out of range.
bool parse_serve_options(int argc, char **argv, MetricsOptions *opts)
{
	for (int i = 1; i < argc; i++) {
		const std::string arg = argv[i];
		if (arg == "--no-metrics") {
			opts->off = true;
		} else if (arg == "--metrics-dir" && i + 1 < argc && argv[i + 1][0] != '\0') {
			opts->dir = argv[++i];
			opts->dir_given = true;
		} else if (arg == "--metrics-interval" && i + 1 < argc) {
			const std::string value = argv[++i];
			if (value.empty() || value.size() > 4 ||
			    value.find_first_not_of("0123456789") != std::string::npos)
				return false;
			const int seconds = std::stoi(value);
			if (seconds < 1 || seconds > 3600)
				return false;
			opts->interval = std::chrono::seconds(seconds);
		} else {
			return false;
		}
	}
	return true;
}

// Each request keld answers, counted by interface and method.
void count_request(const nuq::Handled &h)
{
	keld::metrics::Registry &r = keld::metrics::registry();
	const keld::metrics::Labels labels = {{"interface", h.interface}, {"method", h.method}};
	r.count("kel_keld_requests_total", labels);
	if (h.error)
		r.count("kel_keld_request_errors_total", labels);
	r.observe("kel_keld_request_duration_seconds", labels, std::chrono::duration<double>(h.took).count());
}

std::string socket_path()
{
	return kel::paths::under_root(kel::paths::kSocketFile);
}
std::string pid_path()
{
	return kel::paths::under_root(kel::paths::kPidFile);
}

void say(int priority, const std::string &text)
{
	nuq::log::write(priority, text);
}

// Room for every connection the server admits and the descriptors its calls open (the
// store, netlink and nftables sockets), beyond the usual soft limit of 1,024.
void raise_file_limit()
{
	struct rlimit files;
	if (getrlimit(RLIMIT_NOFILE, &files) != 0 || files.rlim_cur >= 65536)
		return;
	files.rlim_cur = std::min<rlim_t>(files.rlim_max, 65536);
	if (setrlimit(RLIMIT_NOFILE, &files) != 0)
		say(nuq::log::kWarning, std::string("cannot raise the open file limit: ") + std::strerror(errno));
}

// Members of the group "kel" may call; looked up again at each reload.
void admit_kel_group(nuq::Server &server)
{
	const std::optional<gid_t> group = nuq::group_id("kel");
	if (!group)
		say(nuq::log::kWarning, "there is no group kel: only root may call");
	server.set_group(group);
}

// Copies from one descriptor to another until end of file; false on an error.
bool pump(int from, int to)
{
	char buf[16384];
	for (;;) {
		const ssize_t n = read(from, buf, sizeof(buf));
		if (n < 0 && errno == EINTR)
			continue;
		if (n <= 0)
			return n == 0;
		for (ssize_t done = 0; done < n;) {
			const ssize_t w = write(to, buf + done, static_cast<size_t>(n - done));
			if (w < 0 && errno == EINTR)
				continue;
			if (w <= 0)
				return false;
			done += w;
		}
	}
}

int bridge(const char *path)
{
	const std::string target = path != nullptr ? path : socket_path();
	struct sockaddr_un addr {};
	const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
	if (target.size() >= sizeof(addr.sun_path) || fd == -1) {
		std::fprintf(stderr, "keld bridge: %s: bad socket path\n", target.c_str());
		return 1;
	}
	addr.sun_family = AF_UNIX;
	std::memcpy(addr.sun_path, target.c_str(), target.size() + 1);
	if (connect(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr)) != 0) {
		std::fprintf(stderr, "keld bridge: cannot connect to %s: %s\n", target.c_str(), std::strerror(errno));
		return 1;
	}
	signal(SIGPIPE, SIG_IGN);
	// Requests flow in while replies flow out; the end of either ends the relay.
	std::thread up([fd] {
		pump(STDIN_FILENO, fd);
		shutdown(fd, SHUT_WR);
	});
	pump(fd, STDOUT_FILENO);
	up.detach();
	return 0;
}

int serve(const MetricsOptions &metrics)
{
	nuq::log::enable(STDERR_FILENO);
	const std::string run_dir = std::filesystem::path(socket_path()).parent_path();
	if (!kel::paths::make_dirs(run_dir, 0755)) {
		say(nuq::log::kErr, "cannot make " + run_dir + ": " + std::strerror(errno));
		return 1;
	}
	// The lock decides which of several kelds started at once runs; the others stop
	// here, before touching the socket.
	keld::PidFile pidfile;
	pid_t other = 0;
	if (const int err = pidfile.acquire(pid_path(), &other); err != 0) {
		if (err == EWOULDBLOCK)
			say(nuq::log::kErr, "already running as pid " + std::to_string(other));
		else
			say(nuq::log::kErr, "cannot lock " + pid_path() + ": " + std::strerror(err));
		return 1;
	}
	raise_file_limit();
	// Signals are taken by one thread with sigwait; every other thread blocks them.
	sigset_t signals;
	sigemptyset(&signals);
	for (int sig : {SIGHUP, SIGTERM, SIGINT})
		sigaddset(&signals, sig);
	pthread_sigmask(SIG_BLOCK, &signals, nullptr);
	signal(SIGPIPE, SIG_IGN);

	keld::DaemonState state;
	state.reload();
	nuq::Dispatcher dispatcher;
	dispatcher.add(keld::daemon_interface(state));
	dispatcher.add(harl::datalink_interface());
	// Served everywhere; their objects exist only where the store does (the controller).
	dispatcher.add(kelcntl::kel_interface());
	dispatcher.add(kelcntl::controller_interface());
	dispatcher.set_socket(socket_path());
	dispatcher.set_observer(count_request);
	nuq::Server server(dispatcher);
	admit_kel_group(server);
	if (!server.listen(socket_path())) {
		say(nuq::log::kErr, "cannot listen on " + socket_path() + ": " + std::strerror(errno));
		return 1;
	}
	// The socket file as this keld made it: one started after it (a restart that did not
	// wait) puts its own there, which this one must leave when it stops.
	struct stat made {};
	(void)stat(socket_path().c_str(), &made);
	say(nuq::log::kNotice,
	    "keld " KELD_VERSION " started as pid " + std::to_string(getpid()) + ", serving " + socket_path());
	keld::notify(("READY=1\nMAINPID=" + std::to_string(getpid())).c_str());
	keld::DhcpResponder responder;
	responder.start();
	keld::metrics::Writer metrics_writer;
	if (!metrics.off)
		metrics_writer.start(metrics.dir, metrics.interval, !metrics.dir_given);
	std::thread waiter([&] {
		for (;;) {
			int sig = 0;
			if (sigwait(&signals, &sig) != 0)
				continue;
			if (sig == SIGHUP) {
				struct timespec now;
				clock_gettime(CLOCK_MONOTONIC, &now);
				const long long usec = now.tv_sec * 1000000LL + now.tv_nsec / 1000;
				keld::notify(("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(usec)).c_str());
				state.reload();
				admit_kel_group(server);
				const std::string controller = state.settings().controller;
				say(nuq::log::kInfo,
				    "reloaded the configuration; controller " +
				        (controller.empty() ? std::string("unset") : controller));
				keld::notify("READY=1");
				continue;
			}
			say(nuq::log::kNotice, std::string("stopping on ") + sigabbrev_np(sig));
			keld::notify("STOPPING=1");
			server.stop();
			return;
		}
	});
	server.run();
	waiter.join();
	metrics_writer.stop();
	responder.stop();
	struct stat now {};
	if (stat(socket_path().c_str(), &now) == 0 && now.st_dev == made.st_dev && now.st_ino == made.st_ino)
		(void)unlink(socket_path().c_str());
	say(nuq::log::kNotice, "stopped");
	return 0;
}

}  // namespace

int main(int argc, char **argv)
{
	if (argc >= 2 && std::strcmp(argv[1], "bridge") == 0 && argc <= 3)
		return bridge(argc == 3 ? argv[2] : nullptr);
	if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
		std::printf("keld %s\n", KELD_VERSION);
		return 0;
	}
	if (MetricsOptions metrics;
	    argc == 1 || (argv[1][0] == '-' && argv[1][1] == '-' && parse_serve_options(argc, argv, &metrics)))
		return serve(metrics);
	const bool help = std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0;
	std::fputs(kUsage, help ? stdout : stderr);
	return help ? 0 : 2;
}
