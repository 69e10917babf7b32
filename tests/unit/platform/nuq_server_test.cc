// Who may use the server and how much of it: callers are checked as they connect, and
// limits keep any one caller from starving the others (root above all).
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "client.h"
#include "nuq_fixture.h"
#include "test_support.h"
#include "wire.h"

namespace {

using kel::test::TestServer;
using nlohmann::json;

constexpr gid_t kTestGroup = 4242;  // the group the servers here admit; nobody's in it

int raw_connect(const std::string &socket)
{
	struct sockaddr_un addr {};
	addr.sun_family = AF_UNIX;
	std::strncpy(addr.sun_path, socket.c_str(), sizeof(addr.sun_path) - 1);
	const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
	if (fd != -1 && connect(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr)) != 0) {
		close(fd);
		return -1;
	}
	return fd;
}

// The next line from `fd`, "" when none came within `ms` or the peer went.
std::string read_line(int fd, int ms = 5000)
{
	nuq::LineReader reader(fd);
	std::string line;
	return reader.read(&line, std::chrono::milliseconds(ms)) == nuq::ReadResult::Line ? line : "";
}

// The server error a reply line carries, 0 for a result, -1 for no reply at all.
int reply_error(const std::string &line)
{
	const json r = json::parse(line, nullptr, false);
	if (!r.is_object())
		return -1;
	return r.contains("error") ? nuq::from_wire_code(r["error"]["code"].get<long>()) : 0;
}

// Sends a ping on a raw connection: its reply's error (0: served).
int ping(int fd)
{
	(void)nuq::write_line(fd, R"({"jsonrpc":"2.0","id":1,"method":"ping"})");
	return reply_error(read_line(fd));
}

class NuqAccess : public kel::test::ScratchRoot {
protected:
	void SetUp() override
	{
		ScratchRoot::SetUp();
		nobody_ = getpwnam("nobody");
		if (nobody_ == nullptr)
			GTEST_SKIP() << "no user 'nobody' here";
		// Other users must be able to reach the socket in the scratch tree.
		std::filesystem::permissions(path(""), std::filesystem::perms::all);
	}

	// Runs `body` in a child as the user nobody with primary group `gid` and
	// supplementary `groups`; its exit status.
	template <class Body>
	int as_nobody(gid_t gid, std::vector<gid_t> groups, Body &&body)
	{
		return kel::test::in_child([&] {
			struct rlimit files;
			getrlimit(RLIMIT_NOFILE, &files);
			files.rlim_cur = files.rlim_max;  // to hold a thousand connections
			if (setrlimit(RLIMIT_NOFILE, &files) != 0 || setgroups(groups.size(), groups.data()) != 0 ||
			    setgid(gid) != 0 || setuid(nobody_->pw_uid) != 0)
				return 100;
			return body();
		});
	}

	struct passwd *nobody_ = nullptr;
};

TEST_F(NuqAccess, CallersAreCheckedByTheirGroupsWhenTheyConnect)
{
	TestServer ts(path("s.sock"));
	ASSERT_TRUE(ts.listening());
	ts.server().set_group(kTestGroup);
	const gid_t other = nobody_->pw_gid;
	struct {
		const char *what;
		gid_t gid;
		std::vector<gid_t> groups;
		int want;
	} cases[] = {
	    {"no group of the server's", other, {}, NUQ_E_DENIED},
	    {"the group as a supplementary one", other, {1, kTestGroup, 7}, NUQ_E_SUCCESS},
	    {"the group as the primary one", kTestGroup, {}, NUQ_E_SUCCESS},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.what);
		const int got = as_nobody(c.gid, c.groups, [&] {
			nuq_conn_t *conn = kel::test::connect_unix(ts.socket());
			nuq_instance_t *thing = nullptr;
			const int rc = conn != nullptr ? nuq_lookup(conn, "test.Thing", 1, &thing, 1, "name", "a") : 99;
			nuq_instance_rele(thing);
			nuq_disconnect(conn);
			return rc;
		});
		EXPECT_EQ(got, c.want);
	}
}

// A refused caller is answered as it connects, before it sends anything, and the
// connection closed: nothing it sends afterwards is read, however hostile.
TEST_F(NuqAccess, RefusedCallersAreAnsweredWithoutBeingRead)
{
	TestServer ts(path("s.sock"));
	ASSERT_TRUE(ts.listening());
	ts.server().set_group(kTestGroup);
	const std::string deep = R"({"jsonrpc":"2.0","id":)" + std::string(65000, '[') + std::string(65000, ']') +
	    R"(,"method":"ping"})";
	const int refused = as_nobody(nobody_->pw_gid, {}, [&] {
		const int fd = raw_connect(ts.socket());
		const std::string answer = read_line(fd);  // sent nothing yet
		(void)nuq::write_line(fd, deep);
		const bool closed = read_line(fd, 2000).empty();
		close(fd);
		return reply_error(answer) == NUQ_E_DENIED && json::parse(answer)["id"].is_null() && closed ? 0 : 1;
	});
	EXPECT_EQ(refused, 0);
	// An admitted caller gets an error for the same line, and its connection serves on.
	const int admitted = as_nobody(kTestGroup, {}, [&] {
		const int fd = raw_connect(ts.socket());
		(void)nuq::write_line(fd, deep);
		const int first = reply_error(read_line(fd));
		(void)nuq::write_line(fd, "{\"jsonrpc\":5}");
		const int second = reply_error(read_line(fd));
		const int third = ping(fd);
		close(fd);
		return first == NUQ_E_PARSE && second == NUQ_E_REQUEST && third == 0 ? 0 : 1;
	});
	EXPECT_EQ(admitted, 0);
	const int fd = raw_connect(ts.socket());
	EXPECT_EQ(ping(fd), 0);
	close(fd);
}

TEST_F(NuqAccess, IdleConnectionsAreClosed)
{
	nuq::Limits limits;
	limits.idle = std::chrono::milliseconds(200);
	TestServer ts(path("s.sock"), limits);
	ASSERT_TRUE(ts.listening());
	for (const char *sent : {"", "{\"jsonrpc\":", "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"ping\"}\n"}) {
		SCOPED_TRACE(sent);
		const int fd = raw_connect(ts.socket());
		ASSERT_EQ(write(fd, sent, std::strlen(sent)), static_cast<ssize_t>(std::strlen(sent)));
		if (std::strchr(sent, '\n') != nullptr) {
			EXPECT_EQ(reply_error(read_line(fd)), 0);
		}
		char c;
		struct pollfd pfd = {fd, POLLIN, 0};
		EXPECT_EQ(poll(&pfd, 1, 5000), 1);
		EXPECT_EQ(read(fd, &c, 1), 0);  // closed by the server
		close(fd);
	}
}

// A thousand idle connections of one caller leave the server to everyone else: that
// caller holds its share, the rest are turned away as they come, and root is served.
TEST_F(NuqAccess, ManyIdleConnectionsCannotStarveRoot)
{
	TestServer ts(path("s.sock"));
	ASSERT_TRUE(ts.listening());
	ts.server().set_group(kTestGroup);
	const nuq::Limits limits;
	for (const bool admitted : {true, false}) {
		SCOPED_TRACE(admitted ? "a member of the group" : "a refused caller");
		int ready[2], done[2];
		ASSERT_EQ(pipe(ready), 0);
		ASSERT_EQ(pipe(done), 0);
		std::thread holder([&] {
			const int status = as_nobody(admitted ? kTestGroup : nobody_->pw_gid, {}, [&] {
				std::vector<int> held;
				size_t served = 0;
				for (int i = 0; i < 1000; i++)
					held.push_back(raw_connect(ts.socket()));
				for (int fd : held)
					served += fd != -1 && ping(fd) == 0;
				const char c = served == (admitted ? limits.per_user : 0) ? 'y' : 'n';
				(void)!write(ready[1], &c, 1);
				char end;
				(void)!read(done[0], &end, 1);  // hold them until root was served
				return 0;
			});
			EXPECT_EQ(status, 0);
		});
		char verdict = 0;
		ASSERT_EQ(read(ready[0], &verdict, 1), 1);
		EXPECT_EQ(verdict, 'y');
		nuq_conn_t *conn = kel::test::connect_unix(ts.socket());
		nuq_instance_t *thing = nullptr;
		EXPECT_EQ(conn != nullptr ? nuq_lookup(conn, "test.Thing", 1, &thing, 1, "name", "a") : -1, 0);
		nuq_instance_rele(thing);
		nuq_disconnect(conn);
		(void)!write(done[1], "x", 1);
		holder.join();
		for (int fd : {ready[0], ready[1], done[0], done[1]})
			close(fd);
	}
}

// CPU time process `pid` has used so far, in clock ticks.
long cpu_ticks(pid_t pid)
{
	std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
	std::string field;
	long utime = 0, stime = 0;
	for (int i = 1; i <= 15 && stat >> field; i++) {
		if (i == 14)
			utime = std::stol(field);
		if (i == 15)
			stime = std::stol(field);
	}
	return utime + stime;
}

// Out of descriptors, the server waits instead of retrying the accept at once (which
// spun a core), and serves again once descriptors are free.
TEST_F(NuqAccess, AcceptFailuresBackOff)
{
#if defined(__SANITIZE_ADDRESS__)
	// The sanitizers' runtime probes memory through a pipe, which a process out of
	// descriptors cannot make: it then reports objects it checks as invalid.
	GTEST_SKIP() << "a process out of descriptors confuses the sanitizer runtime";
#endif
	int ready[2];
	ASSERT_EQ(pipe(ready), 0);
	const std::string socket = path("s.sock");
	const pid_t pid = fork();
	if (pid == 0) {
		size_t open_now = 0;
		for (auto it = std::filesystem::directory_iterator("/proc/self/fd");
		     it != std::filesystem::directory_iterator(); ++it)
			open_now++;
		// Room for the server's own three descriptors and a few connections.
		const struct rlimit files = {open_now + 6, open_now + 6};
		if (setrlimit(RLIMIT_NOFILE, &files) != 0)
			_exit(1);
		TestServer ts(socket);
		(void)!write(ready[1], ts.listening() ? "y" : "n", 1);
		for (;;)
			pause();
	}
	char c = 0;
	ASSERT_EQ(read(ready[0], &c, 1), 1);
	ASSERT_EQ(c, 'y');
	std::vector<int> conns;
	for (int i = 0; i < 12; i++)
		conns.push_back(raw_connect(socket));
	usleep(100000);  // the server has taken what it can and failed on the next
	const long before = cpu_ticks(pid);
	sleep(1);
	const long used = cpu_ticks(pid) - before;
	EXPECT_LT(used, sysconf(_SC_CLK_TCK) / 5) << "the server spins on failed accepts";
	for (int fd : conns)
		close(fd);
	EXPECT_TRUE(kel::test::eventually([&] {
		const int fd = raw_connect(socket);
		const bool served = fd != -1 && ping(fd) == 0;
		close(fd);
		return served;
	}));
	kill(pid, SIGKILL);
	waitpid(pid, nullptr, 0);
	close(ready[0]);
	close(ready[1]);
}

}  // namespace
