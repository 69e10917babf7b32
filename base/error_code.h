// Composing library error codes: a reason in the low byte, a facility's status above it.
#pragma once

#include <cerrno>

#include <kel/libkel.h>

namespace kel {

// The code for `reason` carrying the facility status `status`.
constexpr int compose_error(int status, int reason) noexcept
{
	return KEL_ERR_CODE(status, reason);
}

// An SQLite result code as a library code.
constexpr int sql_error(int sqlite_rc) noexcept
{
	return compose_error(sqlite_rc, KEL_E_SQL);
}

// A datalink status as a library code.
constexpr int wexo_error(int status) noexcept
{
	return compose_error(status, KEL_E_WEXO);
}

// An errno value as a library code.
constexpr int sys_error(int err) noexcept
{
	return compose_error(err, KEL_E_SYSTEM);
}

// errno, as it stands right after a failed call, as a library code.
inline int last_sys_error() noexcept
{
	return sys_error(errno);
}

}  // namespace kel
