// A datalink failure as a method's error record: the status and its text.
#pragma once

#include <kel/sys/fabric.h>
#include "nuq_errors.h"
#include "server.h"

namespace keld {

inline nuq::Reply datalink_error(wexo_status_t st)
{
	char buf[1024];
	return nuq::Reply{NUQ_E_OBJECT, {{"dde_err", st}, {"dde_errmsg", wexo_status2str(st, buf)}}};
}

}  // namespace keld
