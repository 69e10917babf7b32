// The one place where C++ meets the C API: every exported function that can throw runs its
// body through c_boundary, so no exception ever reaches a C caller.
#pragma once

#include <new>
#include <utility>

#include <kel/libkel.h>
#include <kel/libkel_node.h>

namespace kel {

// Runs `body`; a bad_alloc becomes `nomem` and any other exception `failed`, the codes of
// the caller's family.
template <class Code, class Body>
Code c_boundary_as(Code nomem, Code failed, Body &&body) noexcept
{
	try {
		return std::forward<Body>(body)();
	} catch (const std::bad_alloc &) {
		return nomem;
	} catch (...) {
		return failed;
	}
}

// The library's calls, whose codes are KEL_E_*.
template <class Body>
int c_boundary(Body &&body) noexcept
{
	return c_boundary_as<int>(KEL_E_NOMEM, KEL_E_FAILED, std::forward<Body>(body));
}

// The datalink calls, whose codes are WEXO_STATUS_*.
template <class Body>
wexo_status_t wexo_boundary(Body &&body) noexcept
{
	return c_boundary_as<wexo_status_t>(WEXO_STATUS_NOMEM, WEXO_STATUS_FAILED, std::forward<Body>(body));
}

}  // namespace kel
