// Which hosts answered the last call made to many hosts at once, kept for the
// controller's metrics: one small file below the run folder, replaced whole each time, so
// that keld reads it whichever process made the call (keladm, or keld itself).
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kel {

struct FanOutNote {
	std::string operation;                            // "property", "flood", "verify"
	time_t ended = 0;                                 // when the last host answered or gave up
	std::vector<std::pair<std::string, bool>> hosts;  // each host, and whether it answered
};

// Replaces the note with `note`. Best effort: a caller that cannot write the run folder
// (not root) leaves the last note standing, and the call it made goes on unhindered.
void note_fan_out(const FanOutNote &note) noexcept;
// The note as last written; nullopt when there is none or it does not read as one.
std::optional<FanOutNote> last_fan_out();

}  // namespace kel
