#include "controller_calls.h"

#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include <kel/libkel.h>
#include "kept.h"
#include "owners.h"

namespace kel {
namespace {

using Clock = std::chrono::steady_clock;
using Conn = Owned<kel_kept_conn_t, kel_kept_release>;

constexpr auto kFirstPause = std::chrono::milliseconds(250);
constexpr auto kLongestPause = std::chrono::seconds(2);

// The call never reached a controller, or the controller went in the middle of it: the
// next controller may serve it.
bool unanswered(int rc)
{
	if (rc == KEL_E_CTRL_CONNECT)
		return true;
	return KEL_ERR_REASON(rc) == KEL_E_NUQ && nuq::KeptConnection::transport_failed(KEL_ERR_STATUS(rc));
}

}  // namespace

bool store_unavailable(int rc)
{
	if (KEL_ERR_REASON(rc) != KEL_E_SQL)
		return false;
	const int st = KEL_ERR_STATUS(rc) & 0xff;  // the primary code of an extended one
	return st == SQLITE_IOERR || st == SQLITE_READONLY || st == SQLITE_CANTOPEN;
}

int on_controller(const std::function<int(nuq_conn_t *)> &call)
{
	const Clock::time_point deadline = Clock::now() + std::chrono::seconds(kFailoverWaitSeconds);
	auto pause = std::chrono::milliseconds(kFirstPause);
	int last = KEL_E_CTRL_CONNECT;
	// A kept connection that died since it was kept fails its first exchange: the second
	// pass asks over new ones before the call is given up as unanswered.
	for (int pass = 0;; pass++) {
		bool waiting = false;
		for (unsigned i = 0;; i++) {
			kel_kept_conn_t *raw = nullptr;
			int rc = kel_kept_controller(i, &raw);
			const Conn conn(raw);
			if (rc == KEL_E_NOTFOUND && i > 0)
				break;  // past the last controller
			if (rc == KEL_SUCCESS)
				rc = call(kel_kept_conn(conn.get()));
			if (!unanswered(rc) && !store_unavailable(rc))
				return rc;
			waiting = waiting || store_unavailable(rc);
			last = rc;
		}
		if (!waiting && pass > 0)
			return last;
		if (waiting) {
			if (Clock::now() + pause >= deadline)
				return last;
			std::this_thread::sleep_for(pause);
			pause = std::min<std::chrono::milliseconds>(pause * 2, kLongestPause);
		}
	}
}

}  // namespace kel
