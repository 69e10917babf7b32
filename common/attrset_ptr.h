// Owning an attribute set in C++ code.
#pragma once

#include <memory>

#include "libkel.h"

namespace kel {

struct AttrSetDeleter {
	void operator()(attrset_t *set) const { attrset_free(set); }
};

// Frees its set on scope exit.
using AttrSetPtr = std::unique_ptr<attrset_t, AttrSetDeleter>;

// A caller's "name=value,..." text (NULL: none) as a unique-name set, empty for an empty
// text. A malformed text is KEL_E_INVALID_PROP, as every operation taking properties
// reports it.
int read_props(const char *text, AttrSetPtr *out);

}  // namespace kel
