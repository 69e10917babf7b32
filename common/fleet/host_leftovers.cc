// What a host left behind, as its keld finds it: reported as drift, removed on repair.
#include <map>

#include "daemon_client.h"
#include "drift.h"
#include "nuq_errors.h"

namespace kel {

std::vector<bool> host_leftovers(nuq_conn_t *conn, const std::string &host, const std::vector<std::string> &missing,
    bool all, bool repair, std::vector<Drift> *out)
{
	std::vector<bool> releasable(missing.size(), true);
	std::vector<Leftover> left;
	if (const int rc = daemon_leftovers(conn, &left); rc != NUQ_E_SUCCESS) {
		// A keld without the method records nothing: its ports are the store's to release.
		if (all)
			out->push_back({host, host, "host", "what is left behind",
			    rc == NUQ_E_NOMETHOD ? "its keld cannot tell" : "the host did not answer"});
		return releasable;
	}
	std::map<std::string, const Leftover *> vnics;
	for (const Leftover &l : left)
		if (l.kind == "vnic")
			vnics[l.name] = &l;
	for (size_t i = 0; i < missing.size(); i++) {
		const auto it = vnics.find(missing[i]);
		if (it == vnics.end())
			continue;
		releasable[i] = it->second->age >= kLeftoverGraceSeconds;
		if (repair && releasable[i])
			(void)daemon_remove_leftover(conn, *it->second);
		vnics.erase(it);
	}
	if (!all)
		return releasable;
	for (const Leftover &l : left) {
		if (l.kind == "vnic" && (vnics.count(l.name) == 0 || l.age < kLeftoverGraceSeconds))
			continue;  // a missing port's, or still being made
		Drift d{l.name, host, "leftover", "none", l.kind + ": " + l.what};
		d.repaired = repair && daemon_remove_leftover(conn, l) == NUQ_E_SUCCESS;
		out->push_back(d);
	}
	return releasable;
}

}  // namespace kel
