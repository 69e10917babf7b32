#include "fenu.h"

extern "C" {

const char *fenu_status2str(int status) noexcept
{
	switch (status) {
	case FENU_SUCCESS: return "success";
	case FENU_FAILURE: return "IP interface operation failed";
	case FENU_NOTFOUND: return "address or interface not found";
	case FENU_NOMEM: return "out of memory";
	case FENU_BADARG: return "invalid address or interface";
	}
	return "unknown IP interface error";
}

}  // extern "C"
