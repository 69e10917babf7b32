// Whole small files read as text, with plain POSIX calls: the library links its own copy
// of the C++ runtime, and file streams would bring that copy's locales and stream
// classes into every program that loads it.
#pragma once

#include <string>

namespace kel {

// The contents of `path` in *out. false with errno on failure (ENOENT when it is absent).
bool read_text_file(const std::string &path, std::string *out);

}  // namespace kel
