#include "host_link.h"

#include "connections.h"
#include "error_code.h"
#include "harl.h"
#include "nuq_errors.h"

namespace kel {

namespace {
constexpr size_t kUriLen = 1024;
}

HostLink::~HostLink()
{
	nuq_instance_rele(link_);
}

int HostLink::open(kel_dbhandle_t h, const char *host, const char *vnic)
{
	char uri[kUriLen];
	if (int rc = kel_kelnode_uri(h, host, uri, sizeof(uri)); rc != KEL_SUCCESS)
		return rc;
	return open_uri(uri, vnic);
}

int HostLink::open_uri(const std::string &uri, const char *vnic)
{
	nuq_instance_rele(link_);
	link_ = nullptr;
	// A kept connection whose host went away meanwhile fails its first exchange: one
	// new connection then.
	for (int attempt = 0; attempt < 2; attempt++) {
		if (uri.empty() || conn_.open(uri) != NUQ_E_SUCCESS)
			return KEL_E_HOST_CONNECT;
		const int r = harl_Datalink__nuq_lookup(conn_.get(), 1, &link_, 1, "name", vnic);
		if (r == 0)
			return KEL_SUCCESS;
		if (!conn_.stale(r))
			return kel::compose_error(r, KEL_E_NUQ);
	}
	return KEL_E_HOST_CONNECT;
}

int HostLink::call_named(const std::string &uri, const char *vnic, const std::function<int(nuq_instance_t *)> &first)
{
	int r = NUQ_E_CONNECT;
	for (int attempt = 0; attempt < 2; attempt++) {
		if (uri.empty() || conn_.open(uri) != NUQ_E_SUCCESS)
			return NUQ_E_CONNECT;
		nuq_instance_rele(link_);
		link_ = nullptr;
		if ((r = harl_Datalink__nuq_lookup(conn_.get(), NUQ_LOOKUP_NAMED, &link_, 1, "name", vnic)) ==
		    NUQ_E_SUCCESS)
			r = first(link_);
		if (!conn_.stale(r))
			return r;
	}
	return r;
}

}  // namespace kel
