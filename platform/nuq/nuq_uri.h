// Remote administration URIs: how a host reaches the controller or the controller a
// host.
//   unix://                                 the local daemon's socket
//   unix://[user@]localhost/path            another local socket
//   ssh://[user@]host[:port][/path]         the daemon of `host`, through ssh (a host
//                                           is required)
#pragma once

extern "C" {

// Scheme bits, combined into the mask of schemes a caller accepts.
typedef enum { NUQS_UNIX = 0x1, NUQS_SSH = 0x8 } nuq_scheme_t;

typedef struct nuq_uri nuq_uri_t;

// Parses `text`; NULL when it is not a URI of one of the schemes in `mask`. Scheme
// names are matched ignoring case, as URIs allow.
nuq_uri_t *nuq_alloc_uri(const char *text, int mask);
void nuq_free_uri(nuq_uri_t *uri);
nuq_scheme_t nuq_uri_get_scheme(const nuq_uri_t *uri);
// The parts; "" when absent (port 0).
const char *nuq_uri_get_user(const nuq_uri_t *uri);
const char *nuq_uri_get_host(const nuq_uri_t *uri);
int nuq_uri_get_port(const nuq_uri_t *uri);
const char *nuq_uri_get_path(const nuq_uri_t *uri);
}
