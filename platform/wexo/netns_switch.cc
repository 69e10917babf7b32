#include "netns_switch.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "kelnet.h"

namespace wexo {

bool valid_netns_name(const char *name)
{
	// A namespace-qualified link name checks its namespace part the same way, put
	// together in a buffer of its own: a caller's name of any length allocates nothing.
	char qualified[512];
	const size_t room = sizeof(qualified) - sizeof("/lo");
	const size_t len = name != nullptr ? strnlen(name, room) : 0;
	if (len == 0 || len == room || std::memchr(name, '/', len) != nullptr)
		return false;
	std::memcpy(qualified, name, len);
	std::memcpy(qualified + len, "/lo", sizeof("/lo"));
	return dlparse_zonelinkname(qualified, nullptr, 0, nullptr, 0);
}

int open_netns(const char *name)
{
	return open(("/run/netns/" + std::string(name)).c_str(), O_RDONLY | O_CLOEXEC);
}

NetnsSwitch::NetnsSwitch(int fd)
{
	if (fd == -1)
		return;
	home_.reset(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
	ok_ = home_.valid() && setns(fd, CLONE_NEWNET) == 0;
	if (!ok_)
		home_.reset();
}

NetnsSwitch::~NetnsSwitch()
{
	// A thread left in another namespace would do everything after in the wrong place.
	if (home_.valid() && setns(home_.get(), CLONE_NEWNET) != 0)
		std::abort();
}

}  // namespace wexo
