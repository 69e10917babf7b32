// A connection's insides, which the client's calls (client.cc) and its way to a host over
// ssh (ssh_relay.cc) share.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <mutex>
#include <string>

#include <nlohmann/json.hpp>

#include "nuq_types.h"
#include "nuq_uri.h"
#include "ssh_share.h"
#include "wire.h"

struct nuq_conn {
	int in = -1;            // replies come from here
	int out = -1;           // requests go there (the same socket for unix://)
	pid_t relay = -1;       // the ssh process, for ssh://
	int relay_errors = -1;  // what it writes to its standard error (non-blocking)
	std::string host;       // where it goes, to name in what it says
	nuq::LineReader reader{-1};
	std::mutex mutex;  // one call at a time per connection
	long next_id = 1;
	std::chrono::milliseconds timeout{30000};
	bool broken = false;    // after a time-out or a framing error replies cannot be matched
	nuq::FileSlot session;  // its place among the sessions on a shared ssh connection
};

namespace nuq {

// How long a call waits for its reply (30 s; KEL_NUQ_TIMEOUT_MS overrides it).
std::chrono::milliseconds call_timeout();
// Sends one request and waits for its reply; the connection's mutex is held.
int exchange(nuq_conn_t *conn, const std::string &op, const nlohmann::json &params, nlohmann::json *result,
    nlohmann::json *error);
// Passes on, named with its host, what the connection's ssh has said so far.
void relay_errors(nuq_conn_t *conn);
// A connection over ssh to the host of `uri`, running "keld bridge" there; NULL when
// none could be made.
nuq_conn_t *connect_ssh(const nuq_uri_t *uri);

}  // namespace nuq
