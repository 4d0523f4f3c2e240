/// Replays the files in the given folders through a fuzz target. Exits with 1 if there are none; a failure ends the
/// program at once, and the last line printed is the file's name.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

void replay(const std::filesystem::path& path) {
    printf("%s\n", path.c_str());
    fflush(stdout);
    std::ifstream file(path, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
}

}  // namespace

int main(int argc, char** argv) {
    std::set<std::filesystem::path> files;
    for (int i = 1; i < argc; i++) {
        std::error_code error;
        for (const auto& entry : std::filesystem::directory_iterator(argv[i], error)) {
            files.insert(entry.path());
        }
        if (error) {
            fprintf(stderr, "%s: %s\n", argv[i], error.message().c_str());
            return 1;
        }
    }
    for (const std::filesystem::path& path : files) {
        replay(path);
    }
    printf("%zu inputs replayed\n", files.size());
    return files.empty() ? 1 : 0;
}
