// Named network namespaces ("ip netns" names, /run/netns/NAME), and running a step of
// the calling thread inside one.
#pragma once

#include "unique_fd.h"

namespace wexo {

// A namespace name as "ip netns" takes it: 1-255 letters, digits, '_', '-' or '.', not
// "." or "..".
bool valid_netns_name(const char *name);
// A descriptor of the named namespace, or -1 (errno set).
int open_netns(const char *name);

// Puts the calling thread into namespace `fd` (none when -1) until it goes, then back.
class NetnsSwitch {
public:
	explicit NetnsSwitch(int fd);
	~NetnsSwitch();
	NetnsSwitch(const NetnsSwitch &) = delete;
	NetnsSwitch &operator=(const NetnsSwitch &) = delete;

	// False when the thread could not enter the namespace (it stays where it was).
	bool ok() const { return ok_; }

private:
	kel::UniqueFd home_;  // where the thread was, while it is elsewhere
	bool ok_ = true;
};

}  // namespace wexo
