#include "daemon/MessageFollower.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>
#include <array>
#include <filesystem>

namespace asio = boost::asio;
using QxNSupport::UniqueFd;

namespace {

constexpr size_t MostMessages = 1000;
constexpr size_t LongestLine = 64 << 10;
constexpr off_t FirstRead = 1 << 20;  ///< of a file that is there already, its end

bool IsMessage(const QxNJson::json& value) {
    const auto isText = [&](const char* name) { return value.contains(name) && value[name].is_string(); };
    const auto isNumber = [&](const char* name) {
        return value.contains(name) && value[name].is_number_integer();
    };
    return isText("time") && isNumber("severity") && isNumber("number") && isText("source") && isText("text");
}

bool IsSameFile(int file, const std::string& path) {
    struct stat open {};
    struct stat named {};
    return fstat(file, &open) == 0 && stat(path.c_str(), &named) == 0 && open.st_dev == named.st_dev &&
           open.st_ino == named.st_ino;
}

}  // namespace

MessageFollower::MessageFollower(asio::io_context& io, std::string path)
    : _path(std::move(path)), _watch(io), _more(io.get_executor()) {}

MessageFollower::~MessageFollower() = default;

bool MessageFollower::Watch() {
    const std::filesystem::path directory = std::filesystem::path(_path).parent_path();
    std::error_code ignored;
    std::filesystem::create_directories(directory, ignored);
    UniqueFd watch(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (!watch.IsOpen() ||
        inotify_add_watch(watch.Get(), directory.c_str(), IN_MODIFY | IN_CREATE | IN_MOVED_TO) < 0) {
        return false;
    }
    _watch.assign(watch.Release());
    return true;
}

QxNHttp::Task<void> MessageFollower::Run() {
    if (!Watch()) {
        std::fprintf(stderr, "qxcontainerd: messages in %s cannot be followed\n", _path.c_str());
        co_return;
    }
    Read();
    std::array<char, 4096> events;
    boost::system::error_code error;
    while (!error) {
        co_await _watch.async_read_some(asio::buffer(events),
                                        asio::redirect_error(asio::use_awaitable, error));
        Read();
    }
}

void MessageFollower::Read() {
    const std::uint64_t before = _lastNumber;
    for (;;) {
        const bool isNew = !_file.IsOpen();
        if (isNew) {
            _file = UniqueFd(open(_path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
            struct stat status {};
            if (!_file.IsOpen() || fstat(_file.Get(), &status) != 0 || !S_ISREG(status.st_mode)) {
                _file.Reset();
                break;
            }
            _rest.clear();
            if (!_isFollowing && status.st_size > FirstRead) {
                lseek(_file.Get(), -FirstRead, SEEK_END);
            }
            _isFollowing = true;
        }
        // Before it is read: what was written until it was renamed belongs to it.
        const bool isLast = IsSameFile(_file.Get(), _path);
        std::array<char, 16384> piece;
        ssize_t count = 0;
        while ((count = read(_file.Get(), piece.data(), piece.size())) > 0) {
            _rest.append(piece.data(), static_cast<size_t>(count));
            size_t begin = 0;
            for (size_t end = 0; (end = _rest.find('\n', begin)) != std::string::npos; begin = end + 1) {
                Take(_rest.substr(begin, end - begin));
            }
            _rest.erase(0, begin);
            if (_rest.size() > LongestLine) {
                _rest.clear();
            }
        }
        if (isLast) {
            break;
        }
        _file.Reset();  // renamed because it was full: the new one is next
    }
    if (_lastNumber != before) {
        _more.Notify();
    }
}

void MessageFollower::Take(const std::string& line) {
    QxNJson::json content = QxNJson::json::parse(line);
    if (!IsMessage(content)) {
        return;
    }
    _messages.push_back({++_lastNumber, std::move(content)});
    if (_messages.size() > MostMessages) {
        _messages.pop_front();
    }
}
