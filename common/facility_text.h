// Status texts of the platform facilities whose failures the library reports under
// KEL_E_WEXO, KEL_E_FENU, KEL_E_NUQ and KEL_E_VUR.
//
// Each is declared weak: the platform library that owns the facility defines it, and a
// build without that library still links, in which case kel_errmsg prints the status as a
// decimal number. No registration and no global state is needed to plug one in.
#pragma once

extern "C" {

// Size of the scratch buffer wexo_status2str writes into.
inline constexpr unsigned kWexoStrSize = 1024;

// Datalink administration: the text of `status`, written into `buf` (kWexoStrSize bytes).
__attribute__((weak)) const char *wexo_status2str(int status, char *buf);
// IP interface administration.
__attribute__((weak)) const char *fenu_status2str(int status);
// Remote administration: server errors 0-8, client errors 1024-1028.
__attribute__((weak)) const char *nuq_err_string(int err);
// Service configuration repository.
__attribute__((weak)) const char *vur_strerror(int err);

}
