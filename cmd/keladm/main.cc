// keladm: administer the kel fabric. `keladm SUBCOMMAND [options] [operands]`.
#include <cstdio>
#include <cstring>
#include <string>

#include "keladm.h"
#include "libkel.h"

namespace keladm {
namespace {

int help(const Subcommand &cmd, const Options &opts);

const Subcommand kSubcommands[] = {
	{"help", "[SUBCOMMAND]", "describe keladm or one of its subcommands", kRaw, help},
	{"create-store", "", "create the configuration store if it does not exist", kRaw, create_store},
	{"create-kel", "[-T tenant] [-p prop=value,...] [NAME]", "create a kel (virtual switch)",
	    kChange, create_kel},
	{"delete-kel", "[-T tenant] NAME", "delete a kel with its vports and ipnet", kChange, delete_kel},
	{"show-kel", "[-T tenant] [-o field,...] [-p | --json] [NAME...]",
	    "show kels: name, tenant, l2type, id, status, uuid, vports", kShow, show_kel},
	{"sync-flood", "[-T tenant] KEL",
	    "give the hosts of a VXLAN kel without a multicast group each other's endpoints again",
	    kChange, sync_flood},
	{"add-ipnet", "[-T tenant] -p subnet=ADDR/PREFIX[,defrouter=ADDR][,pool=RANGE] KEL/IPNET",
	    "add the IP network of a kel", kChange, add_ipnet},
	{"remove-ipnet", "[-T tenant] KEL/IPNET", "remove the IP network of a kel", kChange, remove_ipnet},
	{"show-ipnet", "[-T tenant] [-o field,...] [-p | --json] [KEL[/IPNET]]",
	    "show ipnets: name, kel, tenant, subnet, defrouter, pool, available", kShow, show_ipnet},
	{"add-vport", "[-T tenant] [-p ipaddr=ADDR,macaddr=MAC,...] KEL/VPORT",
	    "add a port to a kel, with an address from its pool and a MAC address", kChange, add_vport},
	{"remove-vport", "[-T tenant] [-f] KEL/VPORT",
	    "remove a port and give its address back (-f: even while bound)", kForce, remove_vport},
	{"reset-vport", "[-T tenant] [-f] KEL/VPORT",
	    "free a bound port whose VNIC is gone from its host (-f: without asking the host)",
	    kForce, reset_vport},
	{"show-vport", "[-T tenant] [-o field,...] [-p | --json] [KEL[/VPORT]]",
	    "show vports: name, kel, tenant, status, host, vnic, ipaddr, macaddr, uuid", kShow, show_vport},
	{"set-clientprop", "controller=URI", "set where this host finds the controller",
	    kChange, set_clientprop},
	{"show-clientprop", "[-o field,...] [-p | --json] [name,...]",
	    "show this host's client properties: property, permission, value, default",
	    kShow, show_clientprop},
	{"set-controlprop", "[-h host] name=value[,attribute=value...]",
	    "set a controller property, fabric-wide or for one host", kChange | kHost, set_controlprop},
	{"show-controlprop", "[-h host] [-o field,...] [-p | --json] [name,...]",
	    "show controller properties: property, host, value, default, permission, ranges",
	    kShow | kHost, show_controlprop},
	{"set-kelprop", "[-T tenant] -p name=value KEL",
	    "change one property of a kel, live on the hosts of its bound vports", kChange, set_kelprop},
	{"set-vportprop", "[-T tenant] -p name=value KEL/VPORT",
	    "change one property of a vport, live on its host when it is bound", kChange, set_vportprop},
	{"set-ipnetprop", "[-T tenant] -p name=value KEL/IPNET",
	    "change one property of an ipnet (pool: keeping every address in use)", kChange, set_ipnetprop},
	{"show-kelprop", "[-T tenant] [-P name,...] [-o field,...] [-p | --json] [KEL]",
	    "show kel properties: kel, property, permission, value, default, possible", kShow | kNames, show_kelprop},
	{"show-vportprop", "[-T tenant] [-P name,...] [-o field,...] [-p | --json] [KEL[/VPORT]]",
	    "show vport properties: vport, property, permission, value, default, possible",
	    kShow | kNames, show_vportprop},
	{"show-ipnetprop", "[-T tenant] [-P name,...] [-o field,...] [-p | --json] [KEL[/IPNET]]",
	    "show ipnet properties: ipnet, property, permission, value, default, possible",
	    kShow | kNames, show_ipnetprop},
	{"create-vnic", "[-T tenant] [-p vmid=ID,...] [--macvtap] [--address] KEL[/VPORT] [NAMESPACE/]VNIC",
	    "on a host: bind a port to a new VNIC over the kel's link here (in NAMESPACE when given)",
	    kChange | kVnic, create_vnic},
	{"delete-vnic", "[NAMESPACE/]VNIC", "on a host: remove a VNIC and release its port", kChange, delete_vnic},
	{"show-vnic", "[-o field,...] [-p | --json] [[NAMESPACE/]VNIC]",
	    "on a host: show its bound VNICs: vnic, kel, vport, tenant, macaddr, ipaddr, lower, counters",
	    kShow, show_vnic},
	{"upgrade-store", "", "bring an older configuration store to the current schema",
	    kRaw, upgrade_store},
	{"check-store", "[--repair]",
	    "check the store's invariants (--repair: put back what leaked)", kRaw, check_store},
};

const Subcommand *find(const char *name)
{
	for (const Subcommand &cmd : kSubcommands)
		if (std::strcmp(cmd.name, name) == 0)
			return &cmd;
	return nullptr;
}

void print_usage(FILE *out, const Subcommand &cmd)
{
	std::fprintf(out, "usage: keladm %s%s%s\n", cmd.name, *cmd.usage ? " " : "", cmd.usage);
}

void print_overview(FILE *out)
{
	std::fprintf(out, "usage: keladm SUBCOMMAND [options] [operands]\n\nsubcommands:\n");
	for (const Subcommand &cmd : kSubcommands)
		std::fprintf(out, "  %-17s %s\n", cmd.name, cmd.summary);
	std::fprintf(out, "\nSee keladm help SUBCOMMAND, or keladm(8).\n");
}

int help(const Subcommand &, const Options &opts)
{
	if (opts.operands.empty()) {
		print_overview(stdout);
		return kExitOk;
	}
	const Subcommand *cmd = find(opts.operands[0]);
	if (cmd == nullptr) {
		std::fprintf(stderr, "keladm: unknown subcommand '%s'\n", opts.operands[0]);
		return kExitUsage;
	}
	print_usage(stdout, *cmd);
	std::printf("%s\n", cmd->summary);
	return kExitOk;
}

}  // namespace

int fail(const std::string &what, int code)
{
	char buf[1024];
	std::fprintf(stderr, "keladm: %s: %s\n", what.c_str(), kel_errmsg(code, buf, sizeof(buf)));
	return kExitFailed;
}

void warn(const std::string &what, int code)
{
	char buf[1024];
	std::fprintf(stderr, "keladm: warning: %s: %s\n", what.c_str(), kel_errmsg(code, buf, sizeof(buf)));
}

int usage_error(const Subcommand &cmd, const std::string &problem)
{
	std::fprintf(stderr, "keladm: %s\n", problem.c_str());
	print_usage(stderr, cmd);
	return kExitUsage;
}

}  // namespace keladm

int main(int argc, char **argv)
{
	using namespace keladm;
	if (argc < 2) {
		print_overview(stderr);
		return kExitUsage;
	}
	if (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)
		return help(*find("help"), Options{});
	const Subcommand *cmd = find(argv[1]);
	if (cmd == nullptr) {
		std::fprintf(stderr, "keladm: unknown subcommand '%s'\n", argv[1]);
		print_overview(stderr);
		return kExitUsage;
	}
	// Every subcommand's options are parsed here, by the set its row names.
	const std::span<char *> args(argv + 1, static_cast<size_t>(argc - 1));
	Options opts;
	if (cmd->options == kRaw)
		opts.operands = args.subspan(1);
	else if (!parse_options(*cmd, args, cmd->options, &opts))
		return kExitUsage;
	return cmd->run(*cmd, opts);
}
