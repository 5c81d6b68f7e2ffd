#pragma once

#include "http/Message.h"

#include <mutex>
#include <string>
#include <vector>

namespace QxNHttp {

/// Who may use the daemon over TCP. Kept in a JSON file, each token by its SHA-256 only: tokens are 256 random bits, so
/// that a plain hash cannot be turned round.
///
/// Thread safety: all operations may be called from any thread.
class Tokens {
public:
    struct Entry {
        std::string name;
        Right right;
        std::string created;  ///< ISO 8601
        std::string hash;     ///< lower-case hexadecimal
    };

    /// @param path  of the file; read now when it is there
    /// @throws std::runtime_error when it cannot be read or is malformed
    explicit Tokens(std::string path);

    /// @return the client; without rights when there is no such token
    Client Find(const std::string& token) const;

    std::vector<Entry> List() const;
    /// @return the new token, which nobody can ask for again
    /// @throws Problem when the name is taken or the file cannot be written
    std::string Make(const std::string& name, Right right);
    /// @return false when there is none of that name
    /// @throws Problem when the file cannot be written
    bool Remove(const std::string& name);

private:
    void _Write(const std::vector<Entry>& entries) const;
    void _Change(std::vector<Entry> entries);

    const std::string _path;
    std::mutex _change;  ///< one at a time, however long the disk takes
    mutable std::mutex _mutex;
    std::vector<Entry> _entries;
};

/// @return "look" or "act"
std::string TextOf(Right right);
/// @return Right::None when the text is neither
Right RightOf(const std::string& text);

}  // namespace QxNHttp
