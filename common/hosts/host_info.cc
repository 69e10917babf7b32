// A host's daemon as it reports itself, and whether this host reaches its controller:
// the health questions an operator asks of a fabric.
#include <cstring>

#include <kel/libkel.h>
#include "c_boundary.h"
#include "connections.h"
#include "daemon_client.h"
#include "error_code.h"
#include "nuq_errors.h"
#include "nuq_types.h"
#include "owners.h"
#include "text.h"

extern "C" {

int kel_get_hostinfo(nuq_conn_t *conn, uint32_t flags, kel_hostinfo_t *info) noexcept
{
	if (info == nullptr)
		return KEL_E_INVALID_ARGS;
	std::memset(info, 0, sizeof(*info));
	if (conn == nullptr || (flags & ~KEL_HOSTINFO_CHECK) != 0)
		return KEL_E_INVALID_ARGS;
	return kel::c_boundary([&] {
		DaemonInfo got;
		if (int rc = daemon_info(conn, (flags & KEL_HOSTINFO_CHECK) != 0, &got); rc != NUQ_E_SUCCESS)
			return kel::compose_error(rc, KEL_E_NUQ);
		kel::copy_text(info->ehi_host, got.host.c_str(), sizeof(info->ehi_host));
		kel::copy_text(info->ehi_version, got.version.c_str(), sizeof(info->ehi_version));
		kel::copy_text(info->ehi_controller, got.controller.c_str(), sizeof(info->ehi_controller));
		info->ehi_pid = got.pid;
		info->ehi_uptime = got.uptime;
		info->ehi_reloads = got.reloads;
		// A code from another host is only as good as its form: the reason must be one of ours.
		info->ehi_controller_rc = !got.checked                           ? KEL_E_NOTSUP
		    : KEL_ERR_REASON(got.controller_rc) <= KEL_E_VXLANADDR_ATTRS ? got.controller_rc
		                                                                 : KEL_E_FAILED;
		return KEL_SUCCESS;
	});
}

int kel_check_controller(void) noexcept
{
	return kel::c_boundary([&] {
		nuq_conn_t *raw = nullptr;
		if (int rc = kel_nuq_connection_to_controller(&raw); rc != KEL_SUCCESS)
			return rc;
		const kel::Owned<nuq_conn_t, nuq_disconnect> conn(raw);
		nuq_instance_t *inst = nullptr;
		const int rc = nuq_lookup(conn.get(), "kelcntl.KELController", 0, &inst, 0);
		nuq_instance_rele(inst);
		return rc == NUQ_E_SUCCESS ? KEL_SUCCESS : kel::compose_error(rc, KEL_E_NUQ);
	});
}

}  // extern "C"
