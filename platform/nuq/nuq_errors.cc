#include "nuq_errors.h"

namespace {

constexpr int kParseError = -32700;
constexpr int kInvalidRequest = -32600;
constexpr int kMethodNotFound = -32601;
constexpr int kInvalidParams = -32602;
constexpr int kServerBase = -32000;  // -32000 to -32099: defined by the server

}  // namespace

extern "C" const char *nuq_err_string(int err)
{
	switch (err) {
	case NUQ_E_SUCCESS: return "success";
	case NUQ_E_OBJECT: return "the remote method reported an error";
	case NUQ_E_NOTFOUND: return "remote object not found";
	case NUQ_E_DENIED: return "permission denied by the remote server";
	case NUQ_E_NOMETHOD: return "no such remote method";
	case NUQ_E_BADARGS: return "invalid arguments to a remote method";
	case NUQ_E_NOINTERFACE: return "no such remote interface";
	case NUQ_E_SYSTEM: return "remote server failure";
	case NUQ_E_REQUEST: return "malformed or oversized request";
	case NUQ_E_PARSE: return "request is not JSON or is nested too deeply";
	case NUQ_E_BUSY: return "remote server busy: too many connections";
	case NUQ_E_NOMEM: return "out of memory";
	case NUQ_E_CONNECT: return "cannot connect to the remote server";
	case NUQ_E_CLOSED: return "connection closed";
	case NUQ_E_TIMEOUT: return "remote call timed out";
	case NUQ_E_PROTOCOL: return "malformed reply from the remote server";
	}
	return "unknown remote administration error";
}

namespace nuq {

int wire_code(int err)
{
	switch (err) {
	case NUQ_E_PARSE: return kParseError;
	case NUQ_E_REQUEST: return kInvalidRequest;
	case NUQ_E_NOMETHOD: return kMethodNotFound;
	case NUQ_E_BADARGS: return kInvalidParams;
	}
	return kServerBase - err;
}

int from_wire_code(long code)
{
	switch (code) {
	case kParseError: return NUQ_E_PARSE;
	case kInvalidRequest: return NUQ_E_REQUEST;
	case kMethodNotFound: return NUQ_E_NOMETHOD;
	case kInvalidParams: return NUQ_E_BADARGS;
	}
	const long err = kServerBase - code;
	switch (err) {
	case NUQ_E_OBJECT:
	case NUQ_E_NOTFOUND:
	case NUQ_E_DENIED:
	case NUQ_E_NOINTERFACE:
	case NUQ_E_SYSTEM:
	case NUQ_E_BUSY: return static_cast<int>(err);
	}
	return NUQ_E_PROTOCOL;
}

}  // namespace nuq
