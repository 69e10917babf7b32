#include "text_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace kel {

namespace {

// Closes the descriptor however the read ends (appending may throw), errno kept.
struct Fd {
	int fd;
	~Fd()
	{
		const int saved = errno;
		if (fd != -1)
			close(fd);
		errno = saved;
	}
};

}  // namespace

bool read_text_file(const std::string &path, std::string *out)
{
	out->clear();
	const Fd file{open(path.c_str(), O_RDONLY | O_CLOEXEC)};
	if (file.fd == -1)
		return false;
	char buf[4096];
	for (;;) {
		const ssize_t n = read(file.fd, buf, sizeof(buf));
		if (n == 0)
			return true;
		if (n > 0)
			out->append(buf, static_cast<size_t>(n));
		else if (errno != EINTR)
			return false;
	}
}

}  // namespace kel
