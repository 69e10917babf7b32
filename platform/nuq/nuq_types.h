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
int nuq_lookup(nuq_conn_t *conn, const char *interface, int strict, nuq_instance_t **out,
    int nkeys, ...);
void nuq_instance_rele(nuq_instance_t *inst);

}
