// A host's steady stream of binds and releases, for the failover scenario: ports
// PREFIX0..PREFIX<N-1> of the kel KEL bound to VNICs on HOST and released again, one step
// at a time, through the node side (and so through the host's list of controllers), until
// the file STOP exists. Each acknowledged step is one line, its time in milliseconds since
// the start first:
//   MS bind PORT IPADDR MACADDR
//   MS release PORT
// A step the node side gave up on is "MS error bind|release PORT CODE MESSAGE", and is
// made again, as a host's manager would, until STOP appears: then the stream ends with
// status 1, its last step not done.
// Usage: bind_stream KEL HOST PREFIX N STOP
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include <kel/libkel.h>
#include "vnic.h"

namespace {

using Clock = std::chrono::steady_clock;
const Clock::time_point start = Clock::now();

long long ms()
{
	return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

void failed(const char *step, const std::string &port, int rc, const char *stop)
{
	char msg[256];
	std::printf("%lld error %s %s %d %s\n", ms(), step, port.c_str(), rc, kel_errmsg(rc, msg, sizeof(msg)));
	std::fflush(stdout);
	if (access(stop, F_OK) == 0)
		std::exit(1);
	std::this_thread::sleep_for(std::chrono::milliseconds(200));
}

const char *prop(kelcntl_VPortInfo *vp, const char *name)
{
	const char *v = kel_propattrset_lookup(vp->evpi_props, vp->evpi_props_count, name);
	return v != nullptr ? v : "-";
}

}  // namespace

int main(int argc, char **argv)
{
	if (argc != 6) {
		std::fprintf(stderr, "usage: bind_stream KEL HOST PREFIX N STOP\n");
		return 2;
	}
	const char *kel = argv[1], *host = argv[2], *stop = argv[5];
	const std::string prefix = argv[3];
	const int n = std::atoi(argv[4]);
	for (int i = 0; access(stop, F_OK) != 0; i = (i + 1) % n) {
		const std::string port = prefix + std::to_string(i);
		const std::string vnic = "v" + port;
		for (;;) {
			kelcntl_KELImplInfo *info = nullptr;
			const int rc = kel_assign_vport(nullptr, kel, port.c_str(), vnic.c_str(), host, nullptr, &info);
			if (rc == KEL_SUCCESS) {
				kelcntl_VPortInfo *vp = info->ekelii_kelinfo->ekeli_vports[0];
				std::printf("%lld bind %s %s %s\n", ms(), port.c_str(), prop(vp, "ipaddr"),
				    prop(vp, "macaddr"));
				std::fflush(stdout);
				kelcntl_KELImplInfo_free(info);
				break;
			}
			failed("bind", port, rc, stop);
		}
		for (;;) {
			const int rc = kel_unassign_vport(vnic.c_str(), host, nullptr, nullptr);
			if (rc == KEL_SUCCESS) {
				std::printf("%lld release %s\n", ms(), port.c_str());
				std::fflush(stdout);
				break;
			}
			failed("release", port, rc, stop);
		}
	}
	return 0;
}
