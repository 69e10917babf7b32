#include "host_link.h"

#include "error_code.h"
#include "harl.h"

namespace kel {

HostLink::~HostLink()
{
	nuq_instance_rele(link_);
	nuq_disconnect(conn_);
}

int HostLink::open(kel_dbhandle_t h, const char *host, const char *vnic)
{
	if (int rc = kel_nuq_connection_to_kelnode(h, host, &conn_); rc != KEL_SUCCESS)
		return rc;
	if (int r = harl_Datalink__nuq_lookup(conn_, 1, &link_, 1, "name", vnic); r != 0)
		return kel::compose_error(r, KEL_E_NUQ);
	return KEL_SUCCESS;
}

}  // namespace kel
