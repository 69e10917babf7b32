// keladm's subcommands and the conventions they share.
#pragma once

#include <span>
#include <string>

#include "libkel.h"
#include "output.h"

namespace keladm {

// Exit statuses.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;


struct Options;

struct Subcommand {
	const char *name;
	const char *usage;	// operands and options after the name
	const char *summary;	// one line for the overview
	unsigned options;	// the OptionSet it takes; the dispatcher parses them
	int (*run)(const Subcommand &cmd, const Options &opts);
};

// Reports a failed library call as "keladm: <what>: <message of code>" and returns
// kExitFailed.
int fail(const std::string &what, int code);

// Reports a usage error for `cmd` and returns kExitUsage.
int usage_error(const Subcommand &cmd, const std::string &problem);

// The options every subcommand may take, as parsed by parse_options.
struct Options {
	std::string tenant = KEL_DEFAULT_TENANT;
	const char *host = nullptr;	// -h host (controller properties)
	std::string props;	// -p name=value,... (subcommands that change things)
	std::string fields;	// -o field,...
	Format format = Format::Table;	// -p (show-*), --json
	std::string names;	// -P name,...
	bool force = false;	// -f
	bool macvtap = false;	// --macvtap (create-vnic)
	bool address = false;	// --address (create-vnic)
	std::span<char *> operands;
};

// Which options a subcommand takes besides -T tenant.
enum OptionSet : unsigned {
	kChange = 0,		// -p name=value,...
	kShow = 1,		// -o fields, -p parseable, --json
	kHost = 2,		// -h host (and no -h for help; --help still works)
	kForce = 4,		// -f: go on although the object is in use
	kNames = 8,		// -P name,...: which properties to show
	kVnic = 16,		// --macvtap, --address: how a VNIC is made
	kRaw = 1u << 31,	// none: every word after the name is an operand
};

// Parses `args` for subcommand `cmd`. Returns false after a usage message.
bool parse_options(const Subcommand &cmd, std::span<char *> args, unsigned set, Options *opts);

// An open store handle, closed on scope exit.
class Store {
public:
	~Store() { kel_db_close(handle_); }
	// Opens the store for writing (`write`) or for reading only; on failure reports it
	// and returns its code.
	int open(bool write);
	kel_dbhandle_t get() const { return handle_; }

private:
	kel_dbhandle_t handle_ = nullptr;
};

int create_store(const Subcommand &cmd, const Options &opts);
int create_kel(const Subcommand &cmd, const Options &opts);
int delete_kel(const Subcommand &cmd, const Options &opts);
int show_kel(const Subcommand &cmd, const Options &opts);
int sync_flood(const Subcommand &cmd, const Options &opts);
int add_ipnet(const Subcommand &cmd, const Options &opts);
int remove_ipnet(const Subcommand &cmd, const Options &opts);
int show_ipnet(const Subcommand &cmd, const Options &opts);
int add_vport(const Subcommand &cmd, const Options &opts);
int remove_vport(const Subcommand &cmd, const Options &opts);
int reset_vport(const Subcommand &cmd, const Options &opts);
int show_vport(const Subcommand &cmd, const Options &opts);
int set_clientprop(const Subcommand &cmd, const Options &opts);
int show_clientprop(const Subcommand &cmd, const Options &opts);
int set_controlprop(const Subcommand &cmd, const Options &opts);
int show_controlprop(const Subcommand &cmd, const Options &opts);
int upgrade_store(const Subcommand &cmd, const Options &opts);
int check_store(const Subcommand &cmd, const Options &opts);
int set_kelprop(const Subcommand &cmd, const Options &opts);
int set_vportprop(const Subcommand &cmd, const Options &opts);
int set_ipnetprop(const Subcommand &cmd, const Options &opts);
int show_kelprop(const Subcommand &cmd, const Options &opts);
int show_vportprop(const Subcommand &cmd, const Options &opts);
int show_ipnetprop(const Subcommand &cmd, const Options &opts);
int create_vnic(const Subcommand &cmd, const Options &opts);
int delete_vnic(const Subcommand &cmd, const Options &opts);
int show_vnic(const Subcommand &cmd, const Options &opts);

// A member of a switch (an ipnet, a vport), named on the command line as KEL/NAME.
struct Member {
	std::string kel, name;
};
using MemberParser = boolean_t (*)(const char *text, char *kel, char *name);

// The one operand a change subcommand takes, as KEL/<what>; false after a usage message.
bool one_member(const Subcommand &cmd, const Options &opts, MemberParser parse, const char *what,
    Member *out);
// The optional operand of a show subcommand: "KEL" or "KEL/<what>" ("" for what is not
// given); false after a usage message.
bool member_selection(const Subcommand &cmd, const Options &opts, MemberParser parse,
    const char *what, char (&kel)[KEL_NAME_LEN], char (&name)[KEL_NAME_LEN]);

// A string property of a record's set ("" when it has none).
inline std::string prop(attrset_t *props, const char *name)
{
	char *value = nullptr;
	return props != nullptr && attrset_lookup_string(props, name, &value) == 0 ? value : "";
}

// Reports a warning (a change made, with something the operator should know).
void warn(const std::string &what, int code);

}  // namespace keladm
