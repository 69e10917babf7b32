// Shared helpers for the unit tests.
#pragma once

#include <sys/types.h>
#include <unistd.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "client.h"

namespace kel::test {

// Points KEL_ROOT at a fresh scratch tree (with etc/kel made) for one test, and removes
// it afterwards. The real /etc/kel is never touched.
// The PostgreSQL database the tests' stores are in (KEL_TEST_PG), or NULL for files.
const char *on_database();

// For a test of what only a store file has (its modes, its lock file, SQLite's own
// statements): skipped when the stores are in a database.
#define KEL_FILE_STORE_ONLY()                                           \
	do {                                                            \
		if (kel::test::on_database() != nullptr)                \
			GTEST_SKIP() << "a store file's own behaviour"; \
	} while (0)

class ScratchRoot : public ::testing::Test {
protected:
	void SetUp() override;
	void TearDown() override;

	// `relative` below the scratch root, e.g. path("etc/kel/kel.db").
	std::string path(const std::string &relative) const { return root_ + "/" + relative; }
	std::string db_path() const { return path("etc/kel/kel.db"); }
	std::string lock_path() const { return path("etc/kel/kel.lock"); }

private:
	std::string root_;
};

// Runs `op` with its nth store statement failing with `code`, for n = 1, 2, ... until a
// run no longer reaches the failure; `after(nth, rc)` checks what each failed run left.
// Returns how many runs the failure reached; the clean last run must succeed.
int for_each_failing_statement(const std::function<int()> &op, const std::function<void(int nth, int rc)> &after,
    int code, int limit = 200);

// The exit status of child `pid`, or -1 if it did not exit normally.
int wait_exit(pid_t pid);

// Runs `body` in a forked child and returns its exit status (or -1 if it died).
template <class Body>
int in_child(Body &&body)
{
	pid_t pid = fork();
	if (pid == 0)
		_exit(body());
	return wait_exit(pid);
}

// A keld under the current KEL_ROOT (inside network namespace `netns` when given),
// listening once constructed (pid() is -1 if it never did); stopped when it goes.
class Keld {
public:
	explicit Keld(const std::string &netns = "");
	~Keld() { stop(); }
	Keld(const Keld &) = delete;
	Keld &operator=(const Keld &) = delete;

	pid_t pid() const { return pid_; }
	// Stops it (SIGTERM): its exit status, or -1 when it was not running.
	int stop();

private:
	pid_t pid_ = -1;
};

// A connection to the keld of the current KEL_ROOT, or to the server on `socket`; NULL
// when there is none.
nuq_conn_t *connect_keld();
nuq_conn_t *connect_unix(const std::string &socket);

// Whether another process could take a record lock of `type` on `file` right now.
bool other_process_can_lock(const std::string &file, short type);

// Whether process `pid` is waiting for a record lock (it shows in /proc/locks).
bool blocked_on_lock(pid_t pid);

// Waits up to a few seconds for `cond` to hold; false if it never did.
template <class Cond>
bool eventually(Cond &&cond)
{
	for (int i = 0; i < 500; i++) {
		if (cond())
			return true;
		usleep(10000);
	}
	return false;
}

}  // namespace kel::test
