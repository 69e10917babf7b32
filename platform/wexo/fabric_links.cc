#include "fabric_links.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "kelnet.h"
#include "paths.h"
#include "text_file.h"

namespace wexo::fabric {
namespace {

namespace fs = std::filesystem;

std::string vnics_dir()
{
	return kel::paths::under_root(kel::paths::kVnicsDir);
}
std::string lowers_dir()
{
	return kel::paths::under_root(kel::paths::kLowersDir);
}
std::string allowed_dir()
{
	return kel::paths::under_root(kel::paths::kAllowedMacsDir);
}

// Whether `name` is a link name, or "NAMESPACE/LINK": only those become file names, so
// no record can be written or read outside its folder.
bool valid_name(const std::string &name)
{
	char link[IFNAMSIZ], ns[256];
	return name.find('\0') == std::string::npos &&
	    dlparse_zonelinkname(name.c_str(), link, sizeof(link), ns, sizeof(ns));
}

// The value of `field` in a record's "field=value" lines ("" when absent).
std::string field(const std::string &text, const std::string &field)
{
	const std::string key = field + "=";
	for (size_t start = 0; start < text.size();) {
		size_t end = text.find('\n', start);
		if (end == std::string::npos)
			end = text.size();
		if (text.compare(start, key.size(), key) == 0)
			return text.substr(start + key.size(), end - start - key.size());
		start = end + 1;
	}
	return "";
}

bool write_record(const std::string &path, const std::string &text)
{
	return kel::paths::make_dirs(fs::path(path).parent_path(), 0755) && kel::replace_text_file(path, text, 0644);
}

// Removes a record, and the folder of its namespace once that holds no other.
void remove_record(const std::string &dir, const std::string &name)
{
	std::error_code ec;
	fs::remove(dir + "/" + name, ec);
	if (const size_t slash = name.find('/'); slash != std::string::npos)
		fs::remove(dir + "/" + name.substr(0, slash), ec);  // fails while not empty
}

std::optional<Vnic> read_vnic(const std::string &name)
{
	std::string text;
	if (!valid_name(name) || !kel::read_text_file(vnics_dir() + "/" + name, &text))
		return std::nullopt;
	Vnic v;
	v.name = name;
	v.lower = field(text, "lower");
	struct stat st;
	if (stat((vnics_dir() + "/" + name).c_str(), &st) == 0)
		v.recorded = st.st_mtime;
	if (!filter::parse_mac(field(text, "mac"), &v.mac) || !valid_name(v.lower) ||
	    v.lower.find('/') != std::string::npos)
		return std::nullopt;
	v.lease = parse_lease(text);
	v.names = parse_names(text);
	return v;
}

std::string ip_text(int family, const void *a)
{
	char buf[INET6_ADDRSTRLEN];
	return inet_ntop(family, a, buf, sizeof(buf)) != nullptr ? buf : "";
}

// The address `text` of either family into `v4` or `v6`: its family, or 0.
int parse_ip(const std::string &text, struct in_addr *v4, struct in6_addr *v6)
{
	if (text.find('\0') != std::string::npos)
		return 0;
	return inet_pton(AF_INET, text.c_str(), v4) == 1 ? AF_INET
	    : inet_pton(AF_INET6, text.c_str(), v6) == 1 ? AF_INET6
	                                                 : 0;
}

// A UUID's text: 36 characters of hex digits and dashes.
bool valid_uuid(const std::string &text)
{
	if (text.size() != 36)
		return false;
	for (size_t i = 0; i < text.size(); i++)
		if ((i == 8 || i == 13 || i == 18 || i == 23) ? text[i] != '-'
		                                              : !std::isxdigit(static_cast<unsigned char>(text[i])))
			return false;
	return true;
}

}  // namespace

std::string lease_text(const Lease &l)
{
	const std::string addr = l.family == AF_INET6 ? ip_text(AF_INET6, &l.addr6) : ip_text(AF_INET, &l.addr);
	std::string text = "kel=" + l.kel + "\naddr=" + addr + "/" + std::to_string(l.plen) + "\n";
	if (l.router)
		text += "router=" + ip_text(AF_INET, &*l.router) + "\n";
	std::string dns;
	for (const struct in_addr &a : l.dns)
		dns += (dns.empty() ? "" : " ") + ip_text(AF_INET, &a);
	for (const struct in6_addr &a : l.dns6)
		dns += (dns.empty() ? "" : " ") + ip_text(AF_INET6, &a);
	if (!dns.empty())
		text += "dns=" + dns + "\n";
	if (l.endpoint)
		text += "role=endpoint\n";
	return text;
}

std::string names_text(const PortNames &n)
{
	std::string text;
	for (const auto &[key, value] : {std::pair{"port", &n.port}, {"kelname", &n.kel}, {"tenant", &n.tenant}})
		if (!value->empty())
			text += std::string(key) + "=" + *value + "\n";
	return text;
}

PortNames parse_names(const std::string &text)
{
	const auto name = [&](const char *key) {
		std::string v = field(text, key);
		const bool valid = !v.empty() && v.size() <= 64 && std::all_of(v.begin(), v.end(), [](char c) {
			return std::isalnum(static_cast<unsigned char>(c)) || std::strchr("_-.:", c) != nullptr;
		});
		return valid ? v : std::string();
	};
	return {name("port"), name("kelname"), name("tenant")};
}

std::optional<Lease> parse_lease(const std::string &text)
{
	Lease l;
	l.kel = field(text, "kel");
	const std::string addr = field(text, "addr");
	const size_t slash = addr.find('/');
	if (!valid_uuid(l.kel) || slash == std::string::npos ||
	    (l.family = parse_ip(addr.substr(0, slash), &l.addr, &l.addr6)) == 0)
		return std::nullopt;
	const std::string plen = addr.substr(slash + 1);
	if (plen.empty() || plen.size() > 3 || plen.find_first_not_of("0123456789") != std::string::npos ||
	    (l.plen = std::stoi(plen)) > (l.family == AF_INET ? 32 : 128))
		return std::nullopt;
	if (const std::string router = field(text, "router"); !router.empty()) {
		struct in_addr r;
		struct in6_addr r6;
		if (l.family != AF_INET || parse_ip(router, &r, &r6) != AF_INET)
			return std::nullopt;
		l.router = r;
	}
	const std::string dns = field(text, "dns");
	for (size_t start = 0; start < dns.size();) {
		size_t end = dns.find(' ', start);
		if (end == std::string::npos)
			end = dns.size();
		struct in_addr a;
		struct in6_addr a6;
		const int family = parse_ip(dns.substr(start, end - start), &a, &a6);
		if (family == 0 || l.dns.size() + l.dns6.size() >= 8)
			return std::nullopt;
		if (family == AF_INET)
			l.dns.push_back(a);
		else
			l.dns6.push_back(a6);
		start = end + 1;
	}
	const std::string role = field(text, "role");
	if (!role.empty() && role != "endpoint")
		return std::nullopt;
	l.endpoint = role == "endpoint";
	return l;
}

std::optional<Vnic> vnic(const std::string &name)
{
	return read_vnic(name);
}

void visit_vnics(const std::function<bool(const Vnic &)> &visit)
{
	std::error_code ec;
	// Host links at the top, a folder per namespace; anything else (a file being
	// written, with a "~" in its name) is no record.
	for (fs::recursive_directory_iterator it(vnics_dir(), ec), end; !ec && it != end; it.increment(ec)) {
		if (it.depth() > 1 || !it->is_regular_file(ec))
			continue;
		// The name is the path below the folder, put together by hand: asking the file
		// system (fs::relative) would resolve every component of both paths, each time.
		std::string name = it->path().filename().string();
		if (it.depth() == 1)
			name = it->path().parent_path().filename().string() + "/" + name;
		if (auto v = read_vnic(name); v && !visit(*v))
			return;
	}
}

std::vector<Vnic> vnics()
{
	std::vector<Vnic> out;
	visit_vnics([&](const Vnic &v) {
		out.push_back(v);
		return true;
	});
	return out;
}

bool record_vnic(const Vnic &v)
{
	if (!valid_name(v.name) || !valid_name(v.lower)) {
		errno = EINVAL;
		return false;
	}
	return write_record(vnics_dir() + "/" + v.name,
	    "mac=" + filter::mac_text(v.mac) + "\nlower=" + v.lower + "\n" + (v.lease ? lease_text(*v.lease) : "") +
	        names_text(v.names));
}

void forget_vnic(const std::string &name)
{
	if (valid_name(name))
		remove_record(vnics_dir(), name);
}

bool in_use(const std::string &lower)
{
	bool found = false;
	visit_vnics([&](const Vnic &v) {
		found = v.lower == lower;
		return !found;
	});
	return found;
}

void note_allowed_mac(const std::string &name, const std::optional<filter::Mac> &mac)
{
	if (!valid_name(name))
		return;
	if (!mac) {
		remove_record(allowed_dir(), name);
		return;
	}
	const std::string text = "mac=" + filter::mac_text(*mac) + "\n";
	std::string was;
	if (!kel::read_text_file(allowed_dir() + "/" + name, &was) || was != text)
		(void)write_record(allowed_dir() + "/" + name, text);
}

bool allowed_by_any(const filter::Mac &mac)
{
	const std::string text = "mac=" + filter::mac_text(mac) + "\n";
	std::error_code ec;
	for (fs::recursive_directory_iterator it(allowed_dir(), ec), end; !ec && it != end; it.increment(ec)) {
		std::string noted;
		if (it.depth() <= 1 && it->is_regular_file(ec) && kel::read_text_file(it->path().string(), &noted) &&
		    noted == text)
			return true;
	}
	return false;
}

bool any_in(const std::string &ns)
{
	std::error_code ec;
	return valid_name(ns) && ns.find('/') == std::string::npos && !fs::is_empty(vnics_dir() + "/" + ns, ec) && !ec;
}

std::optional<int> lower(const std::string &name)
{
	std::string text;
	if (!valid_name(name) || name.find('/') != std::string::npos ||
	    !kel::read_text_file(lowers_dir() + "/" + name, &text))
		return std::nullopt;
	const std::string index = field(text, "ifindex");
	char *end = nullptr;
	const long n = std::strtol(index.c_str(), &end, 10);
	if (index.empty() || *end != '\0' || n <= 0 || n > INT32_MAX)
		return std::nullopt;
	return static_cast<int>(n);
}

std::vector<std::pair<std::string, int>> lowers()
{
	std::vector<std::pair<std::string, int>> out;
	std::error_code ec;
	for (fs::directory_iterator it(lowers_dir(), ec), end; !ec && it != end; it.increment(ec)) {
		const std::string name = it->path().filename().string();
		if (auto index = lower(name))
			out.emplace_back(name, *index);
	}
	return out;
}

bool record_lower(const std::string &name, int ifindex)
{
	if (!valid_name(name) || name.find('/') != std::string::npos) {
		errno = EINVAL;
		return false;
	}
	return write_record(lowers_dir() + "/" + name, "ifindex=" + std::to_string(ifindex) + "\n");
}

void forget_lower(const std::string &name)
{
	if (valid_name(name) && name.find('/') == std::string::npos)
		remove_record(lowers_dir(), name);
}

}  // namespace wexo::fabric
