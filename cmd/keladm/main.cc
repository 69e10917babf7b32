// keladm: administer the kel fabric. `keladm SUBCOMMAND [options] [operands]`.
#include <cstdio>
#include <cstring>
#include <string>

#include "keladm.h"
#include "libkel.h"

namespace keladm {
namespace {

int help(std::span<char *> args);

const Subcommand kSubcommands[] = {
	{"help", "[SUBCOMMAND]", "describe keladm or one of its subcommands", help},
	{"create-store", "", "create the configuration store if it does not exist", create_store},
	{"create-kel", "[-T tenant] [-p prop=value,...] [NAME]", "create a kel (virtual switch)",
	    create_kel},
	{"delete-kel", "[-T tenant] NAME", "delete a kel with its vports and ipnet", delete_kel},
	{"show-kel", "[-T tenant] [-o field,...] [-p | --json] [NAME...]",
	    "show kels: name, tenant, l2type, id, status, uuid, vports", show_kel},
	{"sync-flood", "[-T tenant] KEL",
	    "give the hosts of a VXLAN kel without a multicast group each other's endpoints again",
	    sync_flood},
	{"add-ipnet", "[-T tenant] -p subnet=ADDR/PREFIX[,defrouter=ADDR][,pool=RANGE] KEL/IPNET",
	    "add the IP network of a kel", add_ipnet},
	{"remove-ipnet", "[-T tenant] KEL/IPNET", "remove the IP network of a kel", remove_ipnet},
	{"show-ipnet", "[-T tenant] [-o field,...] [-p | --json] [KEL[/IPNET]]",
	    "show ipnets: name, kel, tenant, subnet, defrouter, pool, available", show_ipnet},
	{"add-vport", "[-T tenant] [-p ipaddr=ADDR,macaddr=MAC,...] KEL/VPORT",
	    "add a port to a kel, with an address from its pool and a MAC address", add_vport},
	{"remove-vport", "[-T tenant] [-f] KEL/VPORT",
	    "remove a port and give its address back (-f: even while bound)", remove_vport},
	{"reset-vport", "[-T tenant] [-f] KEL/VPORT",
	    "free a bound port whose VNIC is gone from its host (-f: without asking the host)",
	    reset_vport},
	{"show-vport", "[-T tenant] [-o field,...] [-p | --json] [KEL[/VPORT]]",
	    "show vports: name, kel, tenant, status, host, vnic, ipaddr, macaddr, uuid", show_vport},
	{"set-clientprop", "controller=URI", "set where this host finds the controller",
	    set_clientprop},
	{"show-clientprop", "[-o field,...] [-p | --json] [name,...]",
	    "show this host's client properties: property, permission, value, default",
	    show_clientprop},
	{"set-controlprop", "[-h host] name=value[,attribute=value...]",
	    "set a controller property, fabric-wide or for one host", set_controlprop},
	{"show-controlprop", "[-h host] [-o field,...] [-p | --json] [name,...]",
	    "show controller properties: property, host, value, default, permission, ranges",
	    show_controlprop},
	{"set-kelprop", "[-T tenant] -p name=value KEL",
	    "change one property of a kel, live on the hosts of its bound vports", set_kelprop},
	{"set-vportprop", "[-T tenant] -p name=value KEL/VPORT",
	    "change one property of a vport, live on its host when it is bound", set_vportprop},
	{"set-ipnetprop", "[-T tenant] -p name=value KEL/IPNET",
	    "change one property of an ipnet (pool: keeping every address in use)", set_ipnetprop},
	{"show-kelprop", "[-T tenant] [-P name,...] [-o field,...] [-p | --json] [KEL]",
	    "show kel properties: kel, property, permission, value, default, possible", show_kelprop},
	{"show-vportprop", "[-T tenant] [-P name,...] [-o field,...] [-p | --json] [KEL[/VPORT]]",
	    "show vport properties: vport, property, permission, value, default, possible",
	    show_vportprop},
	{"show-ipnetprop", "[-T tenant] [-P name,...] [-o field,...] [-p | --json] [KEL[/IPNET]]",
	    "show ipnet properties: ipnet, property, permission, value, default, possible",
	    show_ipnetprop},
	{"create-vnic", "[-T tenant] [-p vmid=ID,...] [--macvtap] [--address] KEL[/VPORT] [NAMESPACE/]VNIC",
	    "on a host: bind a port to a new VNIC over the kel's link here (in NAMESPACE when given)",
	    create_vnic},
	{"delete-vnic", "[NAMESPACE/]VNIC", "on a host: remove a VNIC and release its port", delete_vnic},
	{"show-vnic", "[-o field,...] [-p | --json] [[NAMESPACE/]VNIC]",
	    "on a host: show its bound VNICs: vnic, kel, vport, tenant, macaddr, ipaddr, lower, counters",
	    show_vnic},
	{"upgrade-store", "", "bring an older configuration store to the current schema",
	    upgrade_store},
	{"check-store", "[--repair]",
	    "check the store's invariants (--repair: put back what leaked)", check_store},
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

int help(std::span<char *> args)
{
	if (args.size() < 2) {
		print_overview(stdout);
		return kExitOk;
	}
	const Subcommand *cmd = find(args[1]);
	if (cmd == nullptr) {
		std::fprintf(stderr, "keladm: unknown subcommand '%s'\n", args[1]);
		return kExitUsage;
	}
	print_usage(stdout, *cmd);
	std::printf("%s\n", cmd->summary);
	return kExitOk;
}

}  // namespace

const Subcommand &subcommand(const char *name)
{
	return *find(name);
}

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
		return help(std::span<char *>(argv + 1, 1));
	const Subcommand *cmd = find(argv[1]);
	if (cmd == nullptr) {
		std::fprintf(stderr, "keladm: unknown subcommand '%s'\n", argv[1]);
		print_overview(stderr);
		return kExitUsage;
	}
	return cmd->run(std::span<char *>(argv + 1, argc - 1));
}
