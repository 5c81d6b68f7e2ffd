#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace QxNLinuxPlatform {

/// Options of a configuration text, by section and name; both are compared exactly.
class IniText {
public:
    /// Parses a text of the form "[section]", "name = value", "; comment". A line that is none of these is
    /// left out; the rest counts. Of an option that occurs twice, the last value counts.
    static IniText parse(std::string_view text);

    std::optional<std::string> option(const std::string& section, const std::string& name) const;

    /// @return number of the first line that was left out; 0 when there is none
    int firstBadLine() const { return _firstBadLine; }

private:
    std::map<std::string, std::map<std::string, std::string>> _sections;
    int _firstBadLine = 0;
};

}  // namespace QxNLinuxPlatform
