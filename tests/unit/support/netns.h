// Network namespaces for tests: made with iproute2, removed afterwards. Traffic in these
// tests stays inside them.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "test_support.h"
#include "wexo.h"

namespace kel::test {

class NetNs {
public:
	explicit NetNs(const std::string &tag) : name_("kelt" + std::to_string(getpid()) + tag)
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
	static bool run(const std::string &cmd) { return std::system((cmd + " >/dev/null 2>&1").c_str()) == 0; }
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
	explicit InNetNs(const NetNs &ns) : home_(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC))
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

// Makes the VNIC `name` in `ns`: a macvlan with address `mac` over `lower` (a veth, made
// when missing), recorded as one the fabric bound there, as a connect would. true when
// all of it was done.
inline bool fabric_vnic(const NetNs &ns, const std::string &name, const std::string &lower, const std::string &mac)
{
	if (!ns.exec("ip link show " + lower) &&
	    !ns.exec("ip link add " + lower + " type veth peer name " + lower + "p"))
		return false;
	if (!ns.exec("ip link set " + lower + " up") ||
	    !ns.exec("ip link add " + name + " address " + mac + " link " + lower + " type macvlan mode bridge") ||
	    !ns.exec("ip link set " + name + " up"))
		return false;
	return ns.inside([&] {
		wexo_handle_t h = nullptr;
		datalink_id_t id = 0;
		const bool ok = wexo_open(&h) == WEXO_STATUS_OK &&
		    wexo_name2info(h, lower.c_str(), &id, nullptr) == WEXO_STATUS_OK &&
		    wexo_vnic_own(h, name.c_str(), mac.c_str(), id, nullptr) == WEXO_STATUS_OK;
		wexo_close(h);
		return ok ? 0 : 1;
	}) == 0;
}

}  // namespace kel::test
