// The records of what the fabric made on this host, one small file per link under
// /run/kel (gone with a reboot, as the links are): the VNICs bound to ports through the
// library, recorded when the port is bound and forgotten when it is released, and the
// links made on demand under them, recorded with the interface index they were made
// with. keld acts on these links and on no other; an on-demand link with a VNIC recorded
// over it is in use even before the VNIC is made; and a lower link lets out only the
// addresses of the VNICs recorded over it.
#pragma once

#include <netinet/in.h>

#include <ctime>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "link_filter.h"

namespace wexo::fabric {

// What this host's address responder hands the VNIC's guest (a guest VNIC), or answers
// from (the responder's own endpoint on the kel): kept with the binding, so that it keeps
// answering while the controller is away.
struct Lease {
	std::string kel;                       // the kel's UUID text
	int family = AF_INET;                  // of the port's address: AF_INET or AF_INET6
	struct in_addr addr {};                // the port's address, IPv4
	struct in6_addr addr6 {};              // or IPv6
	int plen = 0;                          // the ipnet's prefix length
	std::optional<struct in_addr> router;  // IPv4 only: an IPv6 router advertises itself
	std::vector<struct in_addr> dns;       // name servers of each family
	std::vector<struct in6_addr> dns6;
	bool endpoint = false;  // the responder's own link, not a guest's
};

// The controller's names of the port a VNIC is bound to, for the host's metrics: "" each
// when not recorded (a binding made by an older release).
struct PortNames {
	std::string port, kel, tenant;
};

struct Vnic {
	std::string name;     // "LINK", or "NAMESPACE/LINK" for one in a named namespace
	filter::Mac mac{};    // its port's address
	std::string lower;    // the link it is made over, in the host's namespace
	time_t recorded = 0;  // when its port was bound here
	std::optional<Lease> lease;
	PortNames names;
};

// A lease as the "field=value" lines of a record, and back (nullopt for lines that do not
// make one: each value is parsed, never taken as it stands).
std::string lease_text(const Lease &l);
std::optional<Lease> parse_lease(const std::string &text);
// The names as "port=", "kelname=" and "tenant=" lines, and back: a value that is no name
// of the controller's (letters, digits, "_", "-", ".", ":", at most 64) reads as "".
std::string names_text(const PortNames &n);
PortNames parse_names(const std::string &text);

// The record of VNIC `name`, if there is one.
std::optional<Vnic> vnic(const std::string &name);
// Every VNIC recorded, in no particular order.
std::vector<Vnic> vnics();
// Each VNIC recorded, in no particular order, while `visit` returns true.
void visit_vnics(const std::function<bool(const Vnic &)> &visit);
// Records `v`, replacing a record of the same name; false with errno on failure.
bool record_vnic(const Vnic &v);
void forget_vnic(const std::string &name);
// Whether a VNIC is recorded over link `lower`: bound, and about to be made or made.
bool in_use(const std::string &lower);
// Whether the VNIC recorded as `v` may still serve a guest: it is there, or it is younger
// than `grace` seconds (being made) and its namespace is still there. A VNIC whose
// namespace is gone can never come back, whatever its age.
bool alive(const Vnic &v, time_t grace);

// The address VNIC `name` may send from besides its port's (its allowed-mac), noted so
// that a removal knows without reading every record whether another VNIC still sends
// from an address it takes out of a guard; none forgets the note.
void note_allowed_mac(const std::string &name, const std::optional<filter::Mac> &mac);
// Whether some VNIC noted `mac`.
bool allowed_by_any(const filter::Mac &mac);
// Whether a VNIC is recorded in the named namespace `ns`: its records' folder is there.
bool any_in(const std::string &ns);

// The interface index the on-demand link `name` was made with, if the fabric made it.
std::optional<int> lower(const std::string &name);
// Every on-demand link recorded: name and interface index.
std::vector<std::pair<std::string, int>> lowers();
bool record_lower(const std::string &name, int ifindex);
void forget_lower(const std::string &name);

}  // namespace wexo::fabric
