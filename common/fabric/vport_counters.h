// A port's traffic across the VNICs it has had: the counters of those that are gone, kept
// by the controller in the port's hidden property "kel:counters_gone" (as the migration
// mark is kept), so that tables, columns and views stay as they are.
#pragma once

#include <kel/libkel.h>

namespace kel {

inline constexpr const char *kCountersGone = "kel:counters_gone";

// The counters kept in `props` (all 0 when there are none, or when the text is not
// four numbers: a hand-edited value never stops an unbind).
kel_vport_counters_t counters_gone(attrset_t *props);
// Adds `last` to the counters kept in `props` (each saturating at its maximum).
int add_counters_gone(attrset_t *props, const kel_vport_counters_t &last);

}  // namespace kel
