#include "http/Tokens.h"

#include "QxNJson.h"
#include "http/Clock.h"
#include "http/UploadFile.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <openssl/sha.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

using QxNJson::json;

namespace QxNHttp {

namespace {

constexpr size_t TokenBytes = 32;
constexpr size_t LongestFile = 1 << 20;

std::string Hex(const unsigned char* bytes, size_t count) {
    static constexpr char Digits[] = "0123456789abcdef";
    std::string text;
    for (size_t at = 0; at < count; ++at) {
        text += Digits[bytes[at] >> 4];
        text += Digits[bytes[at] & 15];
    }
    return text;
}

std::string HashOf(const std::string& token) {
    std::array<unsigned char, SHA256_DIGEST_LENGTH> digest;
    SHA256(reinterpret_cast<const unsigned char*>(token.data()), token.size(), digest.data());
    return Hex(digest.data(), digest.size());
}

bool IsSame(const std::string& left, const std::string& right) {
    return left.size() == right.size() && CRYPTO_memcmp(left.data(), right.data(), left.size()) == 0;
}

std::string TextMember(const json& object, const char* name) {
    return object.contains(name) && object[name].is_string() ? object[name].get<std::string>()
                                                             : std::string();
}

std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::string text(LongestFile, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<size_t>(file.gcount()));
    return text;
}

[[noreturn]] void FailToWrite(const std::string& path, int error) {
    throw Problem(Status::internal_server_error,
                  "The tokens cannot be written to " + path + ": " + strerror(error));
}

}  // namespace

Tokens::Tokens(std::string path) : _path(std::move(path)) {
    if (!std::filesystem::exists(_path)) {
        return;
    }
    const json file = json::parse(ReadFile(_path));
    if (!file.contains("tokens") || !file["tokens"].is_array()) {
        throw std::runtime_error("the tokens in " + _path + " cannot be read; mend the file or remove it");
    }
    for (const auto& value : file["tokens"]) {
        const json entry = value;
        Entry token{TextMember(entry, "name"), RightOf(TextMember(entry, "right")),
                    TextMember(entry, "created"), TextMember(entry, "sha256")};
        if (!IsFileName(token.name) || token.right == Right::None ||
            token.hash.size() != 2UL * SHA256_DIGEST_LENGTH) {
            throw std::runtime_error("an entry of " + _path + " is no token; mend the file or remove it");
        }
        _entries.push_back(std::move(token));
    }
}

Client Tokens::Find(const std::string& token) const {
    const std::string hash = HashOf(token);
    const std::lock_guard lock(_mutex);
    for (const Entry& entry : _entries) {
        if (IsSame(entry.hash, hash)) {
            return {entry.name, entry.right, false};
        }
    }
    return {};
}

std::vector<Tokens::Entry> Tokens::List() const {
    const std::lock_guard lock(_mutex);
    return _entries;
}

std::string Tokens::Make(const std::string& name, Right right) {
    std::array<unsigned char, TokenBytes> random;
    if (RAND_bytes(random.data(), static_cast<int>(random.size())) != 1) {
        throw Problem(Status::internal_server_error, "The system has no random numbers to give.");
    }
    std::string token = Hex(random.data(), random.size());
    const std::lock_guard lock(_change);
    std::vector<Entry> entries = List();
    if (std::any_of(entries.begin(), entries.end(), [&](const Entry& entry) { return entry.name == name; })) {
        throw Problem(Status::conflict, "There is a token named '" + name + "' already; remove it first.");
    }
    entries.push_back({name, right, TimeText(std::chrono::system_clock::now()), HashOf(token)});
    _Change(std::move(entries));
    return token;
}

bool Tokens::Remove(const std::string& name) {
    const std::lock_guard lock(_change);
    std::vector<Entry> entries = List();
    if (std::erase_if(entries, [&](const Entry& entry) { return entry.name == name; }) == 0) {
        return false;
    }
    _Change(std::move(entries));
    return true;
}

/// Whoever asks whether a token is known does not wait for the disk.
void Tokens::_Change(std::vector<Entry> entries) {
    _Write(entries);
    const std::lock_guard lock(_mutex);
    _entries.swap(entries);
}

void Tokens::_Write(const std::vector<Entry>& entries) const {
    json list = json::array();
    for (const Entry& entry : entries) {
        json object = json::object();
        object["name"] = entry.name;
        object["right"] = TextOf(entry.right);
        object["created"] = entry.created;
        object["sha256"] = entry.hash;
        list.push_back(std::move(object));
    }
    json file = json::object();
    file["tokens"] = std::move(list);
    const std::string text = file.dump(2) + "\n";

    std::error_code ignored;
    std::filesystem::create_directories(std::filesystem::path(_path).parent_path(), ignored);
    UploadedFile fresh(_path + ".new", text.size());
    // A signal may interrupt what a slow disk takes its time with.
    QxNSupport::UniqueFd output(static_cast<int>(
        TEMP_FAILURE_RETRY(open(fresh.Path().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600))));
    if (!output.IsOpen() || fchmod(output.Get(), 0600) != 0 ||
        !WriteAll(output.Get(), text.data(), text.size()) || TEMP_FAILURE_RETRY(fsync(output.Get())) != 0) {
        FailToWrite(_path, errno);
    }
    fresh.MoveTo(_path);
}

std::string TextOf(Right right) { return right == Right::Act ? "act" : "look"; }

Right RightOf(const std::string& text) {
    return text == "act" ? Right::Act : text == "look" ? Right::Look : Right::None;
}

}  // namespace QxNHttp
