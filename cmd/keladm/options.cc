#include <getopt.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "keladm.h"
#include "paths.h"

namespace keladm {
namespace {

// Long options without a short form: what getopt_long returns for each.
enum LongOption : int {
	kOptJson = 1000,
	kOptParseable,
	kOptHelp,
	kOptMacvtap,
	kOptAddress,
	kOptDefaultRoute,
	kOptMayExist,
	kOptIfExists,
	kOptRepair,
	kOptThreshold,
};

// Every option, the set that brings it and its line in `keladm help NAME`.
struct OptionDoc {
	unsigned set;
	const char *spelling;
	const char *text;
};

constexpr OptionDoc kOptionDocs[] = {
    {kTenant, "-T TENANT", "the tenant meant (default: " KEL_DEFAULT_TENANT "; show commands: all)"},
    {kChange, "-p PROP=VALUE,...", "properties, as listed below"},
    {kHost, "-h HOST", "for this host only (default: the whole fabric)"},
    {kForce, "-f", "remove-vport: even while bound; reset-vport: without asking the host"},
    {kNames, "-P PROP,...", "only these properties"},
    {kVnic, "--macvtap", "make a macvtap, for a virtual machine (default: a macvlan)"},
    {kVnic, "--address", "give the VNIC the port's address, and a default route if there is none"},
    {kVnic, "--default-route", "with --address: the network's router replaces the default route"},
    {kMayExist, "--may-exist", "an object of that name already there is success, not an error"},
    {kIfExists, "--if-exists", "no such object is success, not an error"},
    {kRepair, "--repair", "put back what an older version leaked"},
    {kThreshold, "--threshold PERCENT", "flag what is used this much or more (default: 90)"},
    {kShow | kEcho, "-o FIELD,...", "the fields to print, in this order (fields below)"},
    {kShow, "-p, --parseable", "one line per object, fields joined by ':' (escaped as \\: when more than one)"},
    {kEcho, "--parseable", "print the new object as show's -p does, not as a sentence"},
    {kShow | kEcho, "--json", "a JSON array: numbers, lists, true/false as such; null where absent"},
};

// Calls fn with each line of `text`, without its newline.
template <class Fn>
void each_line(const char *text, Fn &&fn)
{
	while (*text != '\0') {
		const size_t len = std::strcspn(text, "\n");
		fn(std::string_view(text, len));
		text += len + (text[len] != '\0');
	}
}

bool refuse(const Subcommand &cmd, const std::string &problem)
{
	usage_error(cmd, problem);
	return false;
}

}  // namespace

bool parse_options(const Subcommand &cmd, std::span<char *> args, Options *opts, bool *help)
{
	const unsigned set = cmd.options;
	const bool show = (set & kShow) != 0, output = (set & (kShow | kEcho)) != 0;
	std::vector<struct option> longs = {{"help", no_argument, nullptr, kOptHelp}};
	auto offer = [&](bool when, const char *name, int value) {
		if (when)
			longs.push_back({name, no_argument, nullptr, value});
	};
	offer(output, "json", kOptJson);
	offer(output, "parseable", kOptParseable);
	offer(set & kVnic, "macvtap", kOptMacvtap);
	offer(set & kVnic, "address", kOptAddress);
	offer(set & kVnic, "default-route", kOptDefaultRoute);
	offer(set & kMayExist, "may-exist", kOptMayExist);
	offer(set & kIfExists, "if-exists", kOptIfExists);
	offer(set & kRepair, "repair", kOptRepair);
	if (set & kThreshold)
		longs.push_back({"threshold", required_argument, nullptr, kOptThreshold});
	longs.push_back({nullptr, 0, nullptr, 0});

	// No leading '+': options may follow the operands, and a word that begins with '-' is
	// always an option (an unknown one is refused), never a name; "--" ends the options.
	std::string optstring = ":";
	optstring += (set & kHost) ? "h:" : "h";
	if (set & kTenant)
		optstring += "T:";
	if (show)
		optstring += "p";
	else if (set & kChange)
		optstring += "p:";
	if (output)
		optstring += "o:";
	if (set & kForce)
		optstring += "f";
	if (set & kNames)
		optstring += "P:";

	bool parseable = false, json = false;
	*help = false;
	opts->cmd = &cmd;
	optind = 0;  // start afresh: rescans from args[1]
	opterr = 0;
	int c;
	while ((c = getopt_long(static_cast<int>(args.size()), args.data(), optstring.c_str(), longs.data(),
	            nullptr)) != -1) {
		switch (c) {
		case 'T':
			// "all" is every tenant, for listings; keladm makes nothing in a tenant of
			// that name, so that the word never means two things.
			if (std::strcmp(optarg, "all") == 0) {
				if (!show)
					return refuse(cmd, "-T all is for show commands: name one tenant");
				opts->all_tenants = true;
				break;
			}
			// The tenant goes into filters, where a comma would add an alternative.
			if (!kel_valid_name(optarg))
				return refuse(cmd, std::string("'") + optarg + "' is not a tenant name");
			opts->tenant = optarg;
			break;
		case 'f': opts->force = true; break;
		case kOptMacvtap: opts->macvtap = true; break;
		case kOptAddress: opts->address = true; break;
		case kOptDefaultRoute: opts->default_route = true; break;
		case kOptMayExist: opts->may_exist = true; break;
		case kOptIfExists: opts->if_exists = true; break;
		case kOptRepair: opts->repair = true; break;
		case kOptThreshold: {
			char *end = nullptr;
			opts->threshold = std::strtod(optarg, &end);
			if (end == optarg || *end != '\0' || !(opts->threshold >= 0 && opts->threshold <= 100))
				return refuse(cmd,
				    std::string("--threshold takes a percentage from 0 to 100, not '") + optarg + "'");
			break;
		}
		case 'P': opts->names = optarg; break;
		case 'o': opts->fields = optarg; break;
		case 'p':
			if (!show) {
				opts->props = optarg;
				break;
			}
			[[fallthrough]];
		case kOptParseable: parseable = true; break;
		case kOptJson: json = true; break;
		case 'h':
			if (set & kHost) {
				opts->host = optarg;
				break;
			}
			[[fallthrough]];
		case kOptHelp: *help = true; return true;
		case ':':
			return refuse(cmd,
			    optopt ? std::string("option -") + static_cast<char>(optopt) + " needs a value"
			           : std::string("option ") + args[optind - 1] + " needs a value");
		default:
			return refuse(cmd,
			    optopt ? std::string("unknown option -") + static_cast<char>(optopt)
			           : std::string("unknown option ") + args[optind - 1]);
		}
	}
	// Two ways to print are one too many: say so rather than pick one.
	if (parseable && json)
		return refuse(cmd, "choose one of " + std::string(show ? "-p" : "--parseable") + " and --json");
	opts->format = json ? Format::Json : parseable ? Format::Parseable : Format::Table;
	opts->echo = (set & kEcho) && (json || parseable || !opts->fields.empty());
	opts->operands = args.subspan(static_cast<size_t>(optind));
	return true;
}

void print_help(FILE *out, const Subcommand &cmd)
{
	std::fprintf(out, "usage: keladm %s%s%s\n%s\n", cmd.name, *cmd.usage ? " " : "", cmd.usage, cmd.summary);
	std::fprintf(out, "\noptions:\n");
	for (const OptionDoc &doc : kOptionDocs)
		if (doc.set & cmd.options)
			std::fprintf(out, "  %-19s %s\n", doc.spelling, doc.text);
	std::fprintf(out, "  %-19s %s\n", "--help", "this text");
	if (cmd.props != nullptr) {
		std::fprintf(out, "\nproperties:\n");
		// "NAME=VALUES\tMEANING", in two columns.
		each_line(cmd.props, [&](std::string_view line) {
			const size_t tab = line.find('\t');
			const std::string_view name = line.substr(0, tab);
			const std::string_view text = tab == std::string_view::npos ? "" : line.substr(tab + 1);
			std::fprintf(out, "  %-27.*s %.*s\n", static_cast<int>(name.size()), name.data(),
			    static_cast<int>(text.size()), text.data());
		});
	}
	if (!cmd.fields.empty()) {
		std::fprintf(out, "\nfields (-o):");
		for (const Field &f : cmd.fields)
			std::fprintf(out, " %s", f.name);
		std::fprintf(out, "\n");
	}
	if (cmd.example != nullptr) {
		std::fprintf(out, "\nexample:\n");
		each_line(cmd.example, [&](std::string_view line) {
			std::fprintf(out, "  %.*s\n", static_cast<int>(line.size()), line.data());
		});
	}
}

int open_store(kel::StoreHandle *store, bool write, bool report)
{
	int rc = kel::db_open(store, write ? KEL_DB_READWRITE : KEL_DB_READONLY);
	if (rc == KEL_SUCCESS || !report)
		return rc;
	// Say where, and the two causes an operator meets most in words of their own. A store
	// in a database is named by the command that put it there: its connection string may
	// hold a password.
	const std::string path = kel::paths::under_root(kel::paths::kDbFile);
	if (store_in_database())
		fail("cannot open the configuration store " + store_name(), rc);
	else if ((access(path.c_str(), F_OK) != 0 && errno == EACCES) ||
	    (kel_db_exists() && access(path.c_str(), write ? R_OK | W_OK : R_OK) != 0 && errno == EACCES))
		// A directory this user cannot enter hides the store: that is no missing store.
		std::fprintf(stderr,
		    "keladm: cannot open the configuration store %s: permission denied: "
		    "run keladm as root\n",
		    path.c_str());
	else if (!kel_db_exists())
		std::fprintf(stderr,
		    "keladm: no configuration store at %s: this host is not the controller, "
		    "or keladm create-store has not made it yet\n",
		    path.c_str());
	else if (const char *why = store_refusal(rc))
		std::fprintf(stderr, "keladm: cannot open the configuration store %s: it %s (%s)\n", path.c_str(), why,
		    message(rc).c_str());
	else
		fail("cannot open the configuration store " + path, rc);
	return rc;
}

}  // namespace keladm
