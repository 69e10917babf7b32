#include "output.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <string_view>

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
std::string escape_colons(std::string_view v)
{
	std::string out;
	for (char c : v) {
		if (c == ':' || c == '\\')
			out += '\\';
		out += c;
	}
	return out;
}

std::string json_string(std::string_view v)
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
	} else {
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
	}
	width_.clear();
	for (size_t c : columns_)
		width_.push_back(std::strlen(all_[c].name));
	return true;
}

bool Output::shows(const char *name) const
{
	for (size_t c : columns_)
		if (std::strcmp(all_[c].name, name) == 0)
			return true;
	return false;
}

void Output::add(const std::vector<std::string> &values)
{
	add_with([&](size_t i) -> const std::string & { return values[i]; });
}

void Output::put(size_t column, std::string_view value)
{
	// Values are C texts: a '\0' would end one early, so none is kept.
	value = value.substr(0, value.find('\0'));
	row_.append(value);
	row_ += '\0';
	width_[column] = std::max(width_[column], value.size());
}

void Output::keep_row()
{
	constexpr size_t kBlock = 1 << 20;
	if (blocks_.empty() || blocks_.back().size() + row_.size() > blocks_.back().capacity()) {
		blocks_.emplace_back();
		blocks_.back().reserve(std::max(kBlock, row_.size()));
	}
	blocks_.back() += row_;
}

template <class OnRow>
void Output::each_row(OnRow &&on_row) const
{
	std::vector<std::string_view> row(columns_.size());
	for (const std::string &block : blocks_) {
		size_t pos = 0;
		while (pos < block.size()) {
			for (auto &value : row) {
				const size_t end = block.find('\0', pos);
				value = std::string_view(block).substr(pos, end - pos);
				pos = end + 1;
			}
			on_row(row);
		}
	}
}

void Output::print() const
{
	if (format_ == Format::Json) {
		std::printf("[");
		bool first = true;
		each_row([&](const std::vector<std::string_view> &row) {
			std::printf("%s{", first ? "" : ", ");
			first = false;
			for (size_t c = 0; c < columns_.size(); c++)
				std::printf("%s%s: %s", c ? ", " : "", json_string(all_[columns_[c]].name).c_str(),
				    json_string(row[c]).c_str());
			std::printf("}");
		});
		std::printf("]\n");
		return;
	}
	if (format_ == Format::Parseable) {
		each_row([&](const std::vector<std::string_view> &row) {
			for (size_t c = 0; c < columns_.size(); c++)
				std::printf("%s%s", c ? ":" : "", escape_colons(row[c]).c_str());
			std::printf("\n");
		});
		return;
	}
	auto line = [&](auto value_of) {
		std::string out;
		for (size_t c = 0; c < columns_.size(); c++) {
			std::string v(value_of(c));
			if (c + 1 < columns_.size())
				v.resize(width_[c] + 2, ' ');
			out += v;
		}
		// An empty last column leaves padding behind: no line ends in blanks.
		out.erase(out.find_last_not_of(' ') + 1);
		std::printf("%s\n", out.c_str());
	};
	line([&](size_t c) { return upper(all_[columns_[c]].name); });
	each_row([&](const std::vector<std::string_view> &row) { line([&](size_t c) { return row[c]; }); });
}

}  // namespace keladm
