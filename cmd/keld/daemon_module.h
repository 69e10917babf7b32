// keld's own interface, "kel.Daemon": what the daemon is and how it is configured.
#pragma once

#include <atomic>
#include <mutex>
#include <string>

#include "server.h"

namespace keld {

// What SIGHUP re-reads.
struct Settings {
	std::string controller;	// this host's "controller" client setting, "" when unset
};

class DaemonState {
public:
	// Re-reads the settings; counts the reloads.
	void reload();
	Settings settings() const;
	unsigned long reloads() const { return reloads_; }

private:
	mutable std::mutex mutex_;
	Settings settings_;
	std::atomic<unsigned long> reloads_{0};
};

// The "kel.Daemon" interface: one object (keys {"host": this host}); method "info"
// answers the version, pid, reload count and settings.
nuq::Interface daemon_interface(const DaemonState &state);

}  // namespace keld
