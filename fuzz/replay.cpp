// Stands in for the fuzzing engine: gives the target every file that is named, or found in a
// directory that is. Fails when there is none.
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "fuzz/Target.h"

namespace fs = std::filesystem;

namespace {

int replay(const fs::path& path) {
    if (fs::is_directory(path)) {
        int count = 0;
        for (const auto& entry : fs::directory_iterator(path))
            count += replay(entry.path());
        return count;
    }
    std::ifstream file(path, std::ios::binary);
    Require(file.is_open(), path.c_str());
    const std::string bytes{std::istreambuf_iterator<char>(file), {}};
    std::fprintf(stderr, "replay %s\n", path.c_str());  // the last one is at fault
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    int count = 0;
    for (int i = 1; i < argc; ++i)
        count += replay(argv[i]);
    std::printf("%d inputs\n", count);
    return count > 0 ? 0 : 1;
}
