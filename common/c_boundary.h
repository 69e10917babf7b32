// The one place where C++ meets the C API: every exported function that can throw runs its
// body through c_boundary, so no exception ever reaches a C caller.
#pragma once

#include <new>
#include <utility>

#include "libkel.h"

namespace kel {

template <class Body>
int c_boundary(Body &&body) noexcept
{
	try {
		return std::forward<Body>(body)();
	} catch (const std::bad_alloc &) {
		return KEL_E_NOMEM;
	} catch (...) {
		return KEL_E_FAILED;
	}
}

}  // namespace kel
