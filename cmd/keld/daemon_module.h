// keld's own interface, "kel.Daemon": what the daemon is and how it is configured.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>

#include "server.h"

namespace keld {

// What SIGHUP re-reads.
struct Settings {
	std::string controller;  // this host's "controller" client setting, "" when unset
};

class DaemonState {
public:
	// Re-reads the settings; counts the reloads.
	void reload();
	Settings settings() const;
	unsigned long reloads() const { return reloads_; }
	// Whole seconds since the daemon started.
	uint64_t uptime() const
	{
		return static_cast<uint64_t>(
		    std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - started_)
		        .count());
	}

private:
	const std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
	mutable std::mutex mutex_;
	Settings settings_;
	std::atomic<unsigned long> reloads_{0};
};

// The "kel.Daemon" interface: one object (keys {"host": this host}); method "info"
// answers the host's name, the version, pid, uptime, reload count and settings, and with
// {"check": true} also "controller_rc": what trying this host's controller just gave.
nuq::Interface daemon_interface(const DaemonState &state);

}  // namespace keld
