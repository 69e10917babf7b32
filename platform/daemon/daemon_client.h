// keld's own interface, "kel.Daemon", as its clients call it (keld's module is beside
// keld, cmd/keld/daemon_module.h): what a host's daemon says of itself. Plain C types,
// so that the library's core calls it without the JSON library.
#pragma once

#include <cstdint>
#include <string>

#include "nuq_types.h"

struct DaemonInfo {
	std::string host;	// the host's node name
	std::string version;
	int64_t pid = 0;
	uint64_t uptime = 0;	// seconds since the daemon started
	uint64_t reloads = 0;
	std::string controller;	// its "controller" client setting
	bool checked = false;	// whether it tried its controller, and then:
	int controller_rc = 0;	// what that gave, as a library code
};

// Asks the daemon at the other end of `conn` (found by any key) for its info; with `check`
// it first tries to reach its own controller. 0, or an error number of the transport.
int daemon_info(nuq_conn_t *conn, bool check, DaemonInfo *out);
