#include "fabric_links.h"

#include <net/if.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "kelnet.h"
#include "paths.h"
#include "text_file.h"

namespace wexo::fabric {
namespace {

namespace fs = std::filesystem;

std::string vnics_dir() { return kel::paths::under_root(kel::paths::kVnicsDir); }
std::string lowers_dir() { return kel::paths::under_root(kel::paths::kLowersDir); }

// Whether `name` is a link name, or "NAMESPACE/LINK": only those become file names, so
// no record can be written or read outside its folder.
bool valid_name(const std::string &name)
{
	char link[IFNAMSIZ], ns[256];
	return name.find('\0') == std::string::npos && dlparse_zonelinkname(name.c_str(), link, sizeof(link), ns, sizeof(ns));
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
		fs::remove(dir + "/" + name.substr(0, slash), ec);	// fails while not empty
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
	if (!filter::parse_mac(field(text, "mac"), &v.mac) || !valid_name(v.lower) || v.lower.find('/') != std::string::npos)
		return std::nullopt;
	return v;
}

}  // namespace

std::optional<Vnic> vnic(const std::string &name)
{
	return read_vnic(name);
}

std::vector<Vnic> vnics()
{
	std::vector<Vnic> out;
	std::error_code ec;
	// Host links at the top, a folder per namespace; anything else (a file being
	// written, with a "~" in its name) is no record.
	for (fs::recursive_directory_iterator it(vnics_dir(), ec), end; !ec && it != end; it.increment(ec)) {
		if (it.depth() > 1 || !it->is_regular_file(ec))
			continue;
		const std::string name = fs::relative(it->path(), vnics_dir(), ec).string();
		if (auto v = read_vnic(name))
			out.push_back(*v);
	}
	return out;
}

bool record_vnic(const Vnic &v)
{
	if (!valid_name(v.name) || !valid_name(v.lower)) {
		errno = EINVAL;
		return false;
	}
	return write_record(vnics_dir() + "/" + v.name, "mac=" + filter::mac_text(v.mac) + "\nlower=" + v.lower + "\n");
}

void forget_vnic(const std::string &name)
{
	if (valid_name(name))
		remove_record(vnics_dir(), name);
}

bool in_use(const std::string &lower)
{
	for (const Vnic &v : vnics())
		if (v.lower == lower)
			return true;
	return false;
}

std::optional<int> lower(const std::string &name)
{
	std::string text;
	if (!valid_name(name) || name.find('/') != std::string::npos || !kel::read_text_file(lowers_dir() + "/" + name, &text))
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
