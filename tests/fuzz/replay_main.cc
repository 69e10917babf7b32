// Runs a fuzz target once over each file named on the command line (directories are
// walked), so that the kept corpus and crash inputs replay in every ordinary build.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace fs = std::filesystem;

static void replay(const fs::path &file, int &count)
{
	std::ifstream in(file, std::ios::binary);
	std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
	LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
	count++;
}

int main(int argc, char **argv)
{
	int count = 0;
	for (int i = 1; i < argc; i++) {
		const fs::path arg(argv[i]);
		if (fs::is_directory(arg)) {
			for (const auto &entry : fs::recursive_directory_iterator(arg))
				if (entry.is_regular_file())
					replay(entry.path(), count);
		} else {
			replay(arg, count);
		}
	}
	std::printf("replayed %d inputs\n", count);
	return count > 0 ? 0 : 1;
}
