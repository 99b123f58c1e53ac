// The settings store: layered values under dotted keys, two text files, encrypted secrets.
#include <sova/blerror.h>
#include <sova/bllist.h>
#include <sova/blsettings.h>
#include <sova/blstring.h>

#include "atomicfile.h"

#include <sodium.h>

#include <array>
#include <charconv>
#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <optional>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <vector>

struct _BLSETTINGS {
    struct Entry {
        std::optional<std::string> value;
        std::optional<std::string> fallback; // the key's default
    };

    mutable std::shared_mutex lock; // reads shared, changes exclusive
    std::map<std::string, Entry> entries;
    std::map<std::string, std::string> secrets; // clear text, wiped when dropped
    std::string userFile;                        // "" when none
    std::string systemFile;
    std::array<unsigned char, crypto_secretbox_KEYBYTES> secretKey{};
    bool haveSecretKey = false;
    // The store's own changes of values since the user's file was read or written: the new
    // text, or none for a value dropped. A flush applies only these to the file as it is then,
    // so that writers of other keys in other processes keep theirs.
    std::map<std::string, std::optional<std::string>> pending;
    std::string refusal;      // why the named user's file was not taken on, "" when it was
    std::mutex flushLock;     // one writer of the user's file at a time, in order

    ~_BLSETTINGS()
    {
        for (auto& secret : secrets)
            sodium_memzero(secret.second.data(), secret.second.size());
        sodium_memzero(secretKey.data(), secretKey.size());
    }
};

namespace {

using Store = _BLSETTINGS;
using Entries = std::map<std::string, Store::Entry>;
using TextMap = std::map<std::string, std::string>;

// Never deleted: other objects' destructors may still read settings while the process ends.
Store& processStore()
{
    static Store* const store = new Store;
    return *store;
}

Store& resolve(Store* settings)
{
    return settings ? *settings : processStore();
}

// Runs body; no exception crosses the C boundary.
template <typename Result, typename Body>
Result guarded(Result failure, Body&& body)
{
    try {
        return body();
    } catch (const std::bad_alloc&) {
        BLERROR_Set(BLERR_NO_MEMORY, nullptr);
    } catch (...) {
        BLERROR_Set(BLERR_IO, "unexpected failure in the settings store");
    }
    return failure;
}

bool isBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

std::string_view trimmed(std::string_view text)
{
    while (!text.empty() && isBlank(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && isBlank(text.back()))
        text.remove_suffix(1);
    return text;
}

bool isValidKey(std::string_view key)
{
    if (key.empty())
        return false;
    for (const char c : key) {
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')
                        || c == '.' || c == '_' || c == '-';
        if (!ok)
            return false;
    }
    return true;
}

// A bare key argument (Reset, Delete, Exists, IsDefault).
bool parseKey(const char* text, std::string& key)
{
    if (!text) {
        BLERROR_Set(BLERR_INVALID_ARGUMENT, "null settings key");
        return false;
    }
    const std::string_view k = trimmed(text);
    if (!isValidKey(k)) {
        BLERROR_Set(BLERR_PARSE, "malformed settings key '%s'", text);
        return false;
    }
    key.assign(k);
    return true;
}

// Runs body on the store for a well-formed bare key; 0 (the reason recorded) for another.
template <typename Body>
int32_t withKey(_BLSETTINGS* settings, const char* key, Body&& body)
{
    return guarded(int32_t(0), [&]() -> int32_t {
        std::string name;
        if (!parseKey(key, name))
            return 0;
        return body(resolve(settings), name);
    });
}

// "key=value": the value stands as it is after the first '='. A secret's request is not
// repeated in the message, only its key part.
bool parseWrite(const char* request, std::string& key, std::string& value, bool secret)
{
    if (!request) {
        BLERROR_Set(BLERR_INVALID_ARGUMENT, "null settings request");
        return false;
    }
    const std::string_view text(request);
    const size_t eq = text.find('=');
    const std::string_view k = trimmed(text.substr(0, eq));
    if (eq == std::string_view::npos || !isValidKey(k)) {
        const std::string shown(secret ? text.substr(0, eq) : text);
        BLERROR_Set(BLERR_PARSE, "malformed settings request '%s'%s", shown.c_str(),
                    eq == std::string_view::npos ? ": no '='" : ": bad key");
        return false;
    }
    key.assign(k);
    value.assign(text.substr(eq + 1));
    return true;
}

struct ReadRequest {
    std::string key;
    std::optional<std::string> fallback;
};

// The bare key, or "key=[default]": the default lies between the '[' opening the remainder
// (blanks may come first) and the last ']'. A remainder without that pair is the default as
// it stands.
bool parseRead(const char* request, ReadRequest& out)
{
    if (!request) {
        BLERROR_Set(BLERR_INVALID_ARGUMENT, "null settings request");
        return false;
    }
    const std::string_view text(request);
    const size_t eq = text.find('=');
    const std::string_view k = trimmed(text.substr(0, eq));
    if (!isValidKey(k)) {
        BLERROR_Set(BLERR_PARSE, "malformed settings request '%s': bad key", request);
        return false;
    }
    out.key.assign(k);
    out.fallback.reset();
    if (eq == std::string_view::npos)
        return true;
    const std::string_view rest = text.substr(eq + 1);
    size_t open = 0;
    while (open < rest.size() && isBlank(rest[open]))
        ++open;
    const size_t close = rest.rfind(']');
    if (open < rest.size() && rest[open] == '[' && close != std::string_view::npos && close > open)
        out.fallback.emplace(rest.substr(open + 1, close - open - 1));
    else
        out.fallback.emplace(rest);
    return true;
}

// The effective text of a read request: value, else default, else the request's default.
// Called under the store's lock.
const std::string* lookup(const Store& store, const ReadRequest& request)
{
    const auto it = store.entries.find(request.key);
    if (it != store.entries.end()) {
        if (it->second.value)
            return &*it->second.value;
        if (it->second.fallback)
            return &*it->second.fallback;
    }
    return request.fallback ? &*request.fallback : nullptr;
}

// ---- conversions --------------------------------------------------------------------------

bool toInt(std::string_view text, int32_t& result)
{
    text = trimmed(text);
    bool negative = false;
    if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
        negative = text.front() == '-';
        text.remove_prefix(1);
    }
    int base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        text.remove_prefix(2);
    }
    if (text.empty() || text.front() == '+' || text.front() == '-')
        return false;
    uint64_t magnitude = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), magnitude, base);
    if (ec != std::errc() || end != text.data() + text.size())
        return false;
    if (negative ? magnitude > 0x80000000ull : magnitude > 0xFFFFFFFFull)
        return false;
    const uint32_t bits = negative ? uint32_t(0) - uint32_t(magnitude) : uint32_t(magnitude);
    result = static_cast<int32_t>(bits);
    return true;
}

bool toBool(std::string_view text, int32_t& result)
{
    text = trimmed(text);
    std::string lower(text);
    for (char& c : lower)
        if (c >= 'A' && c <= 'Z')
            c = char(c - 'A' + 'a');
    if (lower == "1" || lower == "true" || lower == "yes" || lower == "on")
        result = 1;
    else if (lower == "0" || lower == "false" || lower == "no" || lower == "off")
        result = 0;
    else
        return false;
    return true;
}

// Locale-independent: "1.5" reads the same whatever LC_NUMERIC says.
bool toDouble(std::string_view text, double& result)
{
    text = trimmed(text);
    if (!text.empty() && text.front() == '+') {
        text.remove_prefix(1);
        if (!text.empty() && (text.front() == '+' || text.front() == '-'))
            return false;
    }
    double value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size())
        return false;
    result = value;
    return true;
}

// The key's text converted, else the request's default converted, else zero.
template <typename T, typename Convert>
T typedRead(Store* settings, const char* request, Convert convert)
{
    return guarded(T(0), [&]() -> T {
        ReadRequest parsed;
        if (!parseRead(request, parsed))
            return T(0);
        Store& store = resolve(settings);
        T result = T(0);
        {
            std::shared_lock<std::shared_mutex> locked(store.lock);
            const std::string* text = lookup(store, parsed);
            const std::string* requested = parsed.fallback ? &*parsed.fallback : nullptr;
            if (text && text != requested && convert(*text, result))
                return result;
            // A stored text that does not convert falls through to the request's default.
        }
        if (parsed.fallback && convert(*parsed.fallback, result))
            return result;
        return T(0);
    });
}

// ---- files --------------------------------------------------------------------------------

std::string unescape(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c != '\\' || i + 1 == text.size()) {
            out += c;
            continue;
        }
        switch (text[i + 1]) {
        case '\\': out += '\\'; break;
        case 'n': out += '\n'; break;
        case 'r': out += '\r'; break;
        case 't': out += '\t'; break;
        case 's': out += ' '; break;
        default: out += c; continue; // an unknown escape stands as written
        }
        ++i;
    }
    return out;
}

std::string escape(const std::string& text)
{
    std::string out;
    out.reserve(text.size() + 8);
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        switch (c) {
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        case ' ': out += (i == 0 || i + 1 == text.size()) ? "\\s" : " "; break;
        default: out += c;
        }
    }
    return out;
}

// "key = value" lines; comments, blank and malformed lines are skipped.
TextMap parseLines(std::string_view content, std::string_view prefix = {})
{
    TextMap result;
    if (content.substr(0, 3) == "\xEF\xBB\xBF")
        content.remove_prefix(3);
    while (!content.empty()) {
        const size_t nl = content.find('\n');
        const std::string_view line = trimmed(content.substr(0, nl));
        content.remove_prefix(nl == std::string_view::npos ? content.size() : nl + 1);
        if (line.empty() || line.front() == '#' || line.front() == ';')
            continue;
        const size_t eq = line.find('=');
        if (eq == std::string_view::npos)
            continue;
        std::string key(prefix);
        key += trimmed(line.substr(0, eq));
        if (!isValidKey(key) || key.size() == prefix.size())
            continue;
        result[key] = unescape(trimmed(line.substr(eq + 1)));
    }
    return result;
}

std::string formatLines(const char* title, const TextMap& values)
{
    std::string out = title;
    for (const auto& [key, value] : values) {
        out += key;
        out += " = ";
        out += escape(value);
        out += '\n';
    }
    return out;
}

// Reads a settings file into lines. A missing file reads as empty; false on other failures,
// among them a file that is not text (audio, an image): no save may replace such a file.
bool readSettingsFile(const std::string& path, TextMap& lines, std::string_view prefix = {})
{
    std::string content;
    if (!sova::readWholeFile(path, content))
        return BLERROR_LastCode() == BLERR_NOT_FOUND;
    bool nul = false;
    const size_t bad = sova::firstNonText(content, &nul);
    if (bad != std::string::npos) {
        BLERROR_Set(BLERR_PARSE, "'%s' is not a settings file (%s at byte %zu)", path.c_str(),
                    nul ? "NUL byte" : "invalid UTF-8", bad);
        return false;
    }
    lines = parseLines(content, prefix);
    return true;
}

// ---- secrets ------------------------------------------------------------------------------

bool sodiumReady()
{
    static const bool ready = sodium_init() >= 0;
    if (!ready)
        BLERROR_Set(BLERR_IO, "the cipher library cannot start");
    return ready;
}

using SecretKey = std::array<unsigned char, crypto_secretbox_KEYBYTES>;

bool readSecretKey(const std::string& path, SecretKey& key)
{
    std::string content;
    if (!sova::readWholeFile(path, content))
        return false;
    const bool ok = content.size() == key.size();
    if (ok)
        std::memcpy(key.data(), content.data(), key.size());
    else
        BLERROR_Set(BLERR_PARSE, "'%s' holds no secret key", path.c_str());
    sodium_memzero(content.data(), content.size());
    return ok;
}

// The key's name is sealed with the text, so an entry moved under another key does not open.
std::string sealSecret(const SecretKey& key, const std::string& name, const std::string& text)
{
    std::string plain = name;
    plain += '\0';
    plain += text;
    std::vector<unsigned char> box(crypto_secretbox_NONCEBYTES + crypto_secretbox_MACBYTES
                                   + plain.size());
    randombytes_buf(box.data(), crypto_secretbox_NONCEBYTES);
    crypto_secretbox_easy(box.data() + crypto_secretbox_NONCEBYTES,
                          reinterpret_cast<const unsigned char*>(plain.data()), plain.size(),
                          box.data(), key.data());
    sodium_memzero(plain.data(), plain.size());
    std::string encoded(sodium_base64_ENCODED_LEN(box.size(), sodium_base64_VARIANT_ORIGINAL), '\0');
    sodium_bin2base64(encoded.data(), encoded.size(), box.data(), box.size(),
                      sodium_base64_VARIANT_ORIGINAL);
    encoded.resize(std::strlen(encoded.c_str()));
    return encoded;
}

bool openSecret(const SecretKey& key, const std::string& name, const std::string& encoded,
                std::string& text)
{
    std::vector<unsigned char> box(encoded.size());
    size_t size = 0;
    if (sodium_base642bin(box.data(), box.size(), encoded.data(), encoded.size(), nullptr, &size,
                          nullptr, sodium_base64_VARIANT_ORIGINAL) != 0
        || size < crypto_secretbox_NONCEBYTES + crypto_secretbox_MACBYTES)
        return false;
    std::string plain(size - crypto_secretbox_NONCEBYTES - crypto_secretbox_MACBYTES, '\0');
    const bool opened =
        crypto_secretbox_open_easy(reinterpret_cast<unsigned char*>(plain.data()),
                                   box.data() + crypto_secretbox_NONCEBYTES,
                                   size - crypto_secretbox_NONCEBYTES, box.data(), key.data())
        == 0;
    const bool named = opened && plain.size() > name.size() && plain.compare(0, name.size(), name) == 0
                       && plain[name.size()] == '\0';
    if (named)
        text.assign(plain, name.size() + 1, std::string::npos);
    sodium_memzero(plain.data(), plain.size());
    return named;
}

// The secrets beside userFile, decrypted; entries that do not open are skipped with an error.
void readSecrets(const std::string& userFile, SecretKey& key, bool& haveKey, TextMap& secrets)
{
    haveKey = false;
    std::string content;
    if (!sova::readWholeFile(userFile + ".secrets", content))
        return;
    const TextMap sealed = parseLines(content);
    if (sealed.empty() || !sodiumReady())
        return;
    haveKey = readSecretKey(userFile + ".key", key);
    if (!haveKey) {
        BLERROR_Set(BLERR_READ_FAILED, "no key to open the secrets of '%s'", userFile.c_str());
        return;
    }
    for (const auto& [name, encoded] : sealed) {
        std::string text;
        if (openSecret(key, name, encoded, text))
            secrets[name] = std::move(text);
        else
            BLERROR_Set(BLERR_PARSE, "the secret '%s' of '%s' does not open", name.c_str(),
                        userFile.c_str());
        sodium_memzero(text.data(), text.size());
    }
}

void wipeAssign(std::string& target, const std::string& text);

// Writes the store's change of the secret `name` (its text, or its absence) beside the user's
// file, creating the key file on first use. Other processes keep secrets there too: under the
// user's file's lock, the change goes on top of the secrets as they are then, sealed with the
// key on disk, and the store takes those secrets on. Called under the store's exclusive lock;
// nothing to do without a user's file.
bool writeSecrets(Store& store, const std::string& name)
{
    if (store.userFile.empty())
        return true;
    if (!sodiumReady())
        return false;
    sova::FileLock fileLock;
    if (!fileLock.acquire(store.userFile))
        return false;
    const std::string keyFile = store.userFile + ".key";
    if (!readSecretKey(keyFile, store.secretKey)) {
        if (BLERROR_LastCode() != BLERR_NOT_FOUND)
            return false;
        randombytes_buf(store.secretKey.data(), store.secretKey.size());
        const std::string_view bytes(reinterpret_cast<const char*>(store.secretKey.data()),
                                     store.secretKey.size());
        if (!sova::writeFileAtomically(keyFile, bytes, 0600))
            return false;
    }
    store.haveSecretKey = true;
    TextMap current;
    SecretKey key{};
    bool haveKey = false;
    readSecrets(store.userFile, key, haveKey, current);
    sodium_memzero(key.data(), key.size());
    const auto own = store.secrets.find(name);
    if (own != store.secrets.end()) {
        wipeAssign(current[name], own->second);
    } else if (current.count(name)) {
        sodium_memzero(current[name].data(), current[name].size());
        current.erase(name);
    }
    TextMap sealed;
    for (const auto& [secretName, text] : current)
        sealed[secretName] = sealSecret(store.secretKey, secretName, text);
    const bool written = sova::writeFileAtomically(
        store.userFile + ".secrets",
        formatLines("# sova secrets: encrypted, do not edit\n", sealed), 0600);
    if (written) {
        for (auto& secret : store.secrets)
            sodium_memzero(secret.second.data(), secret.second.size());
        store.secrets.clear();
        for (const auto& [secretName, text] : current)
            wipeAssign(store.secrets[secretName], text);
    }
    for (auto& secret : current)
        sodium_memzero(secret.second.data(), secret.second.size());
    return written;
}

void wipeAssign(std::string& target, const std::string& text)
{
    sodium_memzero(target.data(), target.size());
    target = text;
}

// ---- changes ------------------------------------------------------------------------------

// Sets the value or the default of a key. Called under the exclusive lock.
void put(Store& store, const std::string& key, const std::string& text, bool asDefault)
{
    Store::Entry& entry = store.entries[key];
    if (asDefault) {
        entry.fallback = text;
    } else if (entry.value != text) {
        entry.value = text;
        store.pending[key] = text;
    }
}

int32_t changeRequest(Store* settings, const char* request, bool asDefault)
{
    return guarded(int32_t(0), [&]() -> int32_t {
        std::string key, value;
        if (!parseWrite(request, key, value, false))
            return 0;
        Store& store = resolve(settings);
        std::unique_lock<std::shared_mutex> locked(store.lock);
        put(store, key, value, asDefault);
        return 1;
    });
}

// Reads the named files and merges them into the store: the user's values over its values,
// the system file's entries over its defaults.
bool configure(Store& store, const char* userFile, const char* systemFile)
{
    const std::string user = userFile ? userFile : "";
    const std::string system = systemFile ? systemFile : "";
    TextMap values, defaults, secrets;
    SecretKey key{};
    bool haveKey = false;
    bool ok = true;
    if (!system.empty())
        ok = readSettingsFile(system, defaults) && ok;
    bool userRead = true;
    std::string refusal;
    if (!user.empty()) {
        userRead = readSettingsFile(user, values);
        ok = userRead && ok;
        if (userRead)
            readSecrets(user, key, haveKey, secrets);
        else
            refusal = BLERROR_LastMessage();
    }

    std::unique_lock<std::shared_mutex> locked(store.lock);
    for (const auto& [name, text] : defaults)
        store.entries[name].fallback = text;
    for (const auto& [name, text] : values)
        store.entries[name].value = text;
    for (const auto& [name, text] : secrets)
        wipeAssign(store.secrets[name], text);
    // A user file that exists but cannot be read is not taken on (a flush would replace it
    // with only what the store holds); the store is then tied to no file at all.
    store.userFile = userRead ? user : std::string();
    store.refusal = refusal;
    store.secretKey = key;
    store.haveSecretKey = haveKey;
    store.systemFile = system;
    // What the store holds beyond the user's file is its own change to that file.
    store.pending.clear();
    for (const auto& [name, entry] : store.entries)
        if (entry.value && !values.count(name))
            store.pending.emplace(name, entry.value);
    sodium_memzero(key.data(), key.size());
    for (auto& secret : secrets)
        sodium_memzero(secret.second.data(), secret.second.size());
    return ok;
}

} // namespace

extern "C" {

_BLSETTINGS* BLSETTINGS_Create(const char* userFile, const char* systemFile)
{
    return guarded(static_cast<Store*>(nullptr), [&]() -> Store* {
        Store* store = new Store;
        configure(*store, userFile, systemFile);
        return store;
    });
}

void BLSETTINGS_Destroy(_BLSETTINGS* settings)
{
    if (settings && settings != &processStore())
        delete settings;
}

int32_t BLSETTINGS_SetConfigFileEx(_BLSETTINGS* settings, const char* userFile,
                                   const char* systemFile)
{
    return guarded(int32_t(0), [&]() -> int32_t {
        return configure(resolve(settings), userFile, systemFile) ? 1 : 0;
    });
}

int32_t BLSETTINGS_LoadDefaults(const char* path, const char* prefix)
{
    return guarded(int32_t(0), [&]() -> int32_t {
        if (!path) {
            BLERROR_Set(BLERR_INVALID_ARGUMENT, "null settings file name");
            return 0;
        }
        std::string content;
        if (!sova::readWholeFile(path, content))
            return 0;
        const TextMap defaults = parseLines(content, prefix ? prefix : "");
        Store& store = processStore();
        std::unique_lock<std::shared_mutex> locked(store.lock);
        for (const auto& [name, text] : defaults)
            store.entries[name].fallback = text;
        return 1;
    });
}

int32_t BLSETTINGS_ChangeEx(_BLSETTINGS* settings, const char* request)
{
    return changeRequest(settings, request, false);
}

int32_t BLSETTINGS_SetDefaultEx(_BLSETTINGS* settings, const char* request)
{
    return changeRequest(settings, request, true);
}

int32_t BLSETTINGS_ChangeSecretEx(_BLSETTINGS* settings, const char* request)
{
    return guarded(int32_t(0), [&]() -> int32_t {
        std::string key, value;
        if (!parseWrite(request, key, value, true))
            return 0;
        Store& store = resolve(settings);
        std::unique_lock<std::shared_mutex> locked(store.lock);
        const auto old = store.secrets.find(key);
        std::optional<std::string> previous;
        if (old != store.secrets.end())
            previous = old->second;
        wipeAssign(store.secrets[key], value);
        sodium_memzero(value.data(), value.size());
        const bool written = writeSecrets(store, key);
        if (!written) { // keep memory and file in step
            if (previous)
                wipeAssign(store.secrets[key], *previous);
            else
                store.secrets.erase(key);
        }
        if (previous)
            sodium_memzero(previous->data(), previous->size());
        return written ? 1 : 0;
    });
}

int32_t BLSETTINGS_ResetValueEx(_BLSETTINGS* settings, const char* key)
{
    return withKey(settings, key, [&](Store& store, const std::string& name) -> int32_t {
        std::unique_lock<std::shared_mutex> locked(store.lock);
        const auto it = store.entries.find(name);
        if (it == store.entries.end() || !it->second.value) {
            BLERROR_Set(BLERR_KEY_NOT_FOUND, "the setting '%s' has no value", name.c_str());
            return 0;
        }
        it->second.value.reset();
        if (!it->second.fallback)
            store.entries.erase(it);
        store.pending[name].reset();
        return 1;
    });
}

int32_t BLSETTINGS_DeleteEx(_BLSETTINGS* settings, const char* key)
{
    return withKey(settings, key, [&](Store& store, const std::string& name) -> int32_t {
        std::unique_lock<std::shared_mutex> locked(store.lock);
        bool dropped = false;
        const auto it = store.entries.find(name);
        if (it != store.entries.end()) {
            if (it->second.value)
                store.pending[name].reset();
            store.entries.erase(it);
            dropped = true;
        }
        const auto secret = store.secrets.find(name);
        if (secret != store.secrets.end()) {
            sodium_memzero(secret->second.data(), secret->second.size());
            store.secrets.erase(secret);
            dropped = true;
            if (!writeSecrets(store, name))
                return 0;
        }
        if (!dropped)
            BLERROR_Set(BLERR_KEY_NOT_FOUND, "no setting '%s'", name.c_str());
        return dropped ? 1 : 0;
    });
}

int32_t BLSETTINGS_ExistsEx(_BLSETTINGS* settings, const char* key)
{
    return withKey(settings, key, [&](Store& store, const std::string& name) -> int32_t {
        std::shared_lock<std::shared_mutex> locked(store.lock);
        // Secrets count: a facade picks the store to read a secret from by this answer.
        return store.entries.count(name) || store.secrets.count(name) ? 1 : 0;
    });
}

int32_t BLSETTINGS_IsDefault(_BLSETTINGS* settings, const char* key)
{
    return withKey(settings, key, [&](Store& store, const std::string& name) -> int32_t {
        std::shared_lock<std::shared_mutex> locked(store.lock);
        const auto it = store.entries.find(name);
        return it != store.entries.end() && !it->second.value ? 1 : 0;
    });
}

int32_t BLSETTINGS_GetIntEx(_BLSETTINGS* settings, const char* request)
{
    return typedRead<int32_t>(settings, request, toInt);
}

int32_t BLSETTINGS_GetBoolEx(_BLSETTINGS* settings, const char* request)
{
    return typedRead<int32_t>(settings, request, toBool);
}

double BLSETTINGS_GetFloatEx(_BLSETTINGS* settings, const char* request)
{
    return typedRead<double>(settings, request, toDouble);
}

const char* BLSETTINGS_GetStringEx(_BLSETTINGS* settings, const char* request)
{
    return guarded(static_cast<const char*>(nullptr), [&]() -> const char* {
        ReadRequest parsed;
        if (!parseRead(request, parsed))
            return nullptr;
        Store& store = resolve(settings);
        std::shared_lock<std::shared_mutex> locked(store.lock);
        const std::string* text = lookup(store, parsed);
        if (!text) {
            BLERROR_Set(BLERR_KEY_NOT_FOUND, "no setting '%s'", parsed.key.c_str());
            return nullptr;
        }
        return GetBString(text->c_str(), 1);
    });
}

const char* BLSETTINGS_GetSecretStringEx(_BLSETTINGS* settings, const char* request)
{
    return guarded(static_cast<const char*>(nullptr), [&]() -> const char* {
        thread_local std::string last;
        sodium_memzero(last.data(), last.size());
        last.clear();
        ReadRequest parsed;
        if (!parseRead(request, parsed))
            return nullptr;
        Store& store = resolve(settings);
        std::shared_lock<std::shared_mutex> locked(store.lock);
        const auto it = store.secrets.find(parsed.key);
        if (it != store.secrets.end()) {
            last.reserve(it->second.size()); // no reallocation leaves a copy behind
            last = it->second;
        } else if (parsed.fallback) {
            last = *parsed.fallback;
        } else {
            BLERROR_Set(BLERR_KEY_NOT_FOUND, "no secret '%s'", parsed.key.c_str());
            return nullptr;
        }
        return last.c_str();
    });
}

BLLIST* BLSETTINGS_ListSettingsEx(_BLSETTINGS* settings, const char* prefix)
{
    BLLIST* list = BLLIST_Create(nullptr);
    if (!list)
        return nullptr;
    const bool ok = guarded(false, [&]() -> bool {
        const std::string_view start = prefix ? prefix : "";
        Store& store = resolve(settings);
        std::shared_lock<std::shared_mutex> locked(store.lock);
        std::string line;
        for (auto it = store.entries.lower_bound(std::string(start));
             it != store.entries.end() && it->first.compare(0, start.size(), start) == 0; ++it) {
            const std::string& text = it->second.value ? *it->second.value : *it->second.fallback;
            line.assign(it->first).append(1, '=').append(text);
            if (!BLLIST_AppendString(list, line.c_str())) {
                BLERROR_Set(BLERR_NO_MEMORY, nullptr);
                return false;
            }
        }
        return true;
    });
    if (ok)
        return list;
    BLLIST_DestroyEx(list, 0);
    return nullptr;
}

int32_t BLSETTINGS_FlushEx(_BLSETTINGS* settings, int32_t force)
{
    return guarded(int32_t(0), [&]() -> int32_t {
        Store& store = resolve(settings);
        // Flushes run one after the other, so a later snapshot never loses to an earlier one.
        std::lock_guard<std::mutex> flushing(store.flushLock);
        std::string path;
        std::map<std::string, std::optional<std::string>> changes;
        {
            std::shared_lock<std::shared_mutex> locked(store.lock);
            if (store.userFile.empty()) {
                if (store.refusal.empty())
                    BLERROR_Set(BLERR_INVALID_ARGUMENT, "the settings store has no file to write");
                else
                    BLERROR_Set(BLERR_WRITE_FAILED, "%s: not replaced", store.refusal.c_str());
                return 0;
            }
            if (!force && store.pending.empty())
                return 1;
            path = store.userFile;
            changes = store.pending;
        }
        // Other processes write the same file: under its lock, the file as it is now with this
        // store's own changes on top. The lock goes before the store's lock is taken (a
        // secret's change takes them the other way round).
        TextMap values;
        {
            sova::FileLock fileLock;
            if (!fileLock.acquire(path) || !readSettingsFile(path, values))
                return 0;
            for (const auto& [name, text] : changes) {
                if (text)
                    values[name] = *text;
                else
                    values.erase(name);
            }
            if (!sova::writeFileAtomically(path, formatLines("# sova settings\n", values), 0644))
                return 0;
        }
        // The store now reads what the file holds, except where it changed again meanwhile.
        std::unique_lock<std::shared_mutex> locked(store.lock);
        if (store.userFile != path)
            return 1;
        for (const auto& [name, text] : changes) {
            const auto it = store.pending.find(name);
            if (it != store.pending.end() && it->second == text)
                store.pending.erase(it);
        }
        for (auto it = store.entries.begin(); it != store.entries.end();) {
            if (it->second.value && !values.count(it->first) && !store.pending.count(it->first)) {
                it->second.value.reset();
                if (!it->second.fallback) {
                    it = store.entries.erase(it);
                    continue;
                }
            }
            ++it;
        }
        for (const auto& [name, text] : values)
            if (!store.pending.count(name))
                store.entries[name].value = text;
        return 1;
    });
}

} // extern "C"
