// Ini files on arbitrary input: every read of every key, a save that must give the input back,
// typed writes that must read back, and a reopen that must find the same keys.
#include <sova/blinifile.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <unistd.h>

namespace {

void fail(int line)
{
    std::fprintf(stderr, "fuzz_inifile.cpp:%d: check failed\n", line);
    std::abort();
}
#define check(condition) ((condition) ? void() : fail(__LINE__))

std::string g_paths[2]; // input and output files of this process, removed at exit

void removeTempFiles()
{
    for (const std::string& path : g_paths) {
        std::remove(path.c_str());
        // The writers' lock file beside each target.
        const size_t slash = path.rfind('/');
        std::remove((path.substr(0, slash + 1) + "." + path.substr(slash + 1) + ".lock").c_str());
    }
}

const std::string& tempPath(int which)
{
    if (g_paths[0].empty()) {
        // tmpfs where there is one: every save syncs, and a disk would cap the run at the
        // rate of fsync.
        const char* dir = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        const std::string stem = std::string(dir) + "/fuzz_inifile-" + std::to_string(getpid());
        g_paths[0] = stem + "-in.ini";
        g_paths[1] = stem + "-out.ini";
        std::atexit(removeTempFiles);
    }
    return g_paths[which];
}

bool writeFile(const std::string& path, const void* data, size_t size)
{
    FILE* file = std::fopen(path.c_str(), "wb");
    if (!file)
        return false;
    const bool ok = std::fwrite(data, 1, size, file) == size;
    return std::fclose(file) == 0 && ok;
}

std::string readFile(const std::string& path)
{
    std::string content;
    FILE* file = std::fopen(path.c_str(), "rb");
    check(file != nullptr);
    char block[4096];
    size_t n;
    while ((n = std::fread(block, 1, sizeof block, file)) > 0)
        content.append(block, n);
    std::fclose(file);
    return content;
}

struct Key
{
    std::string section, name;
};

// Every key of every section, each once.
std::vector<Key> allKeys(BLINIFILE* ini)
{
    std::vector<Key> keys;
    BLMEM_Descr* memory = BLMEM_CreateMemDescrEx("fuzz_inifile", 4096, 8);
    BLSTRINGLIST sections = BLINIFILE_ReadSectionsEx(ini, memory);
    check(sections != nullptr);
    for (int32_t s = 0; s < GetStringListLength(sections); ++s) {
        const char* section = GetStringInStringList(sections, s);
        check(BLINIFILE_ExistSection(ini, section) == 1);
        BLSTRINGLIST names = BLINIFILE_ReadSectionKeysEx(ini, section, memory);
        check(names != nullptr);
        for (int32_t k = 0; k < GetStringListLength(names); ++k)
            keys.push_back({section, GetStringInStringList(names, k)});
    }
    BLMEM_DisposeMemDescr(memory);
    return keys;
}

void readAll(BLINIFILE* ini, const Key& key)
{
    const char* s = key.section.c_str();
    const char* k = key.name.c_str();
    check(BLINIFILE_ExistSectionKey(ini, s, k) == 1);
    const int32_t type = BLINIFILE_KeyType(ini, s, k);
    check(type >= 0 && type <= 12);
    const int64_t integer = BLINIFILE_ReadIntegerValue(ini, s, k, 12345);
    const double real = BLINIFILE_ReadFloatValue(ini, s, k, 0.5);
    BLINIFILE_ReadBooleanValue(ini, s, k, 7);
    const char* text = BLINIFILE_ReadCStringValue(ini, s, k, nullptr);
    check(text != nullptr);
    check(std::strlen(text) < (size_t(1) << 40));
    if (type == 3 || type == 12)
        check(real == static_cast<double>(integer));
    if (type <= 2 || type == 10)
        check(integer == 12345 && real == 0.5);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string& in = tempPath(0);
    const std::string& out = tempPath(1);
    check(writeFile(in, data, size));
    BLINIFILE* ini = BLINIFILE_Open(in.c_str());
    if (!ini)
        return 0;

    // Untouched, a save gives the input back ("\r\n" becomes "\n").
    const char* bytes = reinterpret_cast<const char*>(data);
    std::string expected;
    for (size_t i = 0; i < size; ++i)
        if (bytes[i] != '\r' || i + 1 == size || bytes[i + 1] != '\n')
            expected.push_back(bytes[i]);
    check(BLINIFILE_Save(ini, out.c_str()) == 1);
    check(readFile(out) == expected);

    const std::vector<Key> keys = allKeys(ini);
    for (const Key& key : keys)
        readAll(ini, key);

    // Writes of each type, over existing keys and as new ones; each reads back as written.
    for (size_t i = 0; i < keys.size(); ++i) {
        const char* s = keys[i].section.c_str();
        const char* k = keys[i].name.c_str();
        const std::string text = BLINIFILE_ReadCStringValue(ini, s, k, "");
        int32_t ok;
        switch (i % 4) {
        case 0:
            ok = BLINIFILE_WriteCStringValue(ini, s, k, text.c_str());
            check(!ok || text == BLINIFILE_ReadCStringValue(ini, s, k, nullptr));
            break;
        case 1:
            ok = BLINIFILE_WriteIntegerValue(ini, s, k, -int64_t(i) * 977);
            check(!ok || BLINIFILE_ReadIntegerValue(ini, s, k, 1) == -int64_t(i) * 977);
            break;
        case 2:
            ok = BLINIFILE_WriteFloatValue(ini, s, k, std::ldexp(double(i) + 0.1, int(i % 9)));
            check(!ok
                || BLINIFILE_ReadFloatValue(ini, s, k, 0)
                    == std::ldexp(double(i) + 0.1, int(i % 9)));
            break;
        default:
            ok = BLINIFILE_WriteBooleanValue(ini, s, k, int32_t(i & 4));
            check(!ok || BLINIFILE_KeyType(ini, s, k) == 10);
        }
        if (ok)
            readAll(ini, keys[i]);
    }
    if (!keys.empty()) {
        BLINIFILE_WriteCStringValue(ini, keys.back().section.c_str(), "fuzz new", " a\n\"b\" ");
        BLINIFILE_WriteFloatValue(ini, "fuzz section", "f", 1.0);
        BLINIFILE_WriteIntegerValue(ini, "", "global", 1);
    }

    // A reopen of the saved file finds the same keys.
    const size_t count = allKeys(ini).size();
    check(BLINIFILE_Save(ini, out.c_str()) == 1);
    BLINIFILE_Close(ini);
    ini = BLINIFILE_Open(out.c_str());
    check(ini != nullptr);
    check(allKeys(ini).size() == count);
    BLINIFILE_Close(ini);
    return 0;
}
