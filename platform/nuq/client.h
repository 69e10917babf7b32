// The client side of remote administration: connections, object lookups and calls.
#pragma once

#include <cstdarg>

#include <nlohmann/json.hpp>

#include "nuq_uri.h"

extern "C" {

typedef struct nuq_conn nuq_conn_t;
typedef struct nuq_instance nuq_instance_t;

// Connects as the URI says: unix:// to a local socket, ssh:// through
// "ssh -T -o BatchMode=yes [-F $KEL_SSH_CONFIG] ... keld bridge [path]". `credentials` is unused (each scheme
// authenticates by its own means). An ssh connection is proven by one exchange before it
// is returned. NULL on failure.
nuq_conn_t *nuq_connect_uri(const nuq_uri_t *uri, void *credentials);
void nuq_disconnect(nuq_conn_t *conn) noexcept;
// Looks up the object of `interface` named by `nkeys` (name, value) string pairs: with
// `strict` every key of the object must be given, else any object that matches those
// given. 0 and *out, or an error number.
int nuq_lookup(nuq_conn_t *conn, const char *interface, int strict, nuq_instance_t **out,
    int nkeys, ...);
void nuq_instance_rele(nuq_instance_t *inst);

}

namespace nuq {

// Calls `method` on `inst`: 0 with *result; NUQ_E_OBJECT with the method's error record
// in *error; another server error; or a client error. Waits at most the connection's
// call time-out (30 s; KEL_NUQ_TIMEOUT_MS overrides it).
int call(nuq_instance_t *inst, const char *method, const nlohmann::json &args,
    nlohmann::json *result, nlohmann::json *error);

// nuq_lookup for callers that take their own key pairs as `...`; a pair whose value is
// NULL is not sent.
int lookup_v(nuq_conn_t *conn, const char *interface, int strict, nuq_instance_t **out,
    int nkeys, va_list ap);

// The keys an instance was found with.
const nlohmann::json &keys(const nuq_instance_t *inst);

// A connection over descriptors already open (tests, and the ssh relay's pipes).
nuq_conn_t *connect_fds(int in, int out);

}  // namespace nuq
