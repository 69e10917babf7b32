#include "instance_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "paths.h"
#include "text_file.h"
#include "unique_fd.h"

namespace vur {
namespace {

const char *type_name(vur_type_t type)
{
	return type == VUR_TYPE_NET_ADDR ? "net_address" : "astring";
}

bool type_of(const std::string &name, vur_type_t *type)
{
	if (name == "astring")
		*type = VUR_TYPE_ASTRING;
	else if (name == "net_address")
		*type = VUR_TYPE_NET_ADDR;
	else
		return false;
	return true;
}

// Values are one line each: backslashes and line breaks are escaped.
std::string escape(const std::string &v)
{
	std::string out;
	for (char c : v) {
		if (c == '\\')
			out += "\\\\";
		else if (c == '\n')
			out += "\\n";
		else
			out += c;
	}
	return out;
}

std::string unescape(const std::string &v)
{
	std::string out;
	for (size_t i = 0; i < v.size(); i++) {
		if (v[i] == '\\' && i + 1 < v.size()) {
			out += v[++i] == 'n' ? '\n' : v[i];
		} else {
			out += v[i];
		}
	}
	return out;
}

std::string trim(const std::string &s)
{
	const size_t b = s.find_first_not_of(" \t");
	if (b == std::string::npos)
		return "";
	return s.substr(b, s.find_last_not_of(" \t") - b + 1);
}

// The directory part of `path` ("." when there is none), and its last component.
std::string parent_of(const std::string &path)
{
	const size_t slash = path.rfind('/');
	return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

std::string file_name(const std::string &path)
{
	return path.substr(path.rfind('/') + 1);
}

std::string serialise(const InstanceFile &file, const std::string &path)
{
	std::string out = "# Service configuration (" + file_name(path) +
	    "), kept by libkel. Lines read \"name type = value\" within [group] sections.\n";
	out += "generation = " + std::to_string(file.generation) + "\n";
	for (const Group &g : file.groups) {
		out += "\n[" + g.name + "]\n";
		out += "type = " + g.type + "\n";
		out += "generation = " + std::to_string(g.generation) + "\n";
		for (const Property &p : g.props)
			out += p.name + " " + type_name(p.type) + " = " + escape(p.value) + "\n";
	}
	return out;
}

bool parse(const std::string &text, InstanceFile *file)
{
	Group *group = nullptr;
	for (size_t at = 0, end; at < text.size(); at = end + 1) {
		end = text.find('\n', at);
		if (end == std::string::npos)
			end = text.size();
		const std::string line = text.substr(at, end - at);
		if (trim(line).empty() || line[0] == '#')
			continue;
		if (line[0] == '[') {
			if (line.back() != ']')
				return false;
			file->groups.push_back(Group{line.substr(1, line.size() - 2), "", 0, {}});
			group = &file->groups.back();
			continue;
		}
		const size_t eq = line.find(" = ");
		if (eq == std::string::npos)
			return false;
		const std::string key = trim(line.substr(0, eq));
		const std::string value = line.substr(eq + 3);
		const size_t space = key.find(' ');
		if (space == std::string::npos) {
			uint64_t *gen = group ? &group->generation : &file->generation;
			if (key == "generation")
				*gen = std::stoull(value);
			else if (key == "type" && group != nullptr)
				group->type = value;
			else
				return false;
			continue;
		}
		vur_type_t type;
		if (group == nullptr || !type_of(key.substr(space + 1), &type))
			return false;
		group->props.push_back(Property{key.substr(0, space), type, unescape(value)});
	}
	return true;
}

// Closes the lock file (and so drops the lock) when it goes out of scope.
class LockFile {
public:
	explicit LockFile(const std::string &path) : fd_(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {}
	bool lock() { return fd_.valid() && flock(fd_.get(), LOCK_EX) == 0; }

private:
	kel::UniqueFd fd_;
};

int write_atomically(const std::string &path, const std::string &text)
{
	const std::string tmp = path + ".tmp";
	const int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
	if (fd == -1)
		return errno == EACCES ? VUR_ERROR_PERMISSION_DENIED : VUR_ERROR_BACKEND_ACCESS;
	// Readable by every user whatever the umask: the settings are not secret.
	bool ok = fchmod(fd, 0644) == 0 && write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
	    fsync(fd) == 0;
	ok = close(fd) == 0 && ok;
	if (!ok || rename(tmp.c_str(), path.c_str()) != 0) {
		unlink(tmp.c_str());
		return VUR_ERROR_BACKEND_ACCESS;
	}
	// The rename is durable once the directory is.
	const kel::UniqueFd dir(open(parent_of(path).c_str(), O_RDONLY | O_CLOEXEC));
	if (dir.valid())
		(void)fsync(dir.get());
	return VUR_ERROR_NONE;
}

}  // namespace

Property *Group::find(const std::string &prop)
{
	for (Property &p : props)
		if (p.name == prop)
			return &p;
	return nullptr;
}

Group *InstanceFile::find(const std::string &group)
{
	for (Group &g : groups)
		if (g.name == group)
			return &g;
	return nullptr;
}

std::string instance_path(const std::string &fmri)
{
	const std::string prefix = "svc:/";
	if (fmri.compare(0, prefix.size(), prefix) != 0)
		return "";
	const std::string rest = fmri.substr(prefix.size());
	const size_t colon = rest.rfind(':');
	if (colon == std::string::npos || colon == 0 || colon + 1 == rest.size())
		return "";
	const std::string service = rest.substr(0, colon), instance = rest.substr(colon + 1);
	// Names become file names: no empty parts, no way out of the tree.
	for (const std::string &part : {service, instance})
		if (part.find("..") != std::string::npos || part.front() == '/' || part.back() == '/' ||
		    part.find_first_of(" \t\n:") != std::string::npos)
			return "";
	if (instance.find('/') != std::string::npos)
		return "";
	return kel::paths::under_root(kel::paths::kServiceDir) + "/" + service + "/" + instance + ".conf";
}

int load(const std::string &path, InstanceFile *out)
{
	*out = InstanceFile{};
	std::string text;
	if (!kel::read_text_file(path, &text))
		return errno == ENOENT ? VUR_ERROR_NONE : VUR_ERROR_BACKEND_ACCESS;
	try {
		return parse(text, out) ? VUR_ERROR_NONE : VUR_ERROR_BACKEND_ACCESS;
	} catch (const std::exception &) {
		return VUR_ERROR_BACKEND_ACCESS;  // a number that does not read
	}
}

int update(const std::string &path, const std::function<int(InstanceFile &)> &change)
{
	if (!kel::paths::make_dirs(parent_of(path), 0755))
		return errno == EACCES ? VUR_ERROR_PERMISSION_DENIED : VUR_ERROR_BACKEND_ACCESS;
	LockFile lock(path + ".lock");
	if (!lock.lock())
		return VUR_ERROR_BACKEND_ACCESS;
	InstanceFile file;
	int err = load(path, &file);
	if (err == VUR_ERROR_NONE)
		err = change(file);
	if (err != VUR_ERROR_NONE)
		return err;
	file.generation++;
	return write_atomically(path, serialise(file, path));
}

}  // namespace vur
