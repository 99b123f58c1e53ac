// Open descriptors and meta descriptors from arbitrary bytes: parse, open a scratch file with
// what parses, use it a little and close it. Also feeds the bytes as a "hfile://" address,
// which must be refused without being dereferenced.
#include <sova/blio.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include <unistd.h>

namespace {

const std::string& scratchFile()
{
    static const std::string path = [] {
        const char* tmp = std::getenv("TMPDIR");
        std::string dir = std::string(tmp && *tmp ? tmp : "/tmp") + "/fuzz_opendescriptor-XXXXXX";
        if (!mkdtemp(dir.data()))
            std::abort();
        static std::string cleanupDir = dir;
        std::atexit([] {
            ::unlink((cleanupDir + "/scratch").c_str());
            ::rmdir(cleanupDir.c_str());
        });
        return dir + "/scratch";
    }();
    return path;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    BLIO_OpenOptions options;
    const int32_t parsed = BLIO_ParseOpenDescriptor(text.c_str(), &options);
    if (parsed) {
        const bool known = options.Mode == BLIO_OPEN_READ || options.Mode == BLIO_OPEN_WRITE
            || options.Mode == BLIO_OPEN_READWRITE || options.Mode == BLIO_OPEN_APPEND
            || options.Mode == BLIO_OPEN_WRITEONLY;
        if (!known || (options.Buffered != 0 && options.Buffered != 1) || options.BufferSize < 512
            || options.BufferSize > (int64_t(64) << 20))
            std::abort();
    }
    _HFile* f = BLIO_Open(scratchFile().c_str(), text.c_str());
    if ((f != nullptr) != (parsed != 0) && !(parsed && options.Mode == BLIO_OPEN_READ))
        std::abort(); // only "r" may fail on a good descriptor: the file may not exist yet
    if (f) {
        char byte = 'f';
        if (options.Mode & BLIO_MODE_WRITE)
            BLIO_WriteData(f, &byte, 1);
        BLIO_Seek(f, 0, BLIO_SEEK_SET);
        if (options.Mode & BLIO_MODE_READ) {
            BLIO_ReadChar(f);
            BLIO_UnReadChar(f, byte);
        }
        if (BLIO_CloseFile(f) != 1)
            std::abort();
    }
    const std::string meta = "hfile://" + text;
    _HFile* view = BLIO_Open(meta.c_str(), "r");
    if (view)
        std::abort(); // no handle is open here, so no address can name one
    return 0;
}
