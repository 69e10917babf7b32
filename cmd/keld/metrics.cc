#include "metrics.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace keld::metrics {
namespace {

// Latency bounds in seconds: a local call takes a millisecond, a call over ssh or one
// that waits for the store's lock takes up to seconds.
constexpr std::array<double, 12> kBounds = {0.001, 0.0025, 0.005, 0.01, 0.025, 0.05, 0.1, 0.25, 0.5, 1, 2.5, 10};

std::string number(double v)
{
	if (std::isinf(v))
		return v > 0 ? "+Inf" : "-Inf";
	char buf[32];
	// Whole numbers (counters, sizes) as they are, up to what a double holds exactly;
	// others in the fewest digits that read back as the same value.
	if (v == std::floor(v) && std::fabs(v) < 9007199254740992.0) {
		std::snprintf(buf, sizeof(buf), "%.0f", v);
		return buf;
	}
	for (int digits = 1; digits <= 17; digits++) {
		std::snprintf(buf, sizeof(buf), "%.*g", digits, v);
		if (std::strtod(buf, nullptr) == v)
			break;
	}
	return buf;
}

// A label value as the format quotes it: backslash, double quote and line feed escaped.
std::string quoted(const std::string &value)
{
	std::string out = "\"";
	for (char c : value) {
		if (c == '\\' || c == '"')
			out += '\\', out += c;
		else if (c == '\n')
			out += "\\n";
		else
			out += c;
	}
	return out + "\"";
}

// Labels in the order of their names, as the exporter serves them.
std::string line(const Sample &s)
{
	std::string out = s.name;
	if (!s.labels.empty()) {
		Labels sorted = s.labels;
		std::sort(sorted.begin(), sorted.end());
		out += '{';
		for (size_t i = 0; i < sorted.size(); i++)
			out += (i == 0 ? "" : ",") + sorted[i].first + "=" + quoted(sorted[i].second);
		out += '}';
	}
	return out + " " + number(s.value) + "\n";
}

}  // namespace

const std::vector<Family> &families()
{
	static const std::vector<Family> all = {
	    // Each VNIC the fabric bound on this host, labelled with its port, kel and tenant.
	    {"kel_vnic_receive_packets_total", "counter", "Packets the VNIC received."},
	    {"kel_vnic_receive_bytes_total", "counter", "Bytes the VNIC received."},
	    {"kel_vnic_receive_drops_total", "counter", "Packets the kernel dropped on receipt at the VNIC."},
	    {"kel_vnic_transmit_packets_total", "counter", "Packets the VNIC sent."},
	    {"kel_vnic_transmit_bytes_total", "counter", "Bytes the VNIC sent."},
	    {"kel_vnic_transmit_drops_total", "counter", "Packets the kernel dropped on sending from the VNIC."},
	    {"kel_vnic_filter_drops_total", "counter",
	        "Packets from the guest the port's filters dropped, by the protection that dropped them."},
	    {"kel_vnic_filter_dropped_bytes_total", "counter",
	        "Bytes of the packets the port's filters dropped, by protection."},
	    {"kel_vnic_maxbw_bytes_per_second", "gauge", "The bandwidth cap in force on the VNIC."},
	    {"kel_lower_foreign_mac_drops_total", "counter",
	        "Packets from a MAC address no VNIC over the link has (a guest's forged source) its guard dropped."},
	    // The host's address responder.
	    {"kel_dhcp_replies_total", "counter", "DHCP requests of guests the address responder answered."},
	    {"kel_dhcp_refused_total", "counter",
	        "DHCP requests the address responder did not answer or refused, by reason."},
	    // keld's own work.
	    {"kel_keld_requests_total", "counter", "Requests keld answered, by interface and method."},
	    {"kel_keld_request_errors_total", "counter", "Requests keld answered with an error."},
	    {"kel_keld_request_duration_seconds", "histogram", "How long keld took to answer a request."},
	    // The controller: what its store holds, and the bindings it made.
	    {"kel_tenant_kels", "gauge", "Kels of each tenant."},
	    {"kel_tenant_ports", "gauge", "Ports of each tenant's kels."},
	    {"kel_tenant_bound_ports", "gauge", "Ports of each tenant's kels bound to a VNIC."},
	    {"kel_tenant_pools", "gauge", "IP networks with an address pool of each tenant's kels."},
	    {"kel_range_values", "gauge", "Values an ID range, a host's share of it or an address pool holds."},
	    {"kel_range_used_values", "gauge", "Values of an ID range, share or address pool in use."},
	    {"kel_controller_binds_total", "counter", "Bindings of ports to VNICs hosts asked for, by outcome."},
	    {"kel_controller_bind_duration_seconds", "histogram", "How long a binding took the controller."},
	    {"kel_controller_releases_total", "counter", "Releases of ports hosts asked for, by outcome."},
	    {"kel_controller_release_duration_seconds", "histogram", "How long a release took the controller."},
	    {"kel_controller_migrations_total", "counter",
	        "Bindings that started the move of a port to another host, by outcome."},
	    {"kel_controller_migration_duration_seconds", "histogram",
	        "How long the binding that starts a migration took the controller."},
	    {"kel_fan_out_host_answered", "gauge",
	        "Whether each host of the last call to many hosts at once answered (1) or not (0)."},
	    {"kel_fan_out_timestamp_seconds", "gauge", "When the last call to many hosts at once ended."},
	};
	return all;
}

void Registry::count(const std::string &family, const Labels &labels, double by)
{
	const std::lock_guard<std::mutex> lock(mutex_);
	counters_[{family, labels}] += by;
}

void Registry::observe(const std::string &family, const Labels &labels, double seconds)
{
	const std::lock_guard<std::mutex> lock(mutex_);
	Histogram &h = histograms_[{family, labels}];
	h.buckets.resize(kBounds.size());
	const auto bound = std::lower_bound(kBounds.begin(), kBounds.end(), seconds);
	if (bound != kBounds.end())
		h.buckets[static_cast<size_t>(bound - kBounds.begin())]++;
	h.count++;
	h.sum += seconds;
}

std::vector<Sample> Registry::samples() const
{
	const std::lock_guard<std::mutex> lock(mutex_);
	std::vector<Sample> out;
	for (const auto &[key, value] : counters_)
		out.push_back({key.first, key.second, value});
	for (const auto &[key, h] : histograms_) {
		uint64_t below = 0;
		for (size_t i = 0; i < kBounds.size(); i++) {
			below += h.buckets[i];
			Labels l = key.second;
			l.emplace_back("le", number(kBounds[i]));
			out.push_back({key.first + "_bucket", std::move(l), static_cast<double>(below)});
		}
		Labels inf = key.second;
		inf.emplace_back("le", "+Inf");
		out.push_back({key.first + "_bucket", std::move(inf), static_cast<double>(h.count)});
		out.push_back({key.first + "_sum", key.second, h.sum});
		out.push_back({key.first + "_count", key.second, static_cast<double>(h.count)});
	}
	return out;
}

Registry &registry()
{
	static Registry r;
	return r;
}

std::string exposition(const std::vector<Sample> &samples)
{
	std::string out;
	for (const Family &f : families()) {
		out += std::string("# HELP ") + f.name + " " + f.help + "\n";
		out += std::string("# TYPE ") + f.name + " " + f.type + "\n";
		const std::string name = f.name;
		const bool histogram = std::string(f.type) == "histogram";
		for (const Sample &s : samples)
			if (s.name == name ||
			    (histogram &&
			        (s.name == name + "_bucket" || s.name == name + "_sum" || s.name == name + "_count")))
				out += line(s);
	}
	return out;
}

}  // namespace keld::metrics
