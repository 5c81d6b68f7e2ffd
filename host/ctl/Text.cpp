#include "Text.h"

#include <boost/locale/utf.hpp>

#include <clocale>
#include <cwchar>

namespace {

namespace utf = boost::locale::utf;

constexpr const char* Replacement = "\xEF\xBF\xBD";
constexpr char32_t NoCharacter = 0xFFFFFFFF;

/// One character of a text and the bytes that it is made of.
struct Character {
    char32_t code;  ///< NoCharacter for bytes that are not UTF-8
    std::string_view bytes;
};

/// Takes the first character off a text that is not empty.
Character TakeCharacter(std::string_view& text) {
    const char* position = text.data();
    const utf::code_point code = utf::utf_traits<char>::decode(position, text.data() + text.size());
    const bool isValid = code != utf::illegal && code != utf::incomplete;
    // Of what is not UTF-8 only one byte is taken, so that a character right behind it is not lost.
    const size_t length = isValid ? static_cast<size_t>(position - text.data()) : 1;
    const Character character{isValid ? static_cast<char32_t>(code) : NoCharacter, text.substr(0, length)};
    text.remove_prefix(length);
    return character;
}

bool IsControl(char32_t code) { return code < 0x20 || (code >= 0x7F && code < 0xA0); }

/// Whether a character changes the order in which others are shown, or begins a new line.
bool IsLayout(char32_t code) {
    return (code >= 0x200E && code <= 0x200F) || (code >= 0x2028 && code <= 0x202E) ||
           (code >= 0x2066 && code <= 0x2069) || code == 0x061C;
}

int WidthOf(char32_t code) {
    // The texts are UTF-8, whatever the user's language is. Without that locale everything is taken to be one wide.
    static const bool hasLocale = setlocale(LC_CTYPE, "C.UTF-8") != nullptr;
    const int width = hasLocale ? wcwidth(static_cast<wchar_t>(code)) : 1;
    return width >= 0 ? width : 1;
}

bool IsFinal(char32_t code) { return code >= 0x40 && code <= 0x7E; }

/// Takes what follows the introducer of a control sequence.
/// @return the sequence, when it is a colour; otherwise nothing
std::string TakeControlSequence(std::string_view& text) {
    size_t length = 0;
    bool isColour = true;
    while (length < text.size() && text[length] >= 0x20 && text[length] <= 0x3F) {
        isColour = isColour && ((text[length] >= '0' && text[length] <= '9') || text[length] == ';' ||
                                text[length] == ':');
        ++length;
    }
    std::string sequence;
    if (length < text.size() && IsFinal(static_cast<unsigned char>(text[length]))) {
        if (isColour && text[length] == 'm') {
            sequence = "\x1b[" + std::string(text.substr(0, length + 1));
        }
        ++length;
    }
    text.remove_prefix(length);
    return sequence;
}

/// Drops a string that a terminal would take as a command, up to its end mark.
void DropString(std::string_view& text) {
    while (!text.empty()) {
        const Character character = TakeCharacter(text);
        if (character.code == 0x07 || character.code == 0x9C) {
            return;
        }
        if (character.code == 0x1B) {
            if (!text.empty() && text[0] == '\\') {
                text.remove_prefix(1);
            }
            return;
        }
    }
}

bool IntroducesString(char32_t code) {
    return code == 'P' || code == 'X' || code == ']' || code == '^' || code == '_';
}

/// Takes what follows an escape character.
/// @return the sequence, when it is a colour; otherwise nothing
std::string TakeEscapeSequence(std::string_view& text) {
    while (!text.empty() && text[0] >= 0x20 && text[0] <= 0x2F) {
        text.remove_prefix(1);
    }
    if (text.empty()) {
        return {};
    }
    const char introducer = text[0];
    if (introducer < 0x20 || introducer == 0x7F) {
        return {};
    }
    text.remove_prefix(1);
    if (introducer == '[') {
        return TakeControlSequence(text);
    }
    if (IntroducesString(static_cast<unsigned char>(introducer))) {
        DropString(text);
    }
    return {};
}

}  // namespace

size_t DisplayWidth(std::string_view text) {
    size_t width = 0;
    while (!text.empty()) {
        const Character character = TakeCharacter(text);
        width += character.code == NoCharacter ? 1 : static_cast<size_t>(WidthOf(character.code));
    }
    return width;
}

std::string Printable(std::string_view text, Lines lines) {
    std::string result;
    while (!text.empty()) {
        const Character character = TakeCharacter(text);
        const bool isKept = lines == Lines::AreKept && (character.code == '\n' || character.code == '\t');
        if (!isKept &&
            (character.code == NoCharacter || IsControl(character.code) || IsLayout(character.code))) {
            result += Replacement;
        } else {
            result += character.bytes;
        }
    }
    return result;
}

std::string WithColoursOnly(std::string_view line) {
    std::string result;
    bool hasColours = false;
    while (!line.empty()) {
        const Character character = TakeCharacter(line);
        if (character.code == 0x1B || character.code == 0x9B) {
            const std::string colour =
                character.code == 0x1B ? TakeEscapeSequence(line) : TakeControlSequence(line);
            hasColours = hasColours || !colour.empty();
            result += colour;
        } else if (character.code >= 0x80 && character.code < 0xA0 &&
                   IntroducesString(character.code - 0x40)) {
            DropString(line);
        } else if (character.code == NoCharacter || IsLayout(character.code)) {
            result += Replacement;
        } else if (character.code == '\t' || !IsControl(character.code)) {
            result += character.bytes;
        }
    }
    return hasColours ? result + "\x1b[0m" : result;
}
