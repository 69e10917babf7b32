// keladm: administer the kel fabric. `keladm SUBCOMMAND [options] [operands]`.
#include <cstdio>
#include <cstring>
#include <string>

#include <sqlite3.h>

#include <kel/libkel.h>
#include "keladm.h"
#include "owners.h"
#include "paths.h"

namespace keladm {
namespace {

int help(const Subcommand &cmd, const Options &opts);

// The property lines of `keladm help`: "NAME=VALUES", a tab, what it means.
#define KELADM_LINK_PROPS                                                                         \
	"protection=WORD,...\tmac-nospoof, ip-nospoof, dhcp-nospoof, restricted, or none alone\n" \
	"\t(default: mac-nospoof,ip-nospoof)\n"                                                   \
	"maxbw=BANDWIDTH\ta bandwidth cap: 500 or 500M is 500 Mbit/s (no unit means Mbit/s);\n"   \
	"\tK, M and G are decimal bits per second (1.5G is 1,500,000,000)\n"                      \
	"priority=low|medium|high\t(default: medium)\n"
#define KELADM_EXTENDED_PROP "NAME:NAME=TEXT\tone of your own: any name holding ':'\n"

// One row a subcommand, laid out as a table.
// clang-format off
const Subcommand kSubcommands[] = {
	{.name = "help", .usage = "[SUBCOMMAND]", .summary = "describe keladm or one of its subcommands",
	    .options = kNone, .run = help, .example = "keladm help add-vport"},
	{.name = "create-store", .usage = "", .summary = "create the configuration store if it does not exist",
	    .options = kNone, .run = create_store, .example = "keladm create-store"},
	{.name = "set-store", .usage = "[CONNINFO]",
	    .summary = "keep the store in a PostgreSQL database (no CONNINFO: in the file again)",
	    .options = kNone, .run = set_store,
	    .example = "keladm set-store 'host=db1,db2 dbname=kel user=kel target_session_attrs=read-write'"},
	{.name = "copy-store", .usage = "SOURCE TARGET",
	    .summary = "copy the store into a new one, each a PostgreSQL connection string or \"file\"",
	    .options = kNone, .run = copy_store,
	    .example = "keladm copy-store file 'host=db1 dbname=kel user=kel'"},
	{.name = "create-kel", .usage = "[-T tenant] [-p prop=value,...] [--may-exist] [NAME]",
	    .summary = "create a kel (virtual switch)", .options = kTenant | kChange | kEcho | kMayExist,
	    .run = create_kel, .fields = kKelFields,
	    .props = "l2-type=vlan|vxlan|flat\thow it carries traffic (default: the controller's l2-type)\n"
	             "vlanid=1-4094\ta VLAN kel's ID (default: the lowest free one of vlan-range)\n"
	             "vni=0-16777215\ta VXLAN kel's VNI (default: the lowest free one of vxlan-range)\n"
	             KELADM_LINK_PROPS KELADM_EXTENDED_PROP,
	    .example = "keladm create-kel -T acme -p l2-type=vxlan,maxbw=1G db\n"
	               "keladm create-kel --may-exist --json -o name,id web"},
	{.name = "delete-kel", .usage = "[-T tenant] [--if-exists] NAME",
	    .summary = "delete a kel with its vports and ipnet", .options = kTenant | kIfExists, .run = delete_kel,
	    .example = "keladm delete-kel -T acme db"},
	{.name = "show-kel", .usage = "[-T tenant] [-o field,...] [-p | --json] [NAME...]",
	    .summary = "show kels: name, tenant, l2type, id, status, uuid, vports", .options = kTenant | kShow,
	    .run = show_kel, .fields = kKelFields, .example = "keladm show-kel -p -o name,id web db"},
	{.name = "sync-flood", .usage = "[-T tenant] KEL",
	    .summary = "give the hosts of a VXLAN kel without a multicast group each other's endpoints again",
	    .options = kTenant, .run = sync_flood, .example = "keladm sync-flood db"},
	{.name = "add-ipnet", .usage = "[-T tenant] -p subnet=ADDR/PREFIX[,defrouter=ADDR][,pool=RANGE] [--may-exist] KEL/IPNET",
	    .summary = "add the IP network of a kel", .options = kTenant | kChange | kEcho | kMayExist,
	    .run = add_ipnet, .fields = kIpnetFields,
	    .props = "subnet=ADDRESS/PREFIX\tthe network, IPv4 or IPv6 (required)\n"
	             "defrouter=ADDRESS\tits router (default: its first usable address; 0.0.0.0 or ::\n"
	             "\tfor none)\n"
	             "pool=RANGE\tthe addresses ports draw from, as 10.1.0.10-10.1.0.99,10.1.0.200\n"
	             "\t(default: every usable address but the router)\n",
	    .example = "keladm add-ipnet -p subnet=10.1.0.0/24,pool=10.1.0.100-10.1.0.199 web/front"},
	{.name = "remove-ipnet", .usage = "[-T tenant] [--if-exists] KEL/IPNET",
	    .summary = "remove the IP network of a kel", .options = kTenant | kIfExists, .run = remove_ipnet,
	    .example = "keladm remove-ipnet web/front"},
	{.name = "show-ipnet", .usage = "[-T tenant] [-o field,...] [-p | --json] [KEL[/IPNET]]",
	    .summary = "show ipnets: name, kel, tenant, subnet, defrouter, pool, available",
	    .options = kTenant | kShow, .run = show_ipnet, .fields = kIpnetFields,
	    .example = "keladm show-ipnet -o name,subnet,available web"},
	{.name = "add-vport", .usage = "[-T tenant] [-p ipaddr=ADDR,macaddr=MAC,...] [--may-exist] KEL/VPORT",
	    .summary = "add a port to a kel, with an address from its pool and a MAC address",
	    .options = kTenant | kChange | kEcho | kMayExist, .run = add_vport, .fields = kVportFields,
	    .props = "ipaddr=ADDRESS\tits address (default: the lowest free one of the pool)\n"
	             "macaddr=MAC\tits MAC address (default: a new one, never handed out twice)\n"
	             "cos=0-7\tits class of service, as an 802.1p priority (default: 0)\n"
	             KELADM_LINK_PROPS KELADM_EXTENDED_PROP,
	    .example = "keladm add-vport web/vm1\n"
	               "keladm add-vport --parseable -o ipaddr,macaddr -p maxbw=100M web/vm2"},
	{.name = "remove-vport", .usage = "[-T tenant] [-f] [--if-exists] KEL/VPORT",
	    .summary = "remove a port and give its address back (-f: even while bound)",
	    .options = kTenant | kForce | kIfExists, .run = remove_vport, .example = "keladm remove-vport web/vm1"},
	{.name = "reset-vport", .usage = "[-T tenant] [-f] KEL/VPORT",
	    .summary = "free a bound port whose VNIC is gone from its host (-f: without asking the host)",
	    .options = kTenant | kForce, .run = reset_vport, .example = "keladm reset-vport -f web/vm1"},
	{.name = "show-vport", .usage = "[-T tenant] [-o field,...] [-p | --json] [KEL[/VPORT]]",
	    .summary = "show vports: name, kel, tenant, status, host, vnic, ipaddr, macaddr, uuid",
	    .options = kTenant | kShow, .run = show_vport, .fields = kVportFields,
	    .example = "keladm show-vport -o name,status,host,ipaddr web"},
	{.name = "set-clientprop", .usage = "controller=URI", .summary = "set where this host finds the controller",
	    .options = kNone, .run = set_clientprop,
	    .props = "controller=URI[,URI...]\tunix:// (this host) or ssh://[USER@]HOST[:PORT]; several are tried in order\n",
	    .example = "keladm set-clientprop controller=ssh://kelop@ctl"},
	{.name = "show-clientprop", .usage = "[-o field,...] [-p | --json] [name,...]",
	    .summary = "show this host's client properties: property, permission, value, default",
	    .options = kShow, .run = show_clientprop, .fields = kClientpropFields,
	    .example = "keladm show-clientprop controller"},
	{.name = "set-controlprop", .usage = "[-h host] name=value[,attribute=value...]",
	    .summary = "set a controller property, fabric-wide or for one host", .options = kHost,
	    .run = set_controlprop,
	    .props = "l2-type=vlan|vxlan|flat\tthe L2 type of kels made without one (default: vlan)\n"
	             "vlan-range=RANGE\tthe VLAN IDs kels draw from, as 100-199,300 (-h: this host's share)\n"
	             "vxlan-range=RANGE\tthe VNIs VXLAN kels draw from (-h: this host's share)\n"
	             "vxlan-mgroup=ADDRESS\ta multicast group for VXLAN kels (default: 0.0.0.0, none)\n"
	             "vxlan-ipvers=v4|v6\tthe IP version of VXLAN endpoints (default: v4)\n"
	             "vxlan-addr=ADDRESS/PREFIX\twhere each host finds its VXLAN endpoint address\n"
	             "\t(-h HOST: that host's; ,vxlan-range=RANGE: with its VNIs)\n"
	             "uplink-port=LINK\tthe hosts' uplink (-h HOST: that host's);\n"
	             "\t,flat=yes: it carries flat kels; ,vlan-range=RANGE, ,vxlan-range=RANGE\n"
	             "uri-template=URI\thow the controller reaches a host's keld (default: ssh://)\n"
	             "uuid\tthe controller's identity: read only\n",
	    .example = "keladm set-controlprop vlan-range=100-199\n"
	               "keladm set-controlprop -h host-a uplink-port=eth1,vlan-range=100-149"},
	{.name = "show-controlprop", .usage = "[-h host] [-o field,...] [-p | --json] [name,...]",
	    .summary = "show controller properties: property, host, value, default, permission, ranges",
	    .options = kHost | kShow, .run = show_controlprop, .fields = kControlpropFields,
	    .example = "keladm show-controlprop -h host-a uplink-port"},
	{.name = "set-kelprop", .usage = "[-T tenant] -p name=value[,name=value...] KEL",
	    .summary = "change properties of a kel, live on the hosts of its bound vports",
	    .options = kTenant | kChange, .run = set_kelprop, .props = KELADM_LINK_PROPS KELADM_EXTENDED_PROP,
	    .example = "keladm set-kelprop -p maxbw=200M web"},
	{.name = "set-vportprop", .usage = "[-T tenant] -p name=value[,name=value...] KEL/VPORT",
	    .summary = "change properties of a vport, live on its host when it is bound",
	    .options = kTenant | kChange, .run = set_vportprop,
	    .props = "cos=0-7\tits class of service, as an 802.1p priority (default: 0)\n"
	             KELADM_LINK_PROPS KELADM_EXTENDED_PROP,
	    .example = "keladm set-vportprop -p maxbw=50M web/vm1"},
	{.name = "set-ipnetprop", .usage = "[-T tenant] -p name=value[,name=value...] KEL/IPNET",
	    .summary = "change a property of an ipnet (pool: keeping every address in use)",
	    .options = kTenant | kChange, .run = set_ipnetprop,
	    .props = "pool=RANGE\tthe addresses ports draw from; every address in use stays in it\n"
	             KELADM_EXTENDED_PROP,
	    .example = "keladm set-ipnetprop -p pool=10.1.0.2-10.1.0.200 web/front"},
	{.name = "show-kelprop", .usage = "[-T tenant] [-P name,...] [-o field,...] [-p | --json] [KEL]",
	    .summary = "show kel properties: kel, property, permission, value, default, possible",
	    .options = kTenant | kShow | kNames, .run = show_kelprop, .fields = kKelpropFields,
	    .example = "keladm show-kelprop -P maxbw,priority web"},
	{.name = "show-vportprop", .usage = "[-T tenant] [-P name,...] [-o field,...] [-p | --json] [KEL[/VPORT]]",
	    .summary = "show vport properties: vport, property, permission, value, default, possible",
	    .options = kTenant | kShow | kNames, .run = show_vportprop, .fields = kVportpropFields,
	    .example = "keladm show-vportprop -P maxbw web/vm1"},
	{.name = "show-ipnetprop", .usage = "[-T tenant] [-P name,...] [-o field,...] [-p | --json] [KEL[/IPNET]]",
	    .summary = "show ipnet properties: ipnet, property, permission, value, default, possible",
	    .options = kTenant | kShow | kNames, .run = show_ipnetprop, .fields = kIpnetpropFields,
	    .example = "keladm show-ipnetprop web/front"},
	{.name = "create-vnic",
	    .usage = "[-T tenant] [-p vmid=ID,...] [--macvtap] [--address [--default-route]] [--may-exist] KEL[/VPORT] [NAMESPACE/]VNIC",
	    .summary = "on a host: bind a port to a new VNIC over the kel's link here (in NAMESPACE: a name or a path)",
	    .options = kTenant | kChange | kVnic | kEcho | kMayExist, .run = create_vnic, .fields = kVnicFields,
	    .props = "vmid=ID\tthe virtual machine's ID: a second host's VNIC with the same vmid\n"
	             "\ttakes the port along when the VM migrates\n",
	    .example = "keladm create-vnic --address web guest1/eth0\n"
	               "keladm create-vnic --address web /proc/4242/ns/net/eth1\n"
	               "keladm create-vnic --macvtap -p vmid=42 web/vm2 vm2"},
	{.name = "delete-vnic", .usage = "[--if-exists] [NAMESPACE/]VNIC",
	    .summary = "on a host: remove a VNIC and release its port", .options = kIfExists, .run = delete_vnic, .example = "keladm delete-vnic guest1/eth0"},
	{.name = "show-vnic", .usage = "[-o field,...] [-p | --json] [[NAMESPACE/]VNIC]",
	    .summary = "on a host: show its bound VNICs: vnic, kel, vport, tenant, macaddr, ipaddr, lower, counters",
	    .options = kShow, .run = show_vnic, .fields = kVnicFields,
	    .example = "keladm show-vnic -o vnic,kel,vport,ipaddr,rbytes"},
	{.name = "add-host", .usage = "[--may-exist] HOST",
	    .summary = "make a host known to the controller before any port is bound there", .options = kMayExist,
	    .run = add_host, .example = "keladm add-host host-c"},
	{.name = "remove-host", .usage = "[--if-exists] HOST",
	    .summary = "forget a host added with add-host (ports bound there stay bound)", .options = kIfExists,
	    .run = remove_host, .example = "keladm remove-host host-c"},
	{.name = "show-host", .usage = "[-o field,...] [-p | --json] [HOST]",
	    .summary = "ask keld how it is: here, and on the controller every host the fabric knows (or HOST)",
	    .options = kShow, .run = show_host, .fields = kHostFields,
	    .example = "keladm show-host\nkeladm show-host -o host,answers,reaches,problem host-a"},
	{.name = "show-usage", .usage = "[-T tenant] [--threshold PERCENT] [-o field,...] [-p | --json]",
	    .summary = "show how full the ID ranges, the hosts' shares and the address pools are",
	    .options = kTenant | kShow | kThreshold, .run = show_usage, .fields = kUsageFields,
	    .example = "keladm show-usage --threshold 80\nkeladm show-usage --json -o resource,owner,percent,high"},
	{.name = "verify", .usage = "[-T tenant] [-h host] [--repair] [-o field,...] [-p | --json] [KEL[/VPORT]]",
	    .summary = "compare what the hosts have in force with what the store says, find what they left behind (--repair: mend it)",
	    .options = kTenant | kHost | kShow | kRepair, .run = verify, .fields = kDriftFields,
	    .example = "keladm verify -T all\nkeladm verify --repair -h host-a"},
	{.name = "upgrade-store", .usage = "", .summary = "bring an older configuration store to the current schema",
	    .options = kNone, .run = upgrade_store, .example = "keladm upgrade-store"},
	{.name = "check-store", .usage = "[--repair]", .summary = "check the store's invariants (--repair: put back what leaked)",
	    .options = kRepair, .run = check_store, .example = "keladm check-store --repair"},
};
// clang-format on

const Subcommand *find(const char *name)
{
	for (const Subcommand &cmd : kSubcommands)
		if (std::strcmp(cmd.name, name) == 0)
			return &cmd;
	return nullptr;
}

// A word that is no subcommand: the nearest one, not the whole overview, which buries
// the answer to a typing slip.
int unknown_subcommand(const char *word)
{
	std::vector<std::string> names;
	for (const Subcommand &cmd : kSubcommands)
		names.push_back(cmd.name);
	const std::string near = nearest(word, names);
	if (near.empty())
		std::fprintf(stderr, "keladm: unknown subcommand '%s' (keladm help lists them)\n", word);
	else
		std::fprintf(stderr, "keladm: unknown subcommand '%s': did you mean '%s'?\n", word, near.c_str());
	return kExitUsage;
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
	std::fprintf(out, "\nSee keladm help SUBCOMMAND, or keladm(8); keladm --version (-V) says which keladm.\n");
}

int help(const Subcommand &, const Options &opts)
{
	if (opts.operands.empty()) {
		print_overview(stdout);
		return kExitOk;
	}
	if (opts.operands.size() > 1) {
		std::fprintf(stderr, "keladm: help takes one subcommand\n");
		return kExitUsage;
	}
	const Subcommand *cmd = find(opts.operands[0]);
	if (cmd == nullptr)
		return unknown_subcommand(opts.operands[0]);
	print_help(stdout, *cmd);
	return kExitOk;
}

}  // namespace

std::string message(int code)
{
	// The library names its internal facilities in a few messages; an operator is told what
	// they do instead. The facility's own text, after the ": ", stays as it is.
	static const struct {
		int reason;
		const char *words;
	} kOwnWords[] = {
	    {KEL_E_INVALID_URI, "invalid URI (unix:// or ssh://[USER@]HOST[:PORT][/SOCKET])"},
	    {KEL_E_WEXO, "datalink error"},
	    {KEL_E_FENU, "IP interface error"},
	    {KEL_E_URI_NOTSUP, "URI not supported (unix:// or ssh:// only)"},
	    {KEL_E_NUQ, "remote call failed"},
	    {KEL_E_VUR, "service configuration error"},
	};
	char buf[1024];
	std::string text = kel_errmsg(code, buf, sizeof(buf));
	for (const auto &own : kOwnWords) {
		const std::string library = kel_errlist[own.reason];
		if (KEL_ERR_REASON(code) == own.reason && text.compare(0, library.size(), library) == 0)
			return own.words + text.substr(library.size());
	}
	// A refused value: say what form it takes.
	const char *form = expected_form(KEL_ERR_REASON(code));
	if (form != nullptr && text == kel_errlist[KEL_ERR_REASON(code)])
		return text + ": " + form;
	return text;
}

bool store_in_database()
{
	char conninfo[1024] = "";
	return kel_get_controller_togprop("store", conninfo, sizeof(conninfo)) == KEL_SUCCESS && *conninfo != '\0';
}

std::string store_name()
{
	// Not the connection string itself: it may hold a password.
	return store_in_database() ? "in the database keladm set-store named"
	                           : kel::paths::under_root(kel::paths::kDbFile);
}

const char *store_refusal(int code)
{
	if (code == KEL_E_DB_VERSION)
		return "holds a newer schema than this keladm writes";
	if (KEL_ERR_REASON(code) == KEL_E_SQL &&
	    (KEL_ERR_STATUS(code) == SQLITE_CORRUPT || KEL_ERR_STATUS(code) == SQLITE_NOTADB))
		return "is damaged, or is not a configuration store";
	return nullptr;
}

int fail(const std::string &what, int code)
{
	std::fprintf(stderr, "keladm: %s: %s\n", what.c_str(), message(code).c_str());
	// A store refused as a whole may be found so by any command that reads or changes
	// it: say which store.
	if (const char *why = store_refusal(code))
		std::fprintf(stderr, "keladm: the configuration store %s %s\n", store_name().c_str(), why);
	// A database that went away in the middle of a change (failing over) leaves the change
	// made or not: say how to find out, rather than let the operator guess.
	if (KEL_ERR_REASON(code) == KEL_E_SQL && (KEL_ERR_STATUS(code) & 0xff) == SQLITE_IOERR && store_in_database())
		std::fprintf(stderr,
		    "keladm: the connection to the database was lost: what was asked may or may not have been done; "
		    "run the command again once the database answers (a change already made is then refused as "
		    "existing, or finds nothing left to do), and keladm check-store to see that nothing leaked\n");
	say_which_controller(code);
	return kExitFailed;
}

void say_which_controller(int code)
{
	// The controller is reached as this host's setting says: name it, and how to change it.
	if (KEL_ERR_REASON(code) == KEL_E_CTRL_CONNECT) {
		kel::RecordList<kel_togprop_t> setting;
		if (setting.read([](list_t *l) { return kel_get_client_togprop("controller", l); }) == KEL_SUCCESS &&
		    !setting.empty()) {
			const char *uri = setting.front()->esp_propval;
			std::fprintf(stderr,
			    "keladm: this host's controller is %s%s%s (keladm set-clientprop controller=URI)\n",
			    *uri ? "'" : "", *uri ? uri : "not set", *uri ? "'" : "");
		}
	}
}

void warn(const std::string &what, int code)
{
	std::fprintf(stderr, "keladm: warning: %s: %s\n", what.c_str(), message(code).c_str());
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
	if (std::strcmp(argv[1], "--version") == 0 || std::strcmp(argv[1], "-V") == 0) {
		std::printf("keladm %s\n", KEL_VERSION);
		return kExitOk;
	}
	if (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)
		return help(*find("help"), Options{});
	const Subcommand *cmd = find(argv[1]);
	if (cmd == nullptr)
		return unknown_subcommand(argv[1]);
	// Every subcommand's options are parsed here, by the set its row names.
	const std::span<char *> args(argv + 1, static_cast<size_t>(argc - 1));
	Options opts;
	bool asked_help = false;
	if (!parse_options(*cmd, args, &opts, &asked_help))
		return kExitUsage;
	if (asked_help) {
		print_help(stdout, *cmd);
		return kExitOk;
	}
	return cmd->run(*cmd, opts);
}
