// keladm's subcommands and the conventions they share.
#pragma once

#include <cstdio>
#include <set>
#include <span>
#include <string>
#include <vector>

#include <kel/libkel.h>
#include "output.h"
#include "owners.h"

namespace keladm {

// Exit statuses.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;

struct Options;

struct Subcommand {
	const char *name;
	const char *usage;    // operands and options after the name
	const char *summary;  // one line for the overview
	unsigned options;     // the OptionSet it takes; the dispatcher parses them
	int (*run)(const Subcommand &cmd, const Options &opts);
	// What `keladm help NAME` adds: the fields -o chooses from (what the command prints,
	// in order), the properties it takes ("name=VALUES" then what they mean, one a line)
	// and an example.
	std::span<const Field> fields = {};
	const char *props = nullptr;
	const char *example = nullptr;
};

// What each listing prints, in order: the fields -o chooses from. Create and add commands
// print the new object with its listing's fields.
inline constexpr Field kKelFields[] = {{"name"}, {"tenant"}, {"l2type"}, {"id", Kind::Number}, {"status"}, {"uuid"},
    {"vports", Kind::List}};
inline constexpr Field kIpnetFields[] = {{"name"}, {"kel"}, {"tenant"}, {"subnet"}, {"defrouter"}, {"pool"},
    {"available"}};
// A port's counters are its VNICs' in all, asked of its host: only when -o names them.
inline constexpr Field kVportFields[] = {{"name"}, {"kel"}, {"tenant"}, {"status"}, {"host"}, {"vnic"}, {"ipaddr"},
    {"macaddr"}, {"uuid"}, {"ipackets", Kind::Number, true}, {"rbytes", Kind::Number, true},
    {"opackets", Kind::Number, true}, {"obytes", Kind::Number, true}};
inline constexpr Field kClientpropFields[] = {{"property"}, {"permission"}, {"value"}, {"default"}};
inline constexpr Field kControlpropFields[] = {{"property"}, {"host"}, {"permission"}, {"value"}, {"default"},
    {"vlan-range"}, {"vxlan-range"}, {"flat", Kind::Flag}};
// The property listings name their objects' tenant only with -T all (or when asked).
inline constexpr Field kKelpropFields[] = {{"kel"}, {"tenant", Kind::Text, true}, {"property"}, {"permission"},
    {"value"}, {"default"}, {"possible", Kind::List}};
inline constexpr Field kVportpropFields[] = {{"vport"}, {"tenant", Kind::Text, true}, {"property"}, {"permission"},
    {"value"}, {"default"}, {"possible", Kind::List}};
inline constexpr Field kIpnetpropFields[] = {{"ipnet"}, {"tenant", Kind::Text, true}, {"property"}, {"permission"},
    {"value"}, {"default"}, {"possible", Kind::List}};
inline constexpr Field kHostFields[] = {{"host"}, {"answers", Kind::Flag}, {"version"}, {"uptime", Kind::Number},
    {"reloads", Kind::Number}, {"controller"}, {"reaches", Kind::Flag}, {"problem"}};
inline constexpr Field kUsageFields[] = {{"resource"}, {"owner"}, {"range"}, {"total", Kind::Number},
    {"used", Kind::Number}, {"free", Kind::Number}, {"percent", Kind::Decimal}, {"high", Kind::Flag}};
inline constexpr Field kDriftFields[] = {{"object"}, {"host"}, {"what"}, {"store"}, {"found"},
    {"repaired", Kind::Flag}};
inline constexpr Field kVnicFields[] = {{"vnic"}, {"kel"}, {"vport"}, {"tenant"}, {"macaddr"}, {"ipaddr"}, {"lower"},
    {"mtu", Kind::Number}, {"ipackets", Kind::Number}, {"rbytes", Kind::Number}, {"opackets", Kind::Number},
    {"obytes", Kind::Number}, {"container"}};

// The text of a library code in keladm's words: the library's message, but for the few
// that name its internal facilities.
std::string message(int code);

// Reports a failed library call as "keladm: <what>: <message of code>" and returns
// kExitFailed. A code that refuses the store as a whole (a newer schema, a damaged file)
// is followed by a line that names the store.
int fail(const std::string &what, int code);
// After a failure to reach the controller (KEL_E_CTRL_CONNECT): a line naming the
// controller this host's setting names, and how to change it.
void say_which_controller(int code);

// The form a value refused with `reason` takes ("expected ..."), or NULL.
const char *expected_form(int reason);
// Of `known`, the word nearest to `word` (a third of its letters may be wrong), or "".
std::string nearest(const std::string &word, const std::vector<std::string> &known);
// The names of the properties a subcommand's help lists ("name=VALUES\twhat it means").
std::vector<std::string> prop_names(const char *props);
// "name=value,name=value" as its settings; a value may hold commas of its own.
std::vector<std::string> split_settings(const std::string &text);
// For each setting of `settings` whose name the subcommand does not take, a line naming
// it and the nearest one it does take.
void say_unknown_props(const Options &opts, const std::string &settings);

// Whether the controller's store is a database rather than the file.
bool store_in_database();
// The store keladm works on, for messages: its file, or "in the database keladm
// set-store named".
std::string store_name();
// Why a code refuses the store as a whole, in words that follow its path; NULL for a
// code that does not.
const char *store_refusal(int code);

// Reports a usage error for `cmd` and returns kExitUsage.
int usage_error(const Subcommand &cmd, const std::string &problem);

// The options every subcommand may take, as parsed by parse_options.
struct Options {
	std::string tenant = KEL_DEFAULT_TENANT;
	bool all_tenants = false;       // -T all (show commands): every tenant's objects
	const char *host = nullptr;     // -h host (controller properties)
	std::string props;              // -p name=value,... (subcommands that change things)
	std::string fields;             // -o field,...
	Format format = Format::Table;  // -p / --parseable, --json
	bool echo = false;              // create and add: print the new object's fields, not a sentence
	std::string names;              // -P name,...
	bool force = false;             // -f
	bool macvtap = false;           // --macvtap (create-vnic)
	bool address = false;           // --address (create-vnic)
	bool default_route = false;     // --default-route (create-vnic)
	bool may_exist = false;         // --may-exist: an object of that name is success
	bool if_exists = false;         // --if-exists: no such object is success
	bool repair = false;            // --repair (check-store)
	double threshold = 90;          // --threshold PERCENT (show-usage): what counts as nearly full
	std::span<char *> operands;
	const Subcommand *cmd = nullptr;  // the subcommand these were given to
};

// Which options a subcommand takes (always --help).
enum OptionSet : unsigned {
	kNone = 0,
	kTenant = 1,        // -T tenant (-T all with kShow)
	kChange = 2,        // -p name=value,...
	kShow = 4,          // -o fields, -p / --parseable, --json
	kEcho = 8,          // -o fields, --parseable, --json: print what was made
	kHost = 16,         // -h host (and no -h for help; --help still works)
	kForce = 32,        // -f: go on although the object is in use
	kNames = 64,        // -P name,...: which properties to show
	kVnic = 128,        // --macvtap, --address: how a VNIC is made
	kMayExist = 256,    // --may-exist
	kIfExists = 512,    // --if-exists
	kRepair = 1024,     // --repair
	kThreshold = 2048,  // --threshold PERCENT
};

// Parses `args` for subcommand `cmd`: options may stand before, between and after the
// operands, and "--" ends them. Returns false after a usage message; `help` is set when
// --help was asked for.
bool parse_options(const Subcommand &cmd, std::span<char *> args, Options *opts, bool *help);

// keladm help's text for one subcommand.
void print_help(FILE *out, const Subcommand &cmd);

// Opens the store into *store for writing (`write`) or for reading only; on failure
// reports it in an operator's words (unless not to `report`) and returns its code.
int open_store(kel::StoreHandle *store, bool write, bool report = true);

int create_store(const Subcommand &cmd, const Options &opts);
int set_store(const Subcommand &cmd, const Options &opts);
int copy_store(const Subcommand &cmd, const Options &opts);
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
int show_host(const Subcommand &cmd, const Options &opts);
int add_host(const Subcommand &cmd, const Options &opts);
int remove_host(const Subcommand &cmd, const Options &opts);
int show_usage(const Subcommand &cmd, const Options &opts);
int verify(const Subcommand &cmd, const Options &opts);

// The tenant a listing's filter names: "" (every tenant) for -T all.
inline std::string listed_tenant(const Options &opts)
{
	return opts.all_tenants ? "" : opts.tenant;
}

// fail(what, code), and when the code says the object named is not in the tenant given,
// a second line naming the tenants that do have it. `member_key` ("vport", "ipnet") and
// `member` name a member of switch `kel`; NULL and "" for the switch itself.
int fail_here(kel_dbhandle_t h, const Options &opts, const std::string &what, int code, const std::string &kel,
    const char *member_key = nullptr, const std::string &member = "");

// After a refusal with `code` of a change to switch `kel` (or its member `member_key`
// `member`): lines naming what is in the way (the object holding the name, address, MAC
// address or network asked for; the ports keeping a network; a missing network), or the
// form a refused value takes. The values asked for are read from opts.props.
void say_in_the_way(kel_dbhandle_t h, const Options &opts, int code, const std::string &kel, const char *member_key,
    const std::string &member);
// Whether the tenant -T named holds no kel at all (a typing slip, most likely): then
// says so. The default tenant and -T all are always known.
bool unknown_tenant(kel_dbhandle_t h, const Options &opts);

// Of `hosts`, those whose keld does not answer now (several are asked at once).
std::vector<std::string> hosts_not_answering(const std::set<std::string> &hosts);
// After a change some hosts missed: a line naming those of the hosts of `kel`'s bound
// ports (of its port `vport` alone, when given) that do not answer now, and what to `redo`
// once they are back.
void say_silent_hosts(kel_dbhandle_t h, const Options &opts, const std::string &kel, const std::string &vport,
    const char *redo);

// After a change refused with KEL_E_RANGE_INUSE, a line naming the values in use that the
// new range leaves out: the addresses of `kel`'s ports outside `pool`, or the kels' VLAN
// IDs or VNIs outside a fabric-wide "vlan-range=..." or "vxlan-range=..." `setting`.
void say_outside_pool(kel_dbhandle_t h, const Options &opts, const std::string &kel, const std::string &pool);
void say_outside_ids(kel_dbhandle_t h, const std::string &setting);

// A member of a switch (an ipnet, a vport), named on the command line as KEL/NAME.
struct Member {
	std::string kel, name;
};
using MemberParser = boolean_t (*)(const char *text, char *kel, char *name);

// The one operand a change subcommand takes, as KEL/<what>; false after a usage message.
bool one_member(const Subcommand &cmd, const Options &opts, MemberParser parse, const char *what, Member *out);
// The optional operand of a show subcommand: "KEL" or "KEL/<what>" ("" for what is not
// given); false after a usage message.
bool member_selection(const Subcommand &cmd, const Options &opts, MemberParser parse, const char *what,
    char (&kel)[KEL_NAME_LEN], char (&name)[KEL_NAME_LEN]);

// A string property of a record's set ("" when it has none).
inline std::string prop(attrset_t *props, const char *name)
{
	return kel::prop_text(props, name);
}

// Reports a warning (a change made, with something the operator should know).
void warn(const std::string &what, int code);

}  // namespace keladm
