// Reading a caller's property text into an owned attribute set.
#pragma once

#include <kel/libkel.h>
#include "owners.h"

namespace kel {

// What an operation answers for a property text it cannot take. The operations answer
// with codes of their own, kept as callers know them; the defaults are those of most.
struct PropsCodes {
	int null_text = KEL_SUCCESS;  // NULL; KEL_SUCCESS reads it as the empty text
	int malformed = KEL_E_INVALID_PROP;
	int empty = KEL_SUCCESS;  // a text naming no property; KEL_SUCCESS gives an empty set
};

// The one reader of a caller's "name=value,..." text: a unique-name set into *out, or
// the code `codes` gives (KEL_E_NOMEM when memory runs out, always).
int read_props(const char *text, AttrSetPtr *out, const PropsCodes &codes = {});

}  // namespace kel
