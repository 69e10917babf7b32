// Remote administration as plain C: connections and object lookups, for code that
// passes handles on or releases them without making calls itself (the interfaces'
// client headers, the library's core). Calls, which carry JSON, are client.h's.
#pragma once

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
//
// With `strict` NUQ_LOOKUP_NAMED the keys name the object whole and it is not asked for:
// the server looks the object up again at every call, so a call on one that is not there
// fails with NUQ_E_NOTFOUND, as the lookup would have, one exchange later. For callers that
// know the object's keys (from the server, or whole from their own caller) and call at once.
#define NUQ_LOOKUP_NAMED 2
int nuq_lookup(nuq_conn_t *conn, const char *interface, int strict, nuq_instance_t **out, int nkeys, ...);
void nuq_instance_rele(nuq_instance_t *inst) noexcept;
// Whether `conn`, between calls, can still carry them: false once an exchange on it failed
// in a way that leaves its replies unmatched (a time-out, a closed pipe, a reply out of
// order), or when its other end has closed it since.
int nuq_conn_usable(const nuq_conn_t *conn);
}
