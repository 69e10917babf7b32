#include "test_support.h"

#include "fault.h"
#include "libkel.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace kel::test {

void ScratchRoot::SetUp()
{
	char tmpl[] = "/tmp/kel-test-XXXXXX";
	ASSERT_NE(mkdtemp(tmpl), nullptr);
	root_ = tmpl;
	std::filesystem::create_directories(root_ + "/etc/kel");
	setenv("KEL_ROOT", root_.c_str(), 1);
}

void ScratchRoot::TearDown()
{
	unsetenv("KEL_ROOT");
	std::filesystem::remove_all(root_);
}

int for_each_failing_statement(const std::function<int()> &op,
    const std::function<void(int nth, int rc)> &after, int code, int limit)
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
	// A waiting request shows as "N: -> POSIX ADVISORY WRITE <pid> ...".
	std::ifstream locks("/proc/locks");
	std::string line;
	while (std::getline(locks, line)) {
		std::istringstream in(line);
		std::string id, arrow, kind, advisory, type;
		pid_t owner = 0;
		if (in >> id >> arrow >> kind >> advisory >> type >> owner && arrow == "->" &&
		    owner == pid)
			return true;
	}
	return false;
}

}  // namespace kel::test
