// Every option-string reader, and both encodings' round trips, on arbitrary input.
#include <sova/blstring.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace {

// Heap block of exactly the text's size + 1, so that a read past the NUL is reported.
std::unique_ptr<char[]> exact(const std::string& text)
{
    std::unique_ptr<char[]> copy(new char[text.size() + 1]);
    std::memcpy(copy.get(), text.c_str(), text.size() + 1);
    return copy;
}

void check(bool condition)
{
    if (!condition)
        std::abort();
}

void readAll(const char* options, const char* key)
{
    BLSTRING_GetBooleanValueFromString(options, key, 0);
    BLSTRING_GetIntegerValueFromString(options, key, 0);
    BLSTRING_GetInteger64ValueFromString(options, key, 0);
    BLSTRING_GetFloatValueFromString(options, key, 0.0f);
    BLSTRING_GetDoubleValueFromString(options, key, 0.0);
    const int32_t exists = BLSTRING_KeyExistsInString(options, key);

    const int32_t length = BLSTRING_GetStringLengthFromString(options, key);
    check(length <= static_cast<int32_t>(std::strlen(options)));
    check(length < 0 || exists);
    if (length >= 0) {
        std::unique_ptr<char[]> text(new char[size_t(length) + 1]);
        check(BLSTRING_GetStringValueFromString(options, key, nullptr, text.get(), length) == 1);
        check(std::strlen(text.get()) == size_t(length));
    }

    int32_t count = 0;
    if (BLSTRING_GetVectorSizeFromString(options, key, &count)) {
        check(count >= 0);
        std::unique_ptr<double[]> doubles(new double[size_t(count)]);
        std::unique_ptr<float[]> floats(new float[size_t(count)]);
        std::unique_ptr<uint32_t[]> words(new uint32_t[size_t(count)]);
        BLSTRING_GetDoubleVectorValuesFromString(options, key, doubles.get(), count);
        BLSTRING_GetFloatVectorValuesFromString(options, key, floats.get(), count);
        BLSTRING_GetWord32VectorValuesFromString(options, key, words.get(), count);
    }
    int32_t rows = 0, columns = 0;
    if (BLSTRING_GetMatrixSizeFromString(options, key, &rows, &columns)) {
        check(rows >= 0 && columns >= 0);
        const size_t n = size_t(rows) * size_t(columns);
        std::unique_ptr<double[]> doubles(new double[n]);
        std::unique_ptr<float[]> floats(new float[n]);
        std::unique_ptr<uint32_t[]> words(new uint32_t[n]);
        BLSTRING_GetDoubleMatrixValuesFromString(options, key, doubles.get(), rows, columns);
        BLSTRING_GetFloatMatrixValuesFromString(options, key, floats.get(), rows, columns);
        BLSTRING_GetWord32MatrixValuesFromString(options, key, words.get(), rows, columns);
    }
}

void roundTrips(const char* text)
{
    const size_t n = std::strlen(text);
    std::unique_ptr<char[]> buffer(new char[n + 1]);

    char* encoded = BLSTRING_Encode(text);
    check(encoded != nullptr);
    std::unique_ptr<char[]> decoded(new char[std::strlen(encoded) + 1]);
    check(BLSTRING_Decode(encoded, decoded.get()) == decoded.get());
    check(std::strcmp(decoded.get(), text) == 0);
    std::free(encoded);

    encoded = BLUTILS_EncodeUrl(text);
    check(encoded != nullptr);
    decoded.reset(new char[std::strlen(encoded) + 1]);
    check(BLUTILS_UrlDecode(encoded, decoded.get()) == decoded.get());
    check(std::strcmp(decoded.get(), text) == 0);
    std::free(encoded);

    // Arbitrary text decodes within strlen + 1.
    BLSTRING_Decode(text, buffer.get());
    check(std::strlen(buffer.get()) <= n);
    BLUTILS_UrlDecode(text, buffer.get());
    check(std::strlen(buffer.get()) <= n);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // The input up to the first NUL is the option string, the rest up to the next NUL the key.
    const char* bytes = reinterpret_cast<const char*>(data);
    const size_t split = std::find(bytes, bytes + size, '\0') - bytes;
    const std::string options(bytes, split);
    std::string key;
    if (split < size) {
        const char* rest = bytes + split + 1;
        key.assign(rest, std::find(rest, bytes + size, '\0') - rest);
    }
    const auto optionsCopy = exact(options);
    const auto keyCopy = exact(key);
    readAll(optionsCopy.get(), keyCopy.get());
    // The first key of the text itself, so that lookups hit often.
    const size_t keyEnd = options.find_first_of("=,");
    std::string own = options.substr(0, keyEnd == std::string::npos ? 0 : keyEnd);
    own.erase(0, own.find_first_not_of(" \t\r\n"));
    own.erase(own.find_last_not_of(" \t\r\n") + 1);
    const auto ownKey = exact(own);
    readAll(optionsCopy.get(), ownKey.get());
    roundTrips(optionsCopy.get());
    return 0;
}
