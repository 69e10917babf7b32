// Status texts of the platform facilities whose failures the library reports under
// KEL_E_WEXO, KEL_E_FENU, KEL_E_NUQ and KEL_E_VUR.
//
// Each is declared weak: the platform library that owns the facility defines it, and a
// build without that library still links, in which case kel_errmsg prints the status as a
// decimal number. No registration and no global state is needed to plug one in.
//
// The datalink and IP interface texts live in libkel_node.so. A program linked with it
// has them bound at start; one that loads it later (keladm, for its VNIC commands) finds
// them through node_text below.
#pragma once

#include <dlfcn.h>

extern "C" {

// Size of the scratch buffer wexo_status2str writes into.
inline constexpr unsigned kWexoStrSize = 1024;

// Datalink administration: the text of `status`, written into `buf` (kWexoStrSize bytes).
__attribute__((weak)) const char *wexo_status2str(int status, char *buf) noexcept;
// IP interface administration.
__attribute__((weak)) const char *fenu_status2str(int status) noexcept;
// Remote administration: server errors 0-8, client errors 1024-1028.
__attribute__((weak)) const char *nuq_err_string(int err);
// Service configuration repository.
__attribute__((weak)) const char *vur_strerror(int err);

}

// `bound` when the weak reference was bound, else the function `name` of an object
// loaded since (NULL when none is).
template <class Fn>
Fn node_text(Fn bound, const char *name)
{
	return bound != nullptr ? bound : reinterpret_cast<Fn>(dlsym(RTLD_DEFAULT, name));
}
