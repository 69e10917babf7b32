#include "netns_path.h"

#include <fcntl.h>
#include <linux/nsfs.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>

#include <kel/libkel.h>
#include "error_code.h"
#include "fabric_links.h"
#include "kelnet.h"
#include "netns_switch.h"
#include "paths.h"
#include "text_file.h"
#include "unique_fd.h"

namespace {

namespace fs = std::filesystem;

constexpr char kNetnsDir[] = "/run/netns";

// The name under /run/netns of the namespace with inode `st`, or "".
std::string named(const struct stat &st)
{
	std::error_code ec;
	for (const auto &entry : fs::directory_iterator(kNetnsDir, ec)) {
		struct stat other;
		if (stat(entry.path().c_str(), &other) == 0 && other.st_dev == st.st_dev && other.st_ino == st.st_ino)
			return entry.path().filename().string();
	}
	return "";
}

// /run/netns as "ip netns" keeps it: a mount point of its own, shared, so that a name
// made here is seen in every mount namespace that shares it.
bool prepare_dir()
{
	if (mkdir(kNetnsDir, 0755) != 0 && errno != EEXIST)
		return false;
	if (mount("", kNetnsDir, "none", MS_SHARED | MS_REC, nullptr) == 0)
		return true;
	return errno == EINVAL && mount(kNetnsDir, kNetnsDir, "none", MS_BIND | MS_REC, nullptr) == 0 &&
	    mount("", kNetnsDir, "none", MS_SHARED | MS_REC, nullptr) == 0;
}

std::string attached_record(const std::string &name)
{
	return kel::paths::under_root(kel::paths::kAttachedNetnsDir) + "/" + name;
}

// Names namespace `fd` (inode `st`) by a bind mount of it under /run/netns.
int attach(int fd, const struct stat &st, std::string *name)
{
	char text[64];
	std::snprintf(text, sizeof(text), "%s%llx", kAttachedNetnsPrefix, static_cast<unsigned long long>(st.st_ino));
	const std::string target = std::string(kNetnsDir) + "/" + text;
	if (!prepare_dir())
		return kel::last_sys_error();
	const int made = open(target.c_str(), O_RDONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0);
	if (made == -1 && errno != EEXIST)
		return kel::last_sys_error();
	if (made != -1)
		close(made);
	// Recorded first, so that the name is taken away again whatever happens after; and
	// only a name recorded so is ever taken away (an operator's namespace may carry the
	// prefix too).
	const std::string record = attached_record(text);
	if (!kel::paths::make_dirs(kel::paths::under_root(kel::paths::kAttachedNetnsDir), 0755) ||
	    !kel::replace_text_file(record, "", 0644)) {
		const int rc = kel::last_sys_error();
		if (made != -1)
			(void)unlink(target.c_str());  // the empty file this call made
		return rc;
	}
	// The descriptor, not the path the caller gave: what is named is what was checked.
	const std::string source = "/proc/self/fd/" + std::to_string(fd);
	if (mount(source.c_str(), target.c_str(), "none", MS_BIND, nullptr) != 0) {
		const int rc = kel::last_sys_error();
		(void)unlink(target.c_str());
		(void)unlink(record.c_str());
		return rc;
	}
	*name = text;
	return KEL_SUCCESS;
}

}  // namespace

int kel_vnic_by_name(const char *vnic, bool attach_new, std::string *out)
{
	const std::string text = vnic;
	if (text.empty() || text[0] != '/') {
		*out = text;
		return KEL_SUCCESS;
	}
	const size_t slash = text.rfind('/');
	const std::string path = text.substr(0, slash), link = text.substr(slash + 1);
	if (path.empty() || !dlparse_zonelinkname(link.c_str(), nullptr, 0, nullptr, 0))
		return KEL_E_INVALID_ARGS;
	const kel::UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
	if (fd.get() == -1)
		return kel::last_sys_error();
	struct stat st;
	if (ioctl(fd.get(), NS_GET_NSTYPE) != CLONE_NEWNET || fstat(fd.get(), &st) != 0)
		return KEL_E_INVALID_ARGS;
	std::string name = named(st);
	if (name.empty()) {
		if (!attach_new)
			return KEL_E_NOTFOUND;
		if (const int rc = attach(fd.get(), st, &name); rc != KEL_SUCCESS)
			return rc;
	}
	*out = name + "/" + link;
	return KEL_SUCCESS;
}

void kel_netns_release(const std::string &ns)
{
	if (ns.rfind(kAttachedNetnsPrefix, 0) != 0 || !wexo::valid_netns_name(ns.c_str()) ||
	    access(attached_record(ns).c_str(), F_OK) != 0)
		return;
	if (wexo::fabric::any_in(ns))
		return;
	const std::string target = std::string(kNetnsDir) + "/" + ns;
	if (umount2(target.c_str(), MNT_DETACH) == 0 || errno == EINVAL)
		(void)unlink(target.c_str());
	(void)unlink(attached_record(ns).c_str());
}
