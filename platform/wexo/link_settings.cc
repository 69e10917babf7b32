#include "link_settings.h"

#include <cstdio>
#include <filesystem>

#include "paths.h"
#include "text_file.h"

namespace wexo::settings {
namespace {

std::string path_of(const std::string &key)
{
	return kel::paths::under_root(kel::paths::kLinksDir) + "/" + key + ".conf";
}

}  // namespace

std::string key(const std::string &ns, const std::string &link)
{
	return ns.empty() ? link : ns + "/" + link;
}

Props load(const std::string &key)
{
	Props props;
	std::string text;
	if (!kel::read_text_file(path_of(key), &text))
		return props;
	size_t start = 0;
	while (start < text.size()) {
		size_t end = text.find('\n', start);
		if (end == std::string::npos)
			end = text.size();
		const std::string line = text.substr(start, end - start);
		if (const size_t eq = line.find('='); eq != std::string::npos)
			props[line.substr(0, eq)] = line.substr(eq + 1);
		start = end + 1;
	}
	return props;
}

bool save(const std::string &key, const Props &props)
{
	const std::string path = path_of(key);
	if (!kel::paths::make_dirs(std::filesystem::path(path).parent_path(), 0755))
		return false;
	std::string text;
	for (const auto &[name, value] : props)
		if (!value.empty())
			text += name + "=" + value + "\n";
	return kel::replace_text_file(path, text, 0644);
}

void forget(const std::string &key)
{
	std::remove(path_of(key).c_str());
}

}  // namespace wexo::settings
