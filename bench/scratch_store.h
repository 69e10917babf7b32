// What the benchmarks share: their sizes from the command line, and a scratch store
// under a temporary KEL_ROOT that goes away with the object.
#pragma once

#include <sqlite3.h>
#include <stdlib.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <kel/libkel.h>

namespace kel::bench {

// The sizes given as arguments, else 1,000, 10,000 and 100,000.
inline std::vector<int> sizes(int argc, char **argv)
{
	std::vector<int> out;
	for (int i = 1; i < argc; i++)
		out.push_back(std::atoi(argv[i]));
	if (out.empty())
		out = {1000, 10000, 100000};
	return out;
}

class ScratchStore {
public:
	ScratchStore()
	{
		char tmpl[] = "/tmp/kel-bench-XXXXXX";
		if (mkdtemp(tmpl) == nullptr)
			std::abort();
		root_ = tmpl;
		std::filesystem::create_directories(root_ + "/etc/kel");
		setenv("KEL_ROOT", root_.c_str(), 1);
		if (kel_db_create() != KEL_SUCCESS || kel_db_open(&h_, SQLITE_OPEN_READWRITE) != KEL_SUCCESS)
			std::abort();
	}
	~ScratchStore()
	{
		kel_db_close(h_);
		std::filesystem::remove_all(root_);
	}
	ScratchStore(const ScratchStore &) = delete;
	ScratchStore &operator=(const ScratchStore &) = delete;

	kel_dbhandle_t get() const { return h_; }
	// The scratch tree ($KEL_ROOT), for files a benchmark keeps beside the store.
	const std::string &root() const { return root_; }

private:
	std::string root_;
	kel_dbhandle_t h_ = nullptr;
};

}  // namespace kel::bench
