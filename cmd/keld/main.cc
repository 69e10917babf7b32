// keld: the kel daemon. Serves the remote administration interfaces of this host on
// /run/kel/keld.sock (below $KEL_ROOT when set). "keld bridge [path]" relays its stdio to
// that socket, so that ssh can carry the protocol to a remote host.
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "daemon_module.h"
#include "harl.h"
#include "kelcntl.h"
#include "paths.h"
#include "server.h"

namespace {

constexpr const char *kUsage =
    "usage: keld            serve this host's interfaces on /run/kel/keld.sock\n"
    "       keld bridge [SOCKET]  relay standard input and output to the socket\n";

std::string socket_path() { return kel::paths::under_root("/run/kel/keld.sock"); }
std::string pid_path() { return kel::paths::under_root("/run/kel/keld.pid"); }

// Whether a keld named by the pid file is alive.
bool running(pid_t *pid)
{
	std::ifstream in(pid_path());
	long p = 0;
	if (!(in >> p) || p <= 0 || kill(static_cast<pid_t>(p), 0) != 0)
		return false;
	std::ifstream comm("/proc/" + std::to_string(p) + "/comm");
	std::string name;
	*pid = static_cast<pid_t>(p);
	return std::getline(comm, name) && name == "keld";
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
		std::fprintf(stderr, "keld bridge: cannot connect to %s: %s\n", target.c_str(),
		    std::strerror(errno));
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

int serve()
{
	std::error_code ec;
	std::filesystem::create_directories(std::filesystem::path(socket_path()).parent_path(), ec);
	pid_t other;
	if (running(&other)) {
		std::fprintf(stderr, "keld: already running as pid %d\n", static_cast<int>(other));
		return 1;
	}
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
	nuq::Server server(dispatcher);
	if (!server.listen(socket_path())) {
		std::fprintf(stderr, "keld: cannot listen on %s: %s\n", socket_path().c_str(),
		    std::strerror(errno));
		return 1;
	}
	{
		std::ofstream pidfile(pid_path());
		pidfile << getpid() << "\n";
	}
	std::thread waiter([&] {
		for (;;) {
			int sig = 0;
			if (sigwait(&signals, &sig) != 0)
				continue;
			if (sig == SIGHUP) {
				state.reload();
				continue;
			}
			server.stop();
			return;
		}
	});
	server.run();
	waiter.join();
	std::filesystem::remove(pid_path(), ec);
	std::filesystem::remove(socket_path(), ec);
	return 0;
}

}  // namespace

int main(int argc, char **argv)
{
	if (argc >= 2 && std::strcmp(argv[1], "bridge") == 0 && argc <= 3)
		return bridge(argc == 3 ? argv[2] : nullptr);
	if (argc == 1)
		return serve();
	const bool help = std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0;
	std::fputs(kUsage, help ? stdout : stderr);
	return help ? 0 : 2;
}
