// Programming-error assertions. A failed one prints the expression and the area of the
// library it belongs to (the area name, not the file name, is what operators search
// logs for), then aborts. They stay on in every build: they guard invariants whose
// breach would otherwise corrupt the store.
#pragma once

namespace kel {

// Area names printed by assertions.
inline constexpr const char *kAreaCore = "common/libkel";
inline constexpr const char *kAreaUtil = "common/libkel_util";
inline constexpr const char *kAreaProp = "common/libkel_prop";
inline constexpr const char *kAreaCtrlProp = "common/libkel_ctrlprop";
inline constexpr const char *kAreaTog = "common/libkel_tog";
inline constexpr const char *kAreaNuq = "common/libkel_nuq";

[[noreturn]] void assert_fail(const char *expr, const char *area, int line) noexcept;

}  // namespace kel

#define KEL_ASSERT(area, expr) ((expr) ? (void)0 : ::kel::assert_fail(#expr, (area), __LINE__))
