#include "fan_out_note.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <sstream>

#include "paths.h"
#include "text_file.h"

namespace kel {
namespace {

std::string note_path()
{
	return paths::under_root(paths::kFanOutFile);
}

// Host names and operations are written by the library, but the file sits where root
// alone writes: anything that is not a plain word is no note of ours.
bool plain(const std::string &word)
{
	return !word.empty() && word.size() <= 255 && std::all_of(word.begin(), word.end(), [](char c) {
		return std::isalnum(static_cast<unsigned char>(c)) || std::strchr("_-.:", c) != nullptr;
	});
}

}  // namespace

void note_fan_out(const FanOutNote &note) noexcept
{
	try {
		std::string text = "operation " + note.operation + "\nended " + std::to_string(note.ended) + "\n";
		for (const auto &[host, answered] : note.hosts)
			text += "host " + host + (answered ? " answered\n" : " missed\n");
		const std::string path = note_path();
		(void)(paths::make_dirs(path.substr(0, path.rfind('/')), 0755) && replace_text_file(path, text, 0644));
	} catch (...) {
		// A note not kept costs the metrics one reading, never the call.
	}
}

std::optional<FanOutNote> last_fan_out()
{
	std::string text;
	if (!read_text_file(note_path(), &text))
		return std::nullopt;
	// Each line exactly as note_fan_out writes it: its words, and nothing after them.
	std::istringstream lines(text);
	std::vector<std::vector<std::string>> words;
	for (std::string line; std::getline(lines, line);) {
		std::istringstream in(line);
		words.emplace_back();
		for (std::string w; in >> w;)
			words.back().push_back(w);
	}
	FanOutNote note;
	if (words.size() < 2 || words[0].size() != 2 || words[0][0] != "operation" || !plain(words[0][1]) ||
	    words[1].size() != 2 || words[1][0] != "ended" || words[1][1].empty() || words[1][1].size() > 18 ||
	    words[1][1].find_first_not_of("0123456789") != std::string::npos)
		return std::nullopt;
	note.operation = words[0][1];
	note.ended = static_cast<time_t>(std::stoll(words[1][1]));
	for (size_t i = 2; i < words.size(); i++) {
		const auto &w = words[i];
		if (w.size() != 3 || w[0] != "host" || !plain(w[1]) || (w[2] != "answered" && w[2] != "missed"))
			return std::nullopt;
		note.hosts.emplace_back(w[1], w[2] == "answered");
	}
	return note;
}

}  // namespace kel
