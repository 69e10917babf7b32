// What keladm adds to a refusal so that an operator sees what was expected: the form a
// value takes, and the known word nearest to a mistyped one.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "keladm.h"

namespace keladm {

const char *expected_form(int reason)
{
	switch (reason) {
	case KEL_E_INVALID_MAXBW: return "expected a number with an optional K, M or G, e.g. 10M";
	case KEL_E_INVALID_PROTECTION:
		return "expected mac-nospoof, ip-nospoof, dhcp-nospoof or restricted (several joined by ','), or none";
	case KEL_E_INVALID_PRIORITY: return "expected low, medium or high";
	case KEL_E_INVALID_COS: return "expected a number from 0 to 7";
	case KEL_E_INVALID_L2TYPE: return "expected vlan, vxlan or flat";
	case KEL_E_INVALID_MACADDR: return "expected six hexadecimal bytes joined by ':', e.g. 2:8:20:1:2:3";
	case KEL_E_INVALID_SUBNET: return "expected a network as ADDRESS/PREFIX, e.g. 10.1.0.0/24";
	case KEL_E_INVALID_VLANID_RANGE: return "expected VLAN IDs from 1 to 4094 and ranges of them, e.g. 100-199,300";
	case KEL_E_INVALID_RANGE: return "expected numbers and ranges of them, e.g. 5000-5999,7000";
	case KEL_E_INVALID_NAME:
		return "expected letters, digits, '-', '_' and '.' (a tenant, kel, port or network name), or a UUID";
	default: return nullptr;
	}
}

namespace {

// The number of single-letter insertions, deletions, changes and swaps of neighbours
// that make `a` into `b`.
size_t edit_distance(const std::string &a, const std::string &b)
{
	std::vector<std::vector<size_t>> d(a.size() + 1, std::vector<size_t>(b.size() + 1));
	for (size_t i = 0; i <= a.size(); i++)
		d[i][0] = i;
	for (size_t j = 0; j <= b.size(); j++)
		d[0][j] = j;
	for (size_t i = 1; i <= a.size(); i++)
		for (size_t j = 1; j <= b.size(); j++) {
			d[i][j] = std::min(
			    {d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + (a[i - 1] != b[j - 1])});
			if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
				d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
		}
	return d[a.size()][b.size()];
}

}  // namespace

std::string nearest(const std::string &word, const std::vector<std::string> &known)
{
	// A third of the word may be wrong, and at least one letter: "creat-kel", "maxbx".
	// The input is an operator's word: long ones are not worth the quadratic table.
	if (word.empty() || word.size() > 64)
		return "";
	const size_t allowed = std::max<size_t>(1, word.size() / 3);
	std::string best;
	size_t best_distance = allowed + 1;
	for (const std::string &k : known) {
		const size_t d = edit_distance(word, k);
		if (d < best_distance) {
			best_distance = d;
			best = k;
		}
	}
	return best;
}

std::vector<std::string> prop_names(const char *props)
{
	// Each property's line starts with its name and '='; continuation lines start with a
	// tab, and the extended form ("NAME:NAME=TEXT") is no name to suggest.
	std::vector<std::string> names;
	for (const char *line = props; line != nullptr && *line != '\0';) {
		const size_t len = std::strcspn(line, "\n");
		const std::string text(line, len);
		const size_t eq = text.find('=');
		if (!text.empty() && text[0] != '\t' && eq != std::string::npos && text.find(':') > eq)
			names.push_back(text.substr(0, eq));
		line += len + (line[len] != '\0');
	}
	return names;
}

std::vector<std::string> split_settings(const std::string &text)
{
	// A value may hold commas of its own ("protection=mac-nospoof,ip-nospoof"): a new
	// setting starts only at a piece that names itself with '='.
	std::vector<std::string> out;
	size_t start = 0;
	while (start <= text.size()) {
		size_t comma = text.find(',', start);
		std::string piece = text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
		if (!out.empty() && piece.find('=') == std::string::npos)
			out.back() += "," + piece;
		else
			out.push_back(piece);
		if (comma == std::string::npos)
			break;
		start = comma + 1;
	}
	return out;
}

void say_unknown_props(const Options &opts, const std::string &settings)
{
	if (opts.cmd == nullptr || opts.cmd->props == nullptr)
		return;
	const std::vector<std::string> known = prop_names(opts.cmd->props);
	for (const std::string &setting : split_settings(settings)) {
		const std::string name = setting.substr(0, setting.find('='));
		if (name.find(':') != std::string::npos || std::find(known.begin(), known.end(), name) != known.end())
			continue;
		const std::string near = nearest(name, known);
		std::fprintf(stderr, "keladm: %s takes no property '%s'%s%s%s (keladm help %s lists them)\n",
		    opts.cmd->name, name.c_str(), near.empty() ? "" : ": did you mean '", near.c_str(),
		    near.empty() ? "" : "'?", opts.cmd->name);
	}
}

}  // namespace keladm
