#include "test_support.h"

#include <kel/libkel.h>
#include "fault.h"
#include "nuq_uri.h"
#include "paths.h"
#include "pg_conn.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

namespace kel::test {

void ScratchRoot::SetUp()
{
	char tmpl[] = "/tmp/kel-test-XXXXXX";
	ASSERT_NE(mkdtemp(tmpl), nullptr);
	root_ = tmpl;
	std::filesystem::create_directories(root_ + "/etc/kel");
	setenv("KEL_ROOT", root_.c_str(), 1);
	// Under KEL_TEST_PG (a libpq connection string), every test's store is that database,
	// emptied first.
	if (const char *conninfo = on_database()) {
		std::unique_ptr<kel::pg::Conn> conn;
		ASSERT_EQ(kel::pg::Conn::open(conninfo, &conn), KEL_SUCCESS) << conninfo;
		ASSERT_EQ(conn->simple("DROP SCHEMA IF EXISTS public CASCADE"), KEL_SUCCESS) << conn->last_error();
		ASSERT_EQ(conn->simple("CREATE SCHEMA public"), KEL_SUCCESS) << conn->last_error();
		ASSERT_EQ(kel_set_controller_togprop("store", conninfo), KEL_SUCCESS);
	}
}

const char *on_database()
{
	const char *conninfo = std::getenv("KEL_TEST_PG");
	return conninfo != nullptr && *conninfo != '\0' ? conninfo : nullptr;
}

void ScratchRoot::TearDown()
{
	unsetenv("KEL_ROOT");
	std::filesystem::remove_all(root_);
}

int for_each_failing_statement(const std::function<int()> &op, const std::function<void(int nth, int rc)> &after,
    int code, int limit)
{
	for (int nth = 1; nth <= limit; nth++) {
		kel::fault::fail_nth_statement(nth, code);
		const int rc = op();
		const bool reached = !kel::fault::armed();
		kel::fault::disarm();
		if (!reached) {
			EXPECT_EQ(rc, KEL_SUCCESS) << "the run without a failure";
			return nth - 1;
		}
		SCOPED_TRACE(nth);
		after(nth, rc);
	}
	ADD_FAILURE() << "still failing after " << limit << " statements";
	return limit;
}

int wait_exit(pid_t pid)
{
	int status = 0;
	if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status))
		return -1;
	return WEXITSTATUS(status);
}

bool other_process_can_lock(const std::string &file, short type)
{
	return in_child([&] {
		int fd = open(file.c_str(), type == F_WRLCK ? O_RDWR : O_RDONLY);
		struct flock fl {};
		fl.l_type = type;
		fl.l_whence = SEEK_SET;
		return fd != -1 && fcntl(fd, F_SETLK, &fl) == 0 ? 0 : 1;
	}) == 0;
}

bool blocked_on_lock(pid_t pid)
{
	// The store's locks belong to open files, not processes, so /proc/locks does not
	// name the waiter; a thread of `pid` sitting in fcntl(fd, F_OFD_SETLKW, ...) does.
	std::error_code ec;
	for (const auto &task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", ec)) {
		std::ifstream in(task.path() / "syscall");
		long nr = -1;
		std::string fd, cmd;
		if (in >> nr >> fd >> cmd && nr == SYS_fcntl && std::stol(cmd, nullptr, 16) == F_OFD_SETLKW)
			return true;
	}
	return false;
}

namespace {

std::string keld_socket()
{
	return kel::paths::under_root("/run/kel/keld.sock");
}

}  // namespace

Keld::Keld(const std::string &netns)
{
	const std::string sock = keld_socket();
	pid_ = fork();
	if (pid_ == 0) {
		if (!netns.empty()) {
			const int fd = open(("/run/netns/" + netns).c_str(), O_RDONLY);
			if (fd == -1 || setns(fd, CLONE_NEWNET) != 0)
				_exit(99);
		}
		execl(KELD_PATH, "keld", static_cast<char *>(nullptr));
		_exit(98);
	}
	for (int i = 0; i < 500 && access(sock.c_str(), F_OK) != 0; i++)
		usleep(10000);
	if (access(sock.c_str(), F_OK) != 0)
		stop();
}

int Keld::stop()
{
	if (pid_ <= 0)
		return -1;
	kill(pid_, SIGTERM);
	const int status = wait_exit(pid_);
	pid_ = -1;
	return status;
}

nuq_conn_t *connect_keld()
{
	return connect_unix(keld_socket());
}

nuq_conn_t *connect_unix(const std::string &socket)
{
	const std::string text = "unix://localhost" + socket;
	nuq_uri_t *uri = nuq_alloc_uri(text.c_str(), NUQS_UNIX);
	nuq_conn_t *conn = uri != nullptr ? nuq_connect_uri(uri, nullptr) : nullptr;
	nuq_free_uri(uri);
	return conn;
}

}  // namespace kel::test
