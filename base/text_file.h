// Whole small files read as text, with plain POSIX calls: the library links its own copy
// of the C++ runtime, and file streams would bring that copy's locales and stream
// classes into every program that loads it.
#pragma once

#include <sys/types.h>

#include <string>

namespace kel {

// The contents of `path` in *out. false with errno on failure (ENOENT when it is absent).
bool read_text_file(const std::string &path, std::string *out);
// Makes `path` hold `text` with `mode`, whatever the umask, in one step: a reader sees the
// old file or the new one, never a part (a file beside it, renamed over it). false with
// errno on failure, the old file left as it was.
bool replace_text_file(const std::string &path, const std::string &text, mode_t mode);

}  // namespace kel
