// Copying text into fixed-size fields.
#pragma once

#include <cstddef>
#include <cstring>

namespace kel {

// Copies at most size - 1 characters of `src` into `dst` and terminates it (size > 0):
// a long text is cut, never written past the field.
inline void copy_text(char *dst, const char *src, size_t size)
{
	const size_t n = strnlen(src, size - 1);
	std::memcpy(dst, src, n);
	dst[n] = '\0';
}

}  // namespace kel
