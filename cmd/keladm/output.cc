#include "output.h"

#include <cctype>
#include <cstdio>
#include <cstring>

namespace keladm {
namespace {

std::string upper(const char *s)
{
	std::string out(s);
	for (char &c : out)
		c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
	return out;
}

// Parseable lines separate fields with ':'; a ':' or '\' inside a value is escaped.
std::string escape_colons(const std::string &v)
{
	std::string out;
	for (char c : v) {
		if (c == ':' || c == '\\')
			out += '\\';
		out += c;
	}
	return out;
}

std::string json_string(const std::string &v)
{
	std::string out = "\"";
	for (unsigned char c : v) {
		if (c == '"' || c == '\\') {
			out += '\\';
			out += static_cast<char>(c);
		} else if (c < 0x20) {
			char buf[8];
			std::snprintf(buf, sizeof(buf), "\\u%04x", c);
			out += buf;
		} else {
			out += static_cast<char>(c);
		}
	}
	return out + "\"";
}

}  // namespace

bool Output::configure(const std::vector<Field> &all, const std::string &chosen, Format format)
{
	all_ = all;
	format_ = format;
	columns_.clear();
	if (chosen.empty()) {
		for (size_t i = 0; i < all.size(); i++)
			columns_.push_back(i);
		return true;
	}
	size_t pos = 0;
	while (pos <= chosen.size()) {
		size_t comma = chosen.find(',', pos);
		if (comma == std::string::npos)
			comma = chosen.size();
		const std::string name = chosen.substr(pos, comma - pos);
		size_t i = 0;
		while (i < all.size() && name != all[i].name)
			i++;
		if (i == all.size()) {
			std::fprintf(stderr, "keladm: unknown field '%s'; fields are:", name.c_str());
			for (const Field &f : all)
				std::fprintf(stderr, " %s", f.name);
			std::fprintf(stderr, "\n");
			return false;
		}
		columns_.push_back(i);
		pos = comma + 1;
	}
	return true;
}

void Output::add(std::vector<std::string> values)
{
	rows_.push_back(std::move(values));
}

void Output::print() const
{
	if (format_ == Format::Json) {
		std::printf("[");
		for (size_t r = 0; r < rows_.size(); r++) {
			std::printf("%s{", r ? ", " : "");
			for (size_t c = 0; c < columns_.size(); c++)
				std::printf("%s%s: %s", c ? ", " : "", json_string(all_[columns_[c]].name).c_str(),
				    json_string(rows_[r][columns_[c]]).c_str());
			std::printf("}");
		}
		std::printf("]\n");
		return;
	}
	if (format_ == Format::Parseable) {
		for (const auto &row : rows_) {
			for (size_t c = 0; c < columns_.size(); c++)
				std::printf("%s%s", c ? ":" : "", escape_colons(row[columns_[c]]).c_str());
			std::printf("\n");
		}
		return;
	}
	std::vector<size_t> width;
	for (size_t c : columns_)
		width.push_back(std::strlen(all_[c].name));
	for (const auto &row : rows_)
		for (size_t c = 0; c < columns_.size(); c++)
			width[c] = std::max(width[c], row[columns_[c]].size());
	auto line = [&](auto value_of) {
		std::string out;
		for (size_t c = 0; c < columns_.size(); c++) {
			std::string v = value_of(c);
			if (c + 1 < columns_.size())
				v.resize(width[c] + 2, ' ');
			out += v;
		}
		// An empty last column leaves padding behind: no line ends in blanks.
		out.erase(out.find_last_not_of(' ') + 1);
		std::printf("%s\n", out.c_str());
	};
	line([&](size_t c) { return upper(all_[columns_[c]].name); });
	for (const auto &row : rows_)
		line([&](size_t c) { return row[columns_[c]]; });
}

}  // namespace keladm
