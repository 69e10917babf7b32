// keladm's subcommands and the conventions they share.
#pragma once

#include <span>
#include <string>

namespace keladm {

// Exit statuses.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;

struct Subcommand {
	const char *name;
	const char *usage;	// operands and options after the name
	const char *summary;	// one line for the overview
	int (*run)(std::span<char *> args);	// args[0] is the subcommand's name
};

// The subcommand called `name`; it must exist.
const Subcommand &subcommand(const char *name);

// Reports a failed library call as "keladm: <what>: <message of code>" and returns
// kExitFailed.
int fail(const std::string &what, int code);

// Reports a usage error for `cmd` and returns kExitUsage.
int usage_error(const Subcommand &cmd, const std::string &problem);

int create_store(std::span<char *> args);

}  // namespace keladm
