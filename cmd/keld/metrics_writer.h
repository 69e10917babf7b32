// keld's metrics file: the counts keld keeps and what it reads of the host (and, on the
// controller, of the store), written every so often as "kel.prom" into the folder the
// node exporter's textfile collector reads, replaced whole so that a scrape never reads
// half of it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "metrics.h"

namespace keld::metrics {

// Where the metrics go unless told otherwise: the folder Debian's node exporter reads
// (below $KEL_ROOT when set). Written only while the folder is there, so that a host
// without the exporter gets no file nobody reads.
std::string default_dir();
inline constexpr std::chrono::seconds kDefaultInterval{15};

// The samples of each VNIC of this host, and of the controller's store (none where there
// is no store).
std::vector<Sample> vnic_samples();
std::vector<Sample> controller_samples();

// Everything keld knows now, as the file's text.
std::string collect();

class Writer {
public:
	Writer() = default;
	~Writer() { stop(); }
	Writer(const Writer &) = delete;
	Writer &operator=(const Writer &) = delete;

	// Writes into `dir` now and every `interval` after, until stop(). With `dir_optional`
	// a folder that is not there is passed over without a word.
	void start(std::string dir, std::chrono::seconds interval, bool dir_optional);
	// Stops writing and takes the file away: a keld that is not running has no metrics,
	// and counts left behind would read as if it had.
	void stop();

private:
	void run();
	bool write_once();

	std::string dir_;
	bool dir_optional_ = true;
	std::chrono::seconds interval_{kDefaultInterval};
	std::mutex mutex_;
	std::condition_variable wake_;
	bool stopping_ = false;
	std::thread thread_;
};

}  // namespace keld::metrics
