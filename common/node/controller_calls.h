// Calls from a host to its controllers. The host's "controller" setting may name several
// controllers that share one database; a call goes to the first that answers, and to the
// next when one does not answer or says its store is out of reach for the moment (the
// database failing over). Every call the node makes of a controller may be made again
// without handing anything out twice: a bind finds the binding it made, a release finds
// nothing left to release, the rest only read.
#pragma once

#include <functional>

#include <kel/sys/fabric.h>

namespace kel {

// How long a call keeps trying while a controller answers that its store is out of
// reach: longer than a database cluster takes to fail over, short enough that whoever
// makes the VNIC gets an answer.
inline constexpr int kFailoverWaitSeconds = 60;

// Runs `call` with a connection to one of the host's controllers and returns its code.
// Controllers that do not answer are passed over; when the store is out of reach
// everywhere, every controller is asked again after a pause (0.25 s, doubling up to
// 2 s) until kFailoverWaitSeconds have gone. The last code stands when none served it.
int on_controller(const std::function<int(nuq_conn_t *)> &call);

// Whether a code is a controller's answer that its store is out of reach for now: no
// connection to the database, or one to a member that is not (or no longer) the
// primary.
bool store_unavailable(int rc);

}  // namespace kel
