#include "notify.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "unique_fd.h"

namespace keld {

bool notify(const char *state)
{
	const char *where = std::getenv("NOTIFY_SOCKET");
	if (where == nullptr || *where == '\0')
		return true;
	struct sockaddr_un addr {};
	addr.sun_family = AF_UNIX;
	const size_t len = std::strlen(where);
	// "@name" is a socket in the abstract namespace, its name led by a zero byte.
	if ((where[0] != '/' && where[0] != '@') || len >= sizeof(addr.sun_path))
		return false;
	std::memcpy(addr.sun_path, where, len);
	if (where[0] == '@')
		addr.sun_path[0] = '\0';
	const kel::UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
	if (!fd.valid())
		return false;
	const socklen_t addrlen = static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + len);
	return sendto(fd.get(), state, std::strlen(state), MSG_NOSIGNAL, reinterpret_cast<struct sockaddr *>(&addr),
	           addrlen) >= 0;
}

}  // namespace keld
