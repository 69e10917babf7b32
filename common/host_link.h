// A bound port's VNIC on its host, reached through the host's datalink interface.
#pragma once

#include <string>

#include "kept.h"
#include "libkel.h"
#include "nuq_types.h"

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
	// The same over `uri` (from kel_kelnode_uri), for callers that read the store first
	// and reach the hosts after, several at once; the connection is a kept one when there
	// is one (platform/nuq/kept.h).
	int open_uri(const std::string &uri, const char *vnic);
	nuq_instance_t *get() const { return link_; }

private:
	nuq::KeptConnection conn_;
	nuq_instance_t *link_ = nullptr;
};

}  // namespace kel
