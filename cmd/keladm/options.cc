#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "keladm.h"

namespace keladm {

bool parse_options(const Subcommand &cmd, std::span<char *> args, unsigned set, Options *opts)
{
	const bool show = (set & kShow) != 0;
	static const struct option kLong[] = {
		{"json", no_argument, nullptr, 'j'},
		{"help", no_argument, nullptr, 'h'},
		{"macvtap", no_argument, nullptr, 'm'},
		{"address", no_argument, nullptr, 'a'},
		{nullptr, 0, nullptr, 0},
	};
	optind = 0;	// start afresh: rescans from args[1]
	opterr = 0;
	std::string optstring = show ? "+:T:o:p" : "+:T:p:";
	optstring += (set & kHost) ? "h:" : "h";
	if (set & kForce)
		optstring += "f";
	if (set & kNames)
		optstring += "P:";
	int c;
	while ((c = getopt_long(static_cast<int>(args.size()), args.data(), optstring.c_str(), kLong,
	            nullptr)) != -1) {
		switch (c) {
		case 'T':
			// The tenant goes into filters, where a comma would add an alternative.
			if (!kel_valid_name(optarg)) {
				usage_error(cmd, std::string("'") + optarg + "' is not a tenant name");
				return false;
			}
			opts->tenant = optarg;
			break;
		case 'f':
			opts->force = true;
			break;
		case 'm':
		case 'a':
			if (!(set & kVnic)) {
				usage_error(cmd, std::string("unknown option ") + args[optind - 1]);
				return false;
			}
			(c == 'm' ? opts->macvtap : opts->address) = true;
			break;
		case 'P':
			opts->names = optarg;
			break;
		case 'o':
			opts->fields = optarg;
			break;
		case 'p':
			if (show)
				opts->format = Format::Parseable;
			else
				opts->props = optarg;
			break;
		case 'j':
			if (!show) {
				usage_error(cmd, "--json is for show-* subcommands");
				return false;
			}
			opts->format = Format::Json;
			break;
		case 'h':
			if (set & kHost) {
				opts->host = optarg;
				break;
			}
			std::printf("usage: keladm %s %s\n%s\n", cmd.name, cmd.usage, cmd.summary);
			std::exit(kExitOk);
		case ':':
			usage_error(cmd, std::string("option -") + static_cast<char>(optopt) +
			        " needs a value");
			return false;
		default:
			usage_error(cmd, optopt ? std::string("unknown option -") + static_cast<char>(optopt)
			                        : std::string("unknown option ") + args[optind - 1]);
			return false;
		}
	}
	opts->operands = args.subspan(static_cast<size_t>(optind));
	return true;
}

int Store::open(bool write)
{
	int rc = kel_db_open(&handle_, write ? KEL_DB_READWRITE : KEL_DB_READONLY);
	if (rc != KEL_SUCCESS)
		fail("cannot open the configuration store", rc);
	return rc;
}

}  // namespace keladm
