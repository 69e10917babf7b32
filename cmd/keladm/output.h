// How show-* subcommands print: aligned columns with a header, parseable lines (-p), or
// JSON (--json); -o picks and orders the fields.
#pragma once

#include <string>
#include <vector>

namespace keladm {

enum class Format { Table, Parseable, Json };

struct Field {
	const char *name;	// as -o names it; the header is its upper-case form
};

class Output {
public:
	// `all` lists every field a command knows; `chosen` is -o's text (empty: all).
	// Returns false (after saying why on stderr) for an unknown field.
	bool configure(const std::vector<Field> &all, const std::string &chosen, Format format);
	// One record: a value for every field of `all`, in that order.
	void add(std::vector<std::string> values);
	void print() const;

private:
	std::vector<Field> all_;
	std::vector<size_t> columns_;	// indexes into all_, in print order
	Format format_ = Format::Table;
	std::vector<std::vector<std::string>> rows_;
};

}  // namespace keladm
