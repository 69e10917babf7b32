// Sharing one ssh connection per destination between calls and processes: ssh's own
// connection multiplexing, through control sockets in a directory that only the caller
// can use. Calls that find no connection to share make it one at a time, so that a burst
// of them logs in once rather than once each, beyond what the sshd lets in at a time.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include "unique_fd.h"

namespace nuq {

// How the calls to one destination share its connection, left open for KEL_SSH_PERSIST
// seconds (60 by default) after the last call.
class SshShare {
public:
	// As many sessions as one caller's connections hold at once on a shared connection:
	// fewer than sshd lets one connection have by default (MaxSessions 10). More callers
	// wait for one of them, at no cost to the sshd.
	static constexpr int kSessions = 8;

	// `destination` is all that sets the connection apart: user, host, port and ssh
	// configuration. Sharing is off when KEL_SSH_PERSIST=0 or no private directory for
	// the sockets is to be had.
	explicit SshShare(const std::string &destination);

	bool enabled() const { return !socket_.empty(); }
	// Whether a connection to share stands now: its master answers on the socket.
	bool master_up() const;
	// The ssh options: `through_master`, a session on the standing connection and never
	// a login of its own (ssh would otherwise log in beside a master that refused the
	// session, its socket then taken); else sharing, making the master when none stands.
	// None when sharing is off.
	std::vector<std::string> options(bool through_master) const;
	// The file whose lock is held while the master is made, and the one whose kSessions
	// slots count the sessions on it.
	const std::string &setup_file() const { return setup_; }
	const std::string &sessions_file() const { return sessions_; }
	// The socket on which the standing connection forwards calls to the host's keld at
	// the URI's `path` (empty: its own), with no ssh client, remote shell or bridge to
	// start; and the file whose recent change says the host refused such a forward.
	std::string forward_socket(const std::string &path) const;
	std::string refused_file() const { return socket_ + ".refused"; }
	const std::string &control_socket() const { return socket_; }

private:
	std::string destination_;
	std::string socket_;
	std::string setup_;
	std::string sessions_;
	long persist_ = 0;
};

// One of the first `slots` bytes of a file, locked for as long as it lives (by its open
// file, so that threads of one process count apart): with one slot, a lock; with more, a
// count of holders.
class FileSlot {
public:
	FileSlot() = default;
	// Waits for a free slot of `file` until `deadline`.
	FileSlot(const std::string &file, int slots, std::chrono::steady_clock::time_point deadline);

	bool held() const { return fd_.valid(); }
	// The deadline came first, every slot still held by others. (Without it, the file
	// could not be opened.)
	bool timed_out() const { return timed_out_; }

private:
	kel::UniqueFd fd_;  // the slot goes with the open file
	bool timed_out_ = false;
};

// Whether `dir` may hold the control sockets: a directory (not a link to one) owned by
// `uid` that no one else may enter or write. Anyone who could place a socket there
// could stand in for every host.
bool private_dir(const std::string &dir, uid_t uid);

}  // namespace nuq
