#pragma once

#include <string>

/// A text in a temporary file, for an editor.
class EditedText {
public:
    /// @param suffix  of the file, so that the editor knows the language
    EditedText(const std::string& text, const std::string& suffix);
    EditedText(const EditedText&) = delete;
    EditedText& operator=(const EditedText&) = delete;
    /// Deletes the file unless it is kept.
    ~EditedText();

    /// Lets the user edit the text. An editor that fails is a CtlError.
    /// @return the text as it is then
    std::string Edit() const;

    /// Lets the file stay.
    /// @return its path
    const std::string& Keep();

private:
    std::string _path;
    bool _isKept = false;
};
