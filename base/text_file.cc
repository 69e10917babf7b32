#include "text_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "unique_fd.h"

namespace kel {

bool read_text_file(const std::string &path, std::string *out)
{
	out->clear();
	const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
	if (file.get() == -1)
		return false;
	char buf[4096];
	for (;;) {
		const ssize_t n = read(file.get(), buf, sizeof(buf));
		if (n == 0)
			return true;
		if (n > 0)
			out->append(buf, static_cast<size_t>(n));
		else if (errno != EINTR)
			return false;
	}
}

bool replace_text_file(const std::string &path, const std::string &text, mode_t mode)
{
	// "~" is in no name the fabric gives a file, so a reader of the folder can tell.
	std::string tmp = path + "~XXXXXX";
	const int fd = mkostemp(tmp.data(), O_CLOEXEC);
	if (fd == -1)
		return false;
	bool ok = fchmod(fd, mode) == 0;
	for (size_t done = 0; ok && done < text.size();) {
		const ssize_t n = write(fd, text.data() + done, text.size() - done);
		if (n > 0)
			done += static_cast<size_t>(n);
		else if (n == -1 && errno != EINTR)
			ok = false;
	}
	ok = close(fd) == 0 && ok;
	if (ok && std::rename(tmp.c_str(), path.c_str()) == 0)
		return true;
	const int saved = errno;
	unlink(tmp.c_str());
	errno = saved;
	return false;
}

}  // namespace kel
