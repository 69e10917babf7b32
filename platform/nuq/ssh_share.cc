#include "ssh_share.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <utility>

#include "paths.h"

namespace nuq {
namespace {

constexpr long kDefaultPersistSeconds = 60;
// ssh first makes a control socket under its name and a 17-character suffix.
constexpr size_t kSshSuffixLen = 17;
// Socket names are name-based UUIDs of the destination in this namespace (32 digits).
constexpr uuid_t kSocketNames = {0x08, 0x2d, 0x06, 0x30, 0x27, 0x00, 0x44, 0x68, 0xb8, 0xe1, 0x16, 0x53, 0xc5, 0xeb,
    0xc6, 0xba};
constexpr size_t kSocketNameLen = 32;
constexpr std::chrono::milliseconds kLockPoll{10};

long persist_seconds()
{
	const char *text = secure_getenv("KEL_SSH_PERSIST");
	if (text == nullptr || *text == '\0')
		return kDefaultPersistSeconds;
	char *end = nullptr;
	const long seconds = std::strtol(text, &end, 10);
	return *end == '\0' && seconds >= 0 && seconds <= 86400 ? seconds : kDefaultPersistSeconds;
}

// The socket's name for `destination`: a digest of it, so that any destination names a
// socket of fixed length, and two never one.
std::string socket_name(const std::string &destination)
{
	uuid_t id;
	uuid_generate_sha1(id, kSocketNames, destination.data(), destination.size());
	static constexpr char kHex[] = "0123456789abcdef";
	std::string name;
	for (const unsigned char byte : id) {
		name += kHex[byte >> 4];
		name += kHex[byte & 0xf];
	}
	return name;
}

}  // namespace

bool private_dir(const std::string &dir, uid_t uid)
{
	struct stat st;
	return lstat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && st.st_uid == uid && (st.st_mode & 077) == 0;
}

SshShare::SshShare(const std::string &destination) : destination_(destination), persist_(persist_seconds())
{
	if (persist_ == 0)
		return;
	// One directory per user: a socket reaches hosts with its maker's rights.
	const uid_t uid = geteuid();
	const std::string run = kel::paths::under_root(kel::paths::kRunDir);
	const std::string dir = run + "/ssh-" + std::to_string(uid);
	if (dir.size() + 1 + kSocketNameLen + kSshSuffixLen >= sizeof(sockaddr_un::sun_path))
		return;
	if (!kel::paths::make_dirs(run, 0755) || (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) ||
	    !private_dir(dir, uid))
		return;
	socket_ = dir + "/" + socket_name(destination);
	setup_ = socket_ + ".setup";
	sessions_ = socket_ + ".sessions";
}

bool SshShare::master_up() const
{
	struct sockaddr_un addr {};
	if (!enabled())
		return false;
	addr.sun_family = AF_UNIX;
	std::memcpy(addr.sun_path, socket_.c_str(), socket_.size() + 1);
	const kel::UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
	return fd.valid() && connect(fd.get(), reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr)) == 0;
}

std::string SshShare::forward_socket(const std::string &path) const
{
	if (!enabled())
		return {};
	return socket_.substr(0, socket_.size() - kSocketNameLen) + socket_name(destination_ + "\n" + path) + ".keld";
}

std::vector<std::string> SshShare::options(bool through_master) const
{
	if (!enabled())
		return {};
	if (through_master)
		return {"-o", "ControlMaster=no", "-o", "ControlPath=" + socket_, "-o", "ProxyCommand=false"};
	return {"-o", "ControlMaster=auto", "-o", "ControlPath=" + socket_, "-o",
	    "ControlPersist=" + std::to_string(persist_)};
}

FileSlot::FileSlot(const std::string &file, int slots, std::chrono::steady_clock::time_point deadline)
{
	fd_.reset(open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
	while (fd_.valid()) {
		for (int slot = 0; slot < slots; slot++) {
			struct flock byte {};
			byte.l_type = F_WRLCK;
			byte.l_whence = SEEK_SET;
			byte.l_start = slot;
			byte.l_len = 1;
			if (fcntl(fd_.get(), F_OFD_SETLK, &byte) == 0)
				return;
			if (errno != EAGAIN && errno != EACCES && errno != EINTR) {
				fd_.reset();
				return;
			}
		}
		if (std::chrono::steady_clock::now() >= deadline) {
			timed_out_ = true;
			fd_.reset();
			return;
		}
		std::this_thread::sleep_for(kLockPoll);
	}
}

}  // namespace nuq
