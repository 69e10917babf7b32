// Error numbers of remote administration. A call returns 0 on success, NUQ_E_OBJECT (1)
// when the method answered with its own error record, another server error (2-10) when
// the server refused the call, or a client error (1024-1028) when it never got an answer.
#pragma once

extern "C" {

// Server errors.
#define NUQ_E_SUCCESS     0
#define NUQ_E_OBJECT      1   // the method's own error record came back
#define NUQ_E_NOTFOUND    2   // no object matches the lookup
#define NUQ_E_DENIED      3   // the caller may not use the server
#define NUQ_E_NOMETHOD    4   // no such method (of the protocol or of the interface)
#define NUQ_E_BADARGS     5   // the parameters or the method's arguments do not fit it
#define NUQ_E_NOINTERFACE 6   // the server has no such interface
#define NUQ_E_SYSTEM      7   // the server failed
#define NUQ_E_REQUEST     8   // not a request: wrong envelope, or oversized
#define NUQ_E_PARSE       9   // not JSON, or nested too deeply
#define NUQ_E_BUSY        10  // the server holds too many connections of this caller

// Client errors.
#define NUQ_E_NOMEM    1024
#define NUQ_E_CONNECT  1025
#define NUQ_E_CLOSED   1026
#define NUQ_E_TIMEOUT  1027
#define NUQ_E_PROTOCOL 1028

// The text of a server or client error number.
const char *nuq_err_string(int err);
}

namespace nuq {

// A server error as the "code" of a JSON-RPC 2.0 error object: the protocol's own codes
// where one fits (-32700 parse error, -32600 invalid request, -32601 method not found,
// -32602 invalid params), else -32000 minus our number, in the range the protocol leaves
// to servers.
int wire_code(int err);
// The server error a wire code stands for; NUQ_E_PROTOCOL for a code no server of ours
// sends.
int from_wire_code(long code);

}  // namespace nuq
