// The store's schema, version 3.
#pragma once

namespace kel::schema {

inline constexpr int kVersion = 3;

// Owner and group of the store files.
inline constexpr unsigned kOwnerUid = 16;
inline constexpr unsigned kOwnerGid = 65;

// The creation statements, in the order they run; ended by a null entry.
extern const char *const kel_sqlstmts[];

// Indexes for the lookups by name and by owning switch, run after kel_sqlstmts in the
// same transaction; ended by a null entry. They add no table, column, view or row.
extern const char *const kel_indexstmts[];

}  // namespace kel::schema
