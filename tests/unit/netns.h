// Network namespaces for tests: made with iproute2, removed afterwards. Traffic in these
// tests stays inside them.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "test_support.h"

namespace kel::test {

class NetNs {
public:
	explicit NetNs(const std::string &tag)
	    : name_("kelt" + std::to_string(getpid()) + tag)
	{
		ok_ = run("ip netns add " + name_);
	}
	~NetNs()
	{
		if (ok_)
			(void)run("ip netns del " + name_);
	}
	NetNs(const NetNs &) = delete;
	NetNs &operator=(const NetNs &) = delete;

	bool ok() const { return ok_; }
	const std::string &name() const { return name_; }

	// Runs a shell command; true when it exits 0.
	static bool run(const std::string &cmd)
	{
		return std::system((cmd + " >/dev/null 2>&1").c_str()) == 0;
	}
	// Runs `cmd` inside the namespace.
	bool exec(const std::string &cmd) const { return run("ip netns exec " + name_ + " " + cmd); }

	// Runs `body` in a child process that has entered the namespace; its exit status.
	template <class Body>
	int inside(Body &&body) const
	{
		return in_child([&] {
			const int fd = open(("/run/netns/" + name_).c_str(), O_RDONLY | O_CLOEXEC);
			if (fd == -1 || setns(fd, CLONE_NEWNET) != 0)
				return 99;
			return body();
		});
	}

private:
	std::string name_;
	bool ok_ = false;
};

// Puts the calling thread into a namespace for its lifetime, and back where it was after.
// Processes it forks (commands, children) start in that namespace too.
class InNetNs {
public:
	explicit InNetNs(const NetNs &ns)
	    : home_(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC))
	{
		const int fd = open(("/run/netns/" + ns.name()).c_str(), O_RDONLY | O_CLOEXEC);
		entered_ = home_ != -1 && fd != -1 && setns(fd, CLONE_NEWNET) == 0;
		if (fd != -1)
			close(fd);
	}
	~InNetNs()
	{
		if (entered_)
			(void)setns(home_, CLONE_NEWNET);
		if (home_ != -1)
			close(home_);
	}
	InNetNs(const InNetNs &) = delete;
	InNetNs &operator=(const InNetNs &) = delete;

	bool entered() const { return entered_; }

private:
	int home_;
	bool entered_ = false;
};

}  // namespace kel::test
