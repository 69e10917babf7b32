#include "metrics_writer.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>

#include "log.h"
#include "paths.h"
#include "text_file.h"

namespace keld::metrics {
namespace {

constexpr const char *kFileName = "kel.prom";

}  // namespace

std::string default_dir()
{
	return kel::paths::under_root("/var/lib/prometheus/node-exporter");
}

std::string collect()
{
	std::vector<Sample> all = registry().samples();
	for (std::vector<Sample> part : {vnic_samples(), controller_samples()})
		all.insert(all.end(), std::make_move_iterator(part.begin()), std::make_move_iterator(part.end()));
	return exposition(all);
}

void Writer::start(std::string dir, std::chrono::seconds interval, bool dir_optional)
{
	dir_ = std::move(dir);
	dir_optional_ = dir_optional;
	interval_ = interval;
	thread_ = std::thread([this] { run(); });
}

void Writer::stop()
{
	{
		const std::lock_guard<std::mutex> lock(mutex_);
		if (stopping_ || !thread_.joinable())
			return;
		stopping_ = true;
	}
	wake_.notify_all();
	thread_.join();
	(void)unlink((dir_ + "/" + kFileName).c_str());
}

bool Writer::write_once()
{
	struct stat st;
	if (stat(dir_.c_str(), &st) != 0)
		return false;
	if (!S_ISDIR(st.st_mode)) {
		errno = ENOTDIR;
		return false;
	}
	// Readable by the exporter, which runs as a user of its own.
	return kel::replace_text_file(dir_ + "/" + kFileName, collect(), 0644);
}

void Writer::run()
{
	std::optional<bool> wrote;
	std::unique_lock<std::mutex> lock(mutex_);
	while (!stopping_) {
		lock.unlock();
		const bool ok = write_once();
		const int err = errno;
		lock.lock();
		// Said when writing starts, stops or starts again working; a folder that is not
		// there (no exporter on the host) is no news when the folder was not asked for.
		const bool news = !wrote || *wrote != ok;
		wrote = ok;
		if (news && (ok || err != ENOENT || !dir_optional_))
			nuq::log::write(ok ? nuq::log::kInfo : nuq::log::kWarning,
			    ok ? "writing metrics to " + dir_ + "/" + kFileName
			       : "cannot write metrics into " + dir_ + ": " + std::strerror(err));
		wake_.wait_for(lock, interval_, [this] { return stopping_; });
	}
}

}  // namespace keld::metrics
