// The client side of remote administration: connections, object lookups and calls.
#pragma once

#include <cstdarg>
#include <string>

#include <nlohmann/json.hpp>

#include "c_boundary.h"
#include "nuq_errors.h"
#include "nuq_types.h"
#include "nuq_uri.h"

namespace nuq {

// Calls `method` on `inst`: 0 with *result; NUQ_E_OBJECT with the method's error record
// in *error; another server error; or a client error. Waits at most the connection's
// call time-out (30 s; KEL_NUQ_TIMEOUT_MS overrides it).
int call(nuq_instance_t *inst, const char *method, const nlohmann::json &args, nlohmann::json *result,
    nlohmann::json *error);

// nuq_lookup for callers that take their own key pairs as `...`; a pair whose value is
// NULL is not sent.
int lookup_v(nuq_conn_t *conn, const char *interface, int strict, nuq_instance_t **out, int nkeys, va_list ap);

// Runs an exported client stub's body: running out of memory is NUQ_E_NOMEM, and an
// answer that does not read as the records it should be (a JSON exception) NUQ_E_PROTOCOL.
template <class Body>
int client_boundary(Body &&body) noexcept
{
	return kel::c_boundary_as<int>(NUQ_E_NOMEM, NUQ_E_PROTOCOL, std::forward<Body>(body));
}

// The keys an instance was found with.
const nlohmann::json &keys(const nuq_instance_t *inst);

// A connection over descriptors already open (tests, and the ssh relay's pipes).
nuq_conn_t *connect_fds(int in, int out);
// A stream socket connected to the unix socket at `path`, or -1.
int connect_unix(const std::string &path);

}  // namespace nuq
