// The metrics of each VNIC the fabric bound on this host: its link's counters, what its
// filters dropped and its cap; and what the guards of the links under them dropped. Read
// from the kernel at each write.
#include <cstring>
#include <set>
#include <string>

#include <kel/sys/fabric.h>
#include "fabric_links.h"
#include "harl_module.h"
#include "metrics_writer.h"

namespace keld::metrics {

std::vector<Sample> vnic_samples()
{
	char host[256] = "";
	(void)kel_get_hostname(host, sizeof(host));
	std::vector<Sample> out;
	std::set<std::string> lowers;
	for (const wexo::fabric::Vnic &v : wexo::fabric::vnics()) {
		lowers.insert(v.lower);
		if (v.lease && v.lease->endpoint)
			continue;  // the address responder's own link: no guest's
		wexo_handle_t h = nullptr;
		datalink_id_t id = 0;
		wexo_stats_t stats{};
		wexo_link_state_t state;
		const bool read = harl::find_link(v.name, &h, &id) == WEXO_STATUS_OK &&
		    wexo_link_stats(h, id, &stats) == WEXO_STATUS_OK &&
		    wexo_link_state(h, id, &state) == WEXO_STATUS_OK;
		wexo_close(h);
		if (!read)
			continue;  // gone, or still being made
		const Labels labels = {{"host", host}, {"kel", v.names.kel}, {"port", v.names.port},
		    {"tenant", v.names.tenant}, {"vnic", v.name}};
		for (const auto &[name, value] : {std::pair{"kel_vnic_receive_packets_total", stats.ws_ipackets},
		         {"kel_vnic_receive_bytes_total", stats.ws_rbytes},
		         {"kel_vnic_receive_drops_total", stats.ws_idrops},
		         {"kel_vnic_transmit_packets_total", stats.ws_opackets},
		         {"kel_vnic_transmit_bytes_total", stats.ws_obytes},
		         {"kel_vnic_transmit_drops_total", stats.ws_odrops}})
			out.push_back({name, labels, static_cast<double>(value)});
		for (size_t i = 0; i < state.wls_ndrops; i++) {
			Labels rule = labels;
			rule.emplace_back("rule", state.wls_drops[i].wfd_rule);
			out.push_back(
			    {"kel_vnic_filter_drops_total", rule, static_cast<double>(state.wls_drops[i].wfd_packets)});
			out.push_back({"kel_vnic_filter_dropped_bytes_total", rule,
			    static_cast<double>(state.wls_drops[i].wfd_bytes)});
		}
		// A link without a cap has no line: no cap is no number.
		if (state.wls_maxbw != 0)
			out.push_back(
			    {"kel_vnic_maxbw_bytes_per_second", labels, static_cast<double>(state.wls_maxbw) / 8});
	}
	for (const std::string &lower : lowers) {
		wexo_handle_t h = nullptr;
		datalink_id_t id = 0;
		wexo_link_state_t state;
		const bool read = harl::find_link(lower, &h, &id) == WEXO_STATUS_OK &&
		    wexo_link_state(h, id, &state) == WEXO_STATUS_OK;
		wexo_close(h);
		for (size_t i = 0; read && i < state.wls_ndrops; i++)
			if (std::strcmp(state.wls_drops[i].wfd_rule, "foreign-mac") == 0)
				out.push_back({"kel_lower_foreign_mac_drops_total", {{"host", host}, {"link", lower}},
				    static_cast<double>(state.wls_drops[i].wfd_packets)});
	}
	return out;
}

}  // namespace keld::metrics
