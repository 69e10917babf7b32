// A UUID's text, as the store holds it and keld's interfaces carry it.
#pragma once

#include <uuid/uuid.h>

#include <string>

namespace kel {

// Lower case: the one spelling the store holds and SQL "=" compares.
inline std::string uuid_text(const uuid_t uu)
{
	char text[37];  // KEL_UUID_TEXT_LEN; this leaf does not include the public header
	uuid_unparse_lower(uu, text);
	return text;
}

}  // namespace kel
