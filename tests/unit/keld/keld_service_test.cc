// keld as the service manager runs it: one instance however many start at once, the
// readiness protocol, and a log line for every start, reload, stop and refused caller.
#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "nuq_errors.h"
#include "paths.h"
#include "test_support.h"

namespace {

// Starts keld with its standard error going to `log` (when given); the child waits for
// the pipe `gate` to be closed before it execs, so that many can start at the same moment.
pid_t spawn_keld(const std::string &log = "", const int *gate = nullptr)
{
	const pid_t pid = fork();
	if (pid == 0) {
		if (gate != nullptr) {
			close(gate[1]);
			char c;
			(void)!read(gate[0], &c, 1);
		}
		if (!log.empty()) {
			const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
			dup2(fd, STDERR_FILENO);
		}
		execl(KELD_PATH, "keld", static_cast<char *>(nullptr));
		_exit(98);
	}
	return pid;
}

bool exited(pid_t pid, int *status)
{
	int st = 0;
	if (waitpid(pid, &st, WNOHANG) != pid)
		return false;
	*status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
	return true;
}

class KeldService : public kel::test::ScratchRoot {
protected:
	std::string socket() const { return kel::paths::under_root("/run/kel/keld.sock"); }
};

TEST_F(KeldService, OfManyStartedAtOnceOneRuns)
{
	for (int round = 0; round < 3; round++) {
		SCOPED_TRACE(round);
		int gate[2];
		ASSERT_EQ(pipe(gate), 0);
		std::vector<pid_t> kelds;
		// Whatever fails below, no keld of this round outlives it.
		const auto reap = [](std::vector<pid_t> *pids) {
			for (pid_t pid : *pids)
				if (pid > 0 && kill(pid, SIGKILL) == 0)
					waitpid(pid, nullptr, 0);
		};
		std::unique_ptr<std::vector<pid_t>, decltype(reap)> reaper(&kelds, reap);
		for (int i = 0; i < 30; i++)
			kelds.push_back(spawn_keld("/dev/null", gate));
		close(gate[1]);  // all go
		close(gate[0]);
		size_t refused = 0;
		pid_t running = -1;
		ASSERT_TRUE(kel::test::eventually([&] {
			for (pid_t &pid : kelds) {
				int status;
				if (pid > 0 && exited(pid, &status)) {
					EXPECT_EQ(status, 1);
					refused++;
					pid = 0;
				}
			}
			return refused == kelds.size() - 1;
		}));
		for (pid_t pid : kelds)
			if (pid > 0)
				running = pid;
		ASSERT_GT(running, 0);
		EXPECT_TRUE(kel::test::eventually([&] { return access(socket().c_str(), F_OK) == 0; }));
		kill(running, SIGTERM);
		EXPECT_EQ(kel::test::wait_exit(running), 0);
		kelds.clear();
	}
}

// A datagram socket standing in for the service manager's.
class NotifySocket {
public:
	explicit NotifySocket(const std::string &path) : path_(path)
	{
		fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
		struct sockaddr_un addr {};
		addr.sun_family = AF_UNIX;
		std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
		bound_ = bind(fd_, reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr)) == 0;
	}
	~NotifySocket() { close(fd_); }
	bool bound() const { return bound_; }
	// The next message, "" when none came within a few seconds.
	std::string next()
	{
		struct pollfd pfd = {fd_, POLLIN, 0};
		char buf[512] = {};
		if (poll(&pfd, 1, 5000) != 1)
			return "";
		const ssize_t n = recv(fd_, buf, sizeof(buf) - 1, 0);
		return n > 0 ? std::string(buf, static_cast<size_t>(n)) : "";
	}

private:
	std::string path_;
	int fd_ = -1;
	bool bound_ = false;
};

TEST_F(KeldService, TellsTheServiceManagerAndLogsWhatItDoes)
{
	NotifySocket manager(path("notify.sock"));
	ASSERT_TRUE(manager.bound());
	setenv("NOTIFY_SOCKET", path("notify.sock").c_str(), 1);
	const std::string log = path("keld.log");
	const pid_t pid = spawn_keld(log);
	unsetenv("NOTIFY_SOCKET");
	EXPECT_EQ(manager.next(), "READY=1\nMAINPID=" + std::to_string(pid));
	kill(pid, SIGHUP);
	EXPECT_EQ(manager.next().rfind("RELOADING=1\nMONOTONIC_USEC=", 0), 0u);
	EXPECT_EQ(manager.next(), "READY=1");
	if (struct passwd *nobody = getpwnam("nobody")) {
		std::filesystem::permissions(path(""), std::filesystem::perms::all);
		std::filesystem::permissions(path("run"), std::filesystem::perms::all);
		EXPECT_EQ(kel::test::in_child([&] {
			if (setgid(nobody->pw_gid) != 0 || setuid(nobody->pw_uid) != 0)
				return 10;
			nuq_conn_t *conn = kel::test::connect_keld();
			nuq_instance_t *obj = nullptr;
			const int rc = conn != nullptr ? nuq_lookup(conn, "kel.Daemon", 0, &obj, 0) : -1;
			nuq_disconnect(conn);
			return rc == NUQ_E_DENIED ? 0 : 11;
		}),
		    0);
	}
	kill(pid, SIGTERM);
	EXPECT_EQ(manager.next(), "STOPPING=1");
	EXPECT_EQ(kel::test::wait_exit(pid), 0);

	std::ifstream in(log);
	std::stringstream text;
	text << in.rdbuf();
	// Its standard error is a file, not the journal: each line has its time after the
	// priority ("<5>2026-11-26T15:40:01.123Z "), taken out here.
	std::string lines;
	for (std::string line; std::getline(text, line);) {
		constexpr std::string_view shape = "dddd-dd-ddTdd:dd:dd.dddZ ";
		bool stamped = line.size() > 3 + shape.size() && line[0] == '<' && line[2] == '>';
		for (size_t i = 0; stamped && i < shape.size(); i++)
			stamped = shape[i] == 'd' ? std::isdigit(static_cast<unsigned char>(line[3 + i])) != 0
			                          : line[3 + i] == shape[i];
		EXPECT_TRUE(stamped) << line;
		lines += "\n" + (stamped ? line.erase(3, shape.size()) : line);
	}
	for (const std::string &want :
	    {"<5>keld " + std::string(KELD_VERSION) + " started as pid " + std::to_string(pid),
	        std::string("<6>reloaded the configuration; controller unset"), std::string("<5>stopping on TERM"),
	        std::string("<5>stopped")}) {
		SCOPED_TRACE(want);
		EXPECT_NE(lines.find("\n" + want), std::string::npos) << lines;
	}
	if (getpwnam("nobody") != nullptr) {
		EXPECT_NE(lines.find("<4>refused uid " + std::to_string(getpwnam("nobody")->pw_uid)), std::string::npos)
		    << lines;
	}
}

}  // namespace
