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

}  // namespace kel
