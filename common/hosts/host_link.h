// A bound port's VNIC on its host, reached through the host's datalink interface.
#pragma once

#include <functional>
#include <string>

#include <kel/libkel.h>
#include "kept.h"
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
	// The same without asking the host first: `first` (the caller's first call on the
	// link) tells whether the link is there, and is made again on a new connection when
	// the kept one turns out to be dead. The remote call's code (NUQ_E_NOTFOUND without
	// the link), or NUQ_E_CONNECT when the host could not be reached.
	int call_named(const std::string &uri, const char *vnic, const std::function<int(nuq_instance_t *)> &first);
	nuq_instance_t *get() const { return link_; }

private:
	nuq::KeptConnection conn_;
	nuq_instance_t *link_ = nullptr;
};

}  // namespace kel
