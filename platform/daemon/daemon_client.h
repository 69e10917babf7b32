// keld's own interface, "kel.Daemon", as its clients call it (keld's module is beside
// keld, cmd/keld/daemon_module.h): what a host's daemon says of itself. Plain C types,
// so that the library's core calls it without the JSON library.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "nuq_types.h"

struct DaemonInfo {
	std::string host;  // the host's node name
	std::string version;
	int64_t pid = 0;
	uint64_t uptime = 0;  // seconds since the daemon started
	uint64_t reloads = 0;
	std::string controller;  // its "controller" client setting
	bool checked = false;    // whether it tried its controller, and then:
	int controller_rc = 0;   // what that gave, as a library code
};

// Asks the daemon at the other end of `conn` (found by any key) for its info; with `check`
// it first tries to reach its own controller. 0, or an error number of the transport.
int daemon_info(nuq_conn_t *conn, bool check, DaemonInfo *out);

// What the fabric left on the host at the other end of `conn` (see wexo_fabric_leftovers):
// kind, name, what is wrong, and for a VNIC how many seconds ago its port was bound there.
struct Leftover {
	std::string kind, name, what;
	int64_t age = 0;
};
// Every leftover, however recent. 0, or an error number of the transport.
int daemon_leftovers(nuq_conn_t *conn, std::vector<Leftover> *out);
// Removes one; 0, or an error number of the transport (NUQ_E_OBJECT: the host could not).
int daemon_remove_leftover(nuq_conn_t *conn, const Leftover &what);
