// How show-* subcommands print: aligned columns with a header, parseable lines (-p), or
// JSON (--json); -o picks and orders the fields.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace keladm {

enum class Format { Table, Parseable, Json };

// What a field's text stands for, so that --json can give it its type. In every kind an
// empty text (and "--", which tables print for "none") is an absent value: null.
enum class Kind {
	Text,     // a string
	Number,   // a whole number
	Decimal,  // a number that may have a fraction
	List,     // comma-separated items: an array of strings ([] when empty)
	Flag,     // "yes" or "no": true or false
};

struct Field {
	const char *name;  // as -o names it; the header is its upper-case form
	Kind kind = Kind::Text;
	bool on_request = false;  // printed only when -o names it, or as configure's `also`
};

// Records are kept as the text of the chosen fields only, packed into large blocks, until
// print(): a listing of 100,000 ports costs what its output does, and the store is never
// held while a slow reader of the output catches up.
class Output {
public:
	// `all` lists every field a command knows; `chosen` is -o's text (empty: every field
	// but those on request, and the field named `also`). Returns false (after saying why
	// on stderr) for an unknown field.
	bool configure(std::span<const Field> all, const std::string &chosen, Format format,
	    const char *also = nullptr);
	// Whether the field named `name` is printed: what no field needs is not worked out.
	bool shows(const char *name) const;
	// One record: a value for every field of `all`, in that order.
	void add(const std::vector<std::string> &values);
	// One record whose values are made on demand: `value_of(i)` gives field i of `all`,
	// and is called only for the printed fields.
	template <class ValueOf>
	void add_with(ValueOf &&value_of)
	{
		row_.clear();
		for (size_t c = 0; c < columns_.size(); c++)
			put(c, value_of(columns_[c]));
		keep_row();
	}
	void print() const;

private:
	void put(size_t column, std::string_view value);
	void keep_row();
	template <class OnRow>
	void each_row(OnRow &&on_row) const;

	std::span<const Field> all_;
	std::vector<size_t> columns_;  // indexes into all_, in print order
	Format format_ = Format::Table;
	std::vector<size_t> width_;        // per printed column, for the table
	std::string row_;                  // the record being added: its values, each ended by '\0'
	std::vector<std::string> blocks_;  // whole records, one after another
};

}  // namespace keladm
