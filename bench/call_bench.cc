// One bind and unbind of a port, in process and through the controller's keld over its
// local socket, in one run: the medians and their ratio. The two come in blocks (in
// process, socket, in process again) rather than round by round: a write by another
// process makes keld's next write open check the whole store, which interleaving would
// charge to every socket call. Run by keld_call_bench.sh, which makes the store (kel "web",
// ports p0...), sets controller=unix:// and starts keld under $KEL_ROOT.
// Usage: call_bench ROUNDS PORTS
#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <kel/libkel.h>
#include "vnic.h"

namespace {

using Clock = std::chrono::steady_clock;

double median(std::vector<double> v)
{
	std::sort(v.begin(), v.end());
	return v.empty() ? 0 : v[v.size() / 2];
}

template <typename F>
double timed(F f)
{
	const auto t0 = Clock::now();
	if (f() != KEL_SUCCESS)
		std::exit(1);
	return std::chrono::duration<double, std::micro>(Clock::now() - t0).count();
}

}  // namespace

int main(int argc, char **argv)
{
	if (argc < 3) {
		std::fprintf(stderr, "usage: call_bench ROUNDS PORTS\n");
		return 2;
	}
	const int rounds = std::atoi(argv[1]);
	kel_dbhandle_t h = nullptr;
	if (kel_db_open(&h, SQLITE_OPEN_READWRITE) != KEL_SUCCESS)
		return 1;
	std::vector<double> inproc, socket;
	const auto in_process = [&] {
		for (int i = 0; i < rounds / 2; i++)
			inproc.push_back(timed([&] {
				kel_t *bound = nullptr;
				int rc = kel_db_assign_vport(h, "sys-global", "web", "p0", "v0", "h1", nullptr, &bound);
				kel_free_kel(bound);
				return rc == KEL_SUCCESS ? kel_db_unassign_vport(h, "v0", "h1", nullptr) : rc;
			}));
	};
	in_process();
	for (int i = 0; i < rounds; i++)
		socket.push_back(timed([&] {
			kelcntl_KELImplInfo *info = nullptr;
			int rc = kel_assign_vport("sys-global", "web", "p0", "v0", "h1", nullptr, &info);
			kelcntl_KELImplInfo_free(info);
			return rc == KEL_SUCCESS ? kel_unassign_vport("v0", "h1", nullptr) : rc;
		}));
	in_process();
	kel_db_close(h);
	const double in = median(inproc), out = median(socket);
	std::printf(
	    "{\"ports\": %s, \"op\": \"bind_unbind\", \"inproc_us\": %.0f, \"socket_us\": %.0f, \"ratio\": %.2f}\n",
	    argv[2], in, out, out / in);
	return 0;
}
