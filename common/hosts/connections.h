// Connections between the controller and the nodes.
#pragma once

#include <cstddef>

#include <kel/libkel.h>
#include <kel/sys/fabric.h>

// Parses `uri` (unix:// or ssh://) and connects: KEL_E_CTRL_CONNECT when either fails.
int kel_connect_uri(const char *uri, nuq_conn_t **conn);
// The URI that reaches the node `hostname`, from its own or the fabric's "uri-template"
// (read under the store lock).
int kel_kelnode_uri(kel_dbhandle_t h, const char *hostname, char *uri, size_t size);
// The URI that reaches `hostname` through the template `tmpl` ("ssh://[user@]" or
// "unix://[user@]"), into buf: KEL_E_NOMEM when the template does not parse,
// KEL_E_NOSPACE when the URI does not fit.
int kel_host_uri(const char *tmpl, const char *hostname, char *buf, size_t size);
