// Owning what C interfaces hand out, in C++ code: a unique_ptr that frees with the
// interface's own free function.
#pragma once

#include <memory>

namespace kel {

template <auto Free>
struct FreeWith {
	template <class T>
	void operator()(T *p) const { Free(p); }
};

// Owned<kelcntl_KELError, kelcntl_KELError_free> err(raw);
template <class T, auto Free>
using Owned = std::unique_ptr<T, FreeWith<Free>>;

}  // namespace kel
