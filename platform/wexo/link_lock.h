// A host-local lock on one link name. Whoever makes or removes a link the fabric makes on
// demand holds it, so that a removal's check that nothing uses the link and the removal
// itself are one step to a concurrent maker on the same host.
#pragma once

#include <string>

namespace wexo {

class LinkLock {
public:
	// Waits for the lock of `link` (a file under run/kel/links/).
	explicit LinkLock(const std::string &link);
	~LinkLock();
	LinkLock(const LinkLock &) = delete;
	LinkLock &operator=(const LinkLock &) = delete;

	// False when the lock file could not be made or locked (errno says why).
	bool held() const { return fd_ != -1; }

private:
	int fd_ = -1;
};

}  // namespace wexo
