#pragma once

#include <string>
#include <string_view>

enum class Style { Plain, Heading, Good, Warning, Bad, Faint };

/// Where results go.
class Console {
public:
    /// Looks at the standard output and at what the environment says of colours.
    Console();
    Console(bool isTerminal, bool hasColours) : _isTerminal(isTerminal), _hasColours(hasColours) {}

    bool IsTerminal() const { return _isTerminal; }
    /// @return the text in a style; as it is where there are no colours
    std::string Styled(std::string_view text, Style style) const;

    /// Writes to the standard output, at the latest with Flush(). When that fails, the tool ends: nobody reads any more.
    void Write(std::string_view text) const;
    /// Hands over what was written; for output that somebody watches.
    void Flush() const;

private:
    bool _isTerminal;
    bool _hasColours;
    mutable std::string _waiting;
};

/// Tells the user something beside the result, on the standard error output.
void Tell(std::string_view text);
