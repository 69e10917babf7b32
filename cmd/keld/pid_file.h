// The pid file, locked for as long as the daemon runs: of several keld processes started
// at the same moment, only the one that takes the lock goes on.
#pragma once

#include <sys/types.h>

#include <string>

#include "unique_fd.h"

namespace keld {

class PidFile {
public:
	PidFile() = default;
	// Removes the file, then drops the lock.
	~PidFile();
	PidFile(const PidFile &) = delete;
	PidFile &operator=(const PidFile &) = delete;

	// Locks `path` and writes this process's pid into it: 0; EWOULDBLOCK with *holder
	// the pid the file names (0 when it names none yet) while another keld holds it;
	// or another errno.
	int acquire(const std::string &path, pid_t *holder);

private:
	kel::UniqueFd fd_;
	std::string path_;
};

}  // namespace keld
