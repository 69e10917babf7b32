// The hypervisor's qemu hook for machines on kels. Called as
//   libvirt-hook DOMAIN OPERATION SUBOPERATION EXTRA
// with the domain's XML on standard input. The domain names its ports in its metadata:
//   <kel:ports xmlns:kel="https://libkel.invalid/xmlns/vm/1">
//     <kel:port kel="web" vport="vm1" vnic="vm1tap" tenant="optional"/>
//   </kel:ports>
// prepare/begin   binds each port to a macvtap VNIC of that name on this host, with the
//                 domain's UUID as its vmid (a VNIC already bound to the port is kept:
//                 a restarted daemon, a start that failed half-way)
// started/begin   brings up the VNICs that are down: on the host a machine moves to,
//                 keladm makes them down until it runs there. No hook marks the end
//                 of an incoming move, so this is once its qemu has started, while
//                 the memory is still copied (see kel-vm(7))
// release/end     deletes the VNICs, releasing the ports (after a move, handing them to
//                 the destination)
// Every other operation passes. A failure says why on standard error and exits 1, which
// makes the hypervisor refuse to start the machine.
#include <fcntl.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <libxml/parser.h>
#include <libxml/xpath.h>
#include <libxml/xpathInternals.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <kel/libkel.h>

namespace {

constexpr const char *kNamespace = "https://libkel.invalid/xmlns/vm/1";

struct Port {
	std::string kel, vport, vnic, tenant;
};

struct Domain {
	std::string uuid;
	std::vector<Port> ports;
};

[[noreturn]] void fail(const std::string &what)
{
	std::fprintf(stderr, "kel libvirt-hook: %s\n", what.c_str());
	std::exit(1);
}

// A link name the kernel takes for a macvtap of this host: the VNIC is made in the host's
// own namespace (no "ns/" prefix), and the name also goes to keladm's argument list.
bool valid_vnic_name(const std::string &name)
{
	if (name.empty() || name.size() >= IFNAMSIZ || name == "." || name == "..")
		return false;
	if (!std::isalnum(static_cast<unsigned char>(name[0])))
		return false;
	for (char c : name)
		if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_' && c != '-' && c != '.')
			return false;
	return true;
}

bool valid_uuid(const std::string &text)
{
	if (text.size() != 36)
		return false;
	for (size_t i = 0; i < text.size(); i++) {
		bool dash = i == 8 || i == 13 || i == 18 || i == 23;
		if (dash ? text[i] != '-' : !std::isxdigit(static_cast<unsigned char>(text[i])))
			return false;
	}
	return true;
}

std::string attribute(xmlNode *node, const char *name)
{
	xmlChar *value = xmlGetProp(node, reinterpret_cast<const xmlChar *>(name));
	if (value == nullptr)
		return {};
	std::string text(reinterpret_cast<const char *>(value));
	xmlFree(value);
	return text;
}

// Everything on standard input: the hypervisor writes the XML and closes it.
std::string read_input()
{
	std::string text;
	char buf[65536];
	for (;;) {
		ssize_t n = read(STDIN_FILENO, buf, sizeof buf);
		if (n == 0)
			break;
		if (n < 0) {
			if (errno == EINTR)
				continue;
			fail(std::string("cannot read the domain XML: ") + std::strerror(errno));
		}
		text.append(buf, static_cast<size_t>(n));
		if (text.size() > (64u << 20))
			fail("the domain XML is larger than 64 MiB");
	}
	return text;
}

// The domain's UUID and its ports, each name checked before anything uses it.
Domain parse_domain(const std::string &xml)
{
	// No network, no entities, no DTD: the text comes from whoever defined the domain.
	xmlDoc *doc = xmlReadMemory(xml.data(), static_cast<int>(xml.size()), "domain.xml", nullptr,
	    XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
	if (doc == nullptr)
		fail("the domain XML on standard input does not parse");
	xmlXPathContext *ctx = xmlXPathNewContext(doc);
	if (ctx == nullptr)
		fail("out of memory");
	xmlXPathRegisterNs(ctx, reinterpret_cast<const xmlChar *>("kel"),
	    reinterpret_cast<const xmlChar *>(kNamespace));
	Domain dom;
	xmlXPathObject *uuid = xmlXPathEvalExpression(reinterpret_cast<const xmlChar *>("string(/domain/uuid)"), ctx);
	if (uuid != nullptr && uuid->stringval != nullptr)
		dom.uuid = reinterpret_cast<const char *>(uuid->stringval);
	xmlXPathFreeObject(uuid);
	xmlXPathObject *ports = xmlXPathEvalExpression(
	    reinterpret_cast<const xmlChar *>("/domain/metadata/kel:ports/kel:port"), ctx);
	if (ports != nullptr && ports->nodesetval != nullptr) {
		for (int i = 0; i < ports->nodesetval->nodeNr; i++) {
			xmlNode *node = ports->nodesetval->nodeTab[i];
			Port p{attribute(node, "kel"), attribute(node, "vport"), attribute(node, "vnic"),
			    attribute(node, "tenant")};
			if (!kel_valid_name(p.kel.c_str()))
				fail("port " + std::to_string(i + 1) + ": kel \"" + p.kel + "\" is no valid kel name");
			if (!kel_valid_name(p.vport.c_str()))
				fail("port " + std::to_string(i + 1) + ": vport \"" + p.vport +
				    "\" is no valid vport name");
			if (!valid_vnic_name(p.vnic))
				fail("port " + std::to_string(i + 1) + ": vnic \"" + p.vnic +
				    "\" is no valid link name (letters, digits, _ . -, at most 15)");
			if (!p.tenant.empty() && !kel_valid_name(p.tenant.c_str()))
				fail("port " + std::to_string(i + 1) + ": tenant \"" + p.tenant +
				    "\" is no valid tenant name");
			for (const Port &q : dom.ports)
				if (q.vnic == p.vnic)
					fail("vnic " + p.vnic + " is named by two ports");
			dom.ports.push_back(std::move(p));
		}
	}
	xmlXPathFreeObject(ports);
	xmlXPathFreeContext(ctx);
	xmlFreeDoc(doc);
	if (!dom.ports.empty() && !valid_uuid(dom.uuid))
		fail("the domain has no valid <uuid>");
	return dom;
}

// Runs keladm with `args`, straight, no shell; its output goes to standard error, for
// standard output is the hypervisor's (it reads a changed XML from some operations).
// The hypervisor passes on its PATH; the installed keladm's directory comes last.
bool keladm(const std::vector<std::string> &args)
{
	std::vector<char *> argv;
	std::string prog = "keladm";
	argv.push_back(prog.data());
	for (const std::string &a : args)
		argv.push_back(const_cast<char *>(a.c_str()));
	argv.push_back(nullptr);
	pid_t pid = fork();
	if (pid < 0)
		fail(std::string("fork: ") + std::strerror(errno));
	if (pid == 0) {
		const char *path = std::getenv("PATH");
		std::string full = std::string(path != nullptr && *path ? path : "/usr/sbin:/usr/bin:/sbin:/bin") +
		    ":" KEL_SBINDIR;
		setenv("PATH", full.c_str(), 1);
		dup2(STDERR_FILENO, STDOUT_FILENO);
		int null = open("/dev/null", O_RDONLY);
		if (null >= 0)
			dup2(null, STDIN_FILENO);
		execvp(argv[0], argv.data());
		std::fprintf(stderr, "kel libvirt-hook: cannot run keladm: %s\n", std::strerror(errno));
		_exit(127);
	}
	int status;
	while (waitpid(pid, &status, 0) < 0)
		if (errno != EINTR)
			fail(std::string("waitpid: ") + std::strerror(errno));
	return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool delete_vnic(const Port &p)
{
	if (keladm({"delete-vnic", "--if-exists", p.vnic}))
		return true;
	std::fprintf(stderr, "kel libvirt-hook: keladm delete-vnic %s failed\n", p.vnic.c_str());
	return false;
}

void prepare(const Domain &dom)
{
	std::vector<const Port *> made;
	for (const Port &p : dom.ports) {
		std::vector<std::string> args{"create-vnic", "--macvtap", "--may-exist", "-p", "vmid=" + dom.uuid};
		if (!p.tenant.empty()) {
			args.push_back("-T");
			args.push_back(p.tenant);
		}
		args.push_back(p.kel + "/" + p.vport);
		args.push_back(p.vnic);
		if (!keladm(args)) {
			// The machine does not start: what was bound for it goes back.
			for (const Port *q : made)
				delete_vnic(*q);
			fail("cannot bind " + p.kel + "/" + p.vport + " to " + p.vnic);
		}
		made.push_back(&p);
	}
}

// A VNIC made down for a machine that was to move here comes up now that the machine
// runs here; one that is up stays as it is.
void bring_up(const Domain &dom)
{
	int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
	if (sock < 0)
		fail(std::string("socket: ") + std::strerror(errno));
	for (const Port &p : dom.ports) {
		ifreq ifr{};
		std::memcpy(ifr.ifr_name, p.vnic.c_str(), p.vnic.size());
		if (ioctl(sock, SIOCGIFFLAGS, &ifr) < 0)
			fail("vnic " + p.vnic + ": " + std::strerror(errno));
		if (ifr.ifr_flags & IFF_UP)
			continue;
		ifr.ifr_flags |= IFF_UP;
		if (ioctl(sock, SIOCSIFFLAGS, &ifr) < 0)
			fail("cannot bring up vnic " + p.vnic + ": " + std::strerror(errno));
	}
	close(sock);
}

}  // namespace

int main(int argc, char **argv)
{
	if (argc < 4) {
		std::fprintf(stderr, "usage: %s DOMAIN OPERATION SUBOPERATION [EXTRA] <domain.xml\n", argv[0]);
		return 2;
	}
	const std::string op = argv[2], sub = argv[3];
	bool mine = (op == "prepare" && sub == "begin") || (op == "started" && sub == "begin") ||
	    (op == "release" && sub == "end");
	if (!mine) {
		// Read what the hypervisor writes, so that it never meets a closed pipe; print
		// nothing, which leaves a migrating domain's XML as it is.
		read_input();
		return 0;
	}
	Domain dom = parse_domain(read_input());
	if (op == "prepare") {
		prepare(dom);
	} else if (op == "started") {
		bring_up(dom);
	} else {
		bool ok = true;
		for (const Port &p : dom.ports)
			ok = delete_vnic(p) && ok;
		if (!ok)
			return 1;
	}
	return 0;
}
