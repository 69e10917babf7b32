#include "nuq_errors.h"

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
	case NUQ_E_NOMEM: return "out of memory";
	case NUQ_E_CONNECT: return "cannot connect to the remote server";
	case NUQ_E_CLOSED: return "connection closed";
	case NUQ_E_TIMEOUT: return "remote call timed out";
	case NUQ_E_PROTOCOL: return "malformed reply from the remote server";
	}
	return "unknown remote administration error";
}
