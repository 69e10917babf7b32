// A datalink failure as a method's error record: the status and its text.
#pragma once

#include "server.h"
#include "nuq_errors.h"
#include <kel/sys/fabric.h>

namespace keld {

inline nuq::Reply datalink_error(wexo_status_t st)
{
	char buf[1024];
	return nuq::Reply{NUQ_E_OBJECT, {{"dde_err", st}, {"dde_errmsg", wexo_status2str(st, buf)}}};
}

}  // namespace keld
