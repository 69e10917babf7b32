// A bound port's VNIC on its host, reached through the host's datalink interface.
#pragma once

#include "nuq_types.h"
#include "libkel.h"

namespace kel {

class HostLink {
public:
	HostLink() = default;
	~HostLink();
	HostLink(const HostLink &) = delete;
	HostLink &operator=(const HostLink &) = delete;

	// Connects to `host` and finds its datalink `vnic`: KEL_SUCCESS, the connection's
	// code, or (r << 8) | KEL_E_NUQ when the lookup failed with r.
	int open(kel_dbhandle_t h, const char *host, const char *vnic);
	nuq_instance_t *get() const { return link_; }

private:
	nuq_conn_t *conn_ = nullptr;
	nuq_instance_t *link_ = nullptr;
};

}  // namespace kel
