// Drift between the store and the hosts (kel_db_verify): one difference, and what a host
// left behind that nothing uses any more.
#pragma once

#include <string>
#include <vector>

#include <kel/sys/fabric.h>
#include "nuq_types.h"

namespace kel {

// One difference, as the caller will get it.
struct Drift {
	std::string object, host, what, store, found;
	bool repaired = false;
};

// A VNIC recorded on its host less than this long ago is still being made: it is no
// leftover, and its port is not released.
inline constexpr long kLeftoverGraceSeconds = WEXO_LEFTOVER_GRACE_SECONDS;

// What host `host`, over `conn`, left behind. `missing` are VNICs the store has ports
// bound to there that the host does not have: their records are theirs, not reported
// here, and with `repair` removed. With `all`, every other leftover (a VNIC's record, a
// link made on demand, a filter table) is reported into *out, and with `repair` removed.
// Answers which of `missing` may be released: those whose VNIC is not being made.
std::vector<bool> host_leftovers(nuq_conn_t *conn, const std::string &host, const std::vector<std::string> &missing,
    bool all, bool repair, std::vector<Drift> *out);

}  // namespace kel
