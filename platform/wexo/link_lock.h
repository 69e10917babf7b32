// A host-local lock on one name: a link the fabric makes on demand ("kel-vxlan5000"), or
// the kept properties of one link ("NAMESPACE/LINK.props"). Whoever makes or removes an
// on-demand link, or records a VNIC over it, holds the link's lock, so that a removal's
// check that nothing uses the link and the removal itself are one step to a concurrent
// maker on the same host; whoever changes a link's properties holds that link's, so
// that two changes at once both land.
//
// Held across processes (a lock file) and threads; a thread that holds a name may take it
// again (a VNIC's record taken under its lower link's lock while that link is made).
#pragma once

#include <memory>
#include <string>

namespace wexo {

class LinkLock {
public:
	// Waits for the lock of `name` (a file under run/kel/links/; a name with a "/" has
	// its own folder there).
	explicit LinkLock(const std::string &name);
	~LinkLock();
	LinkLock(const LinkLock &) = delete;
	LinkLock &operator=(const LinkLock &) = delete;

	// False when the lock file could not be made or locked (errno says why): then
	// nothing is held.
	bool held() const { return held_; }

	struct Entry;

private:
	std::string name_;
	std::shared_ptr<Entry> entry_;
	bool held_ = false;
};

}  // namespace wexo
