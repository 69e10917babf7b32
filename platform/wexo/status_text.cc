#include <cstdio>

#include "bandwidth.h"

extern "C" {

const char *wexo_status2str(wexo_status_t status, char *buf) noexcept
{
	const char *text = "unknown datalink error";
	switch (status) {
	case WEXO_STATUS_OK: text = "success"; break;
	case WEXO_STATUS_FAILED: text = "datalink operation failed"; break;
	case WEXO_STATUS_BADARG: text = "invalid datalink argument"; break;
	case WEXO_STATUS_NOTFOUND: text = "datalink not found"; break;
	case WEXO_STATUS_NOTSUP: text = "datalink operation not supported"; break;
	case WEXO_STATUS_NOMEM: text = "out of memory"; break;
	case WEXO_STATUS_DENIED: text = "datalink operation not permitted"; break;
	case WEXO_STATUS_BADVAL: text = "invalid datalink property value"; break;
	case WEXO_STATUS_EXIST: text = "datalink already exists"; break;
	case WEXO_STATUS_NOADDR: text = "VXLAN endpoint address is not on this host"; break;
	case WEXO_STATUS_DBNOTFOUND: text = "IP interface configuration not found"; break;
	case WEXO_STATUS_LINKBUSY: text = "datalink is in use by other links"; break;
	case WEXO_STATUS_NOTFABRIC: text = "datalink is not one the fabric made"; break;
	case WEXO_STATUS_BADVXLANIF: text = "VXLAN interface is not an IP interface"; break;
	}
	std::snprintf(buf, 1024, "%s", text);
	return buf;
}

}  // extern "C"
