// Replays saved fuzz inputs through a target without libFuzzer, so that every compiler and
// sanitizer tree runs the corpora as regression tests: each argument is a file or a directory
// of files; the exit status is 0 when every input returned (a failed check aborts).
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool replayFile(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "replay: cannot read '%s'\n", path.c_str());
        return false;
    }
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                  std::istreambuf_iterator<char>());
    // A heap block of exactly the input's size, as libFuzzer gives, so that ASan sees overreads.
    std::vector<uint8_t> data(bytes.begin(), bytes.end());
    data.shrink_to_fit();
    static const uint8_t none = 0;
    LLVMFuzzerTestOneInput(data.empty() ? &none : data.data(), data.size());
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    int replayed = 0;
    bool ok = true;
    for (int i = 1; i < argc; ++i) {
        std::error_code error;
        const std::filesystem::path arg(argv[i]);
        if (!std::filesystem::is_directory(arg, error)) {
            ok = replayFile(arg) && ok;
            ++replayed;
            continue;
        }
        std::vector<std::filesystem::path> files;
        for (const auto& entry : std::filesystem::directory_iterator(arg, error))
            if (entry.is_regular_file())
                files.push_back(entry.path());
        std::sort(files.begin(), files.end());
        for (const auto& file : files) {
            ok = replayFile(file) && ok;
            ++replayed;
        }
    }
    std::printf("replayed %d inputs\n", replayed);
    return ok && replayed > 0 ? 0 : 1;
}
