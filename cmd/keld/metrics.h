// keld's metrics: what it counts as it goes (requests, the address responder's answers,
// the controller's bindings), and the text a monitoring system reads, in the exposition
// format of the node exporter's textfile collector.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace keld::metrics {

using Labels = std::vector<std::pair<std::string, std::string>>;

// A family of metrics: its name, "counter", "gauge" or "histogram", and what it measures.
struct Family {
	const char *name;
	const char *type;
	const char *help;
};
// Every family keld writes, in the order written. The docs list each.
const std::vector<Family> &families();

// One line of a family: `name` is the family's, or a histogram's "_bucket", "_sum" or
// "_count" line of it.
struct Sample {
	std::string name;
	Labels labels;
	double value = 0;
};

// What keld counts between one write and the next. Safe from any thread.
class Registry {
public:
	// Adds `by` to counter `family` with `labels`.
	void count(const std::string &family, const Labels &labels, double by = 1);
	// Counts `seconds` into histogram `family` with `labels`.
	void observe(const std::string &family, const Labels &labels, double seconds);
	std::vector<Sample> samples() const;

private:
	struct Histogram {
		std::vector<uint64_t> buckets;  // one for each bound of kBounds, not cumulative
		uint64_t count = 0;
		double sum = 0;
	};
	mutable std::mutex mutex_;
	std::map<std::pair<std::string, Labels>, double> counters_;
	std::map<std::pair<std::string, Labels>, Histogram> histograms_;
};

// The one registry of the process.
Registry &registry();

// The exposition text of `samples`: each family of families() with its HELP and TYPE
// lines (also when it has no sample), then its samples in the order given (a
// histogram's as samples() makes them), label values escaped. A sample of a family not
// listed is left out.
std::string exposition(const std::vector<Sample> &samples);

}  // namespace keld::metrics
