// The flood calls with C++ lists, as the tests compare them.
#pragma once

#include <string>
#include <vector>

#include "wexo.h"

namespace kel::test {

inline wexo_status_t get_flood(wexo_handle_t h, datalink_id_t id, std::string *local, std::vector<std::string> *remotes)
{
	wexo_flood_t flood;
	const wexo_status_t st = wexo_vxlan_get_flood(h, id, &flood);
	*local = flood.wf_local;
	remotes->assign(flood.wf_remotes, flood.wf_remotes + flood.wf_count);
	wexo_free_flood(&flood);
	return st;
}

inline wexo_status_t set_flood(wexo_handle_t h, datalink_id_t id, const std::vector<std::string> &remotes,
    bool only_add)
{
	std::vector<const char *> texts;
	for (const std::string &r : remotes)
		texts.push_back(r.c_str());
	return wexo_vxlan_set_flood(h, id, texts.data(), texts.size(), only_add ? B_TRUE : B_FALSE);
}

}  // namespace kel::test
