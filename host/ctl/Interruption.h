#pragma once

/// What Ctrl-C does: it ends the tool at once, with an exit code and without a half-drawn line on the terminal.
namespace Interruption {

/// From now on the tool ends with this code. Who started the tool may have it ignore Ctrl-C; that stays so.
void EndsWith(int exitCode);

/// Tells whether there is a line to wipe out first, on the standard error output.
void SetLineShown(bool isShown);

/// While this lives, Ctrl-C is for a program that the tool runs.
class Ignored {
public:
    Ignored();
    Ignored(const Ignored&) = delete;
    Ignored& operator=(const Ignored&) = delete;
    ~Ignored();

private:
    void (*_before)(int);
};

}  // namespace Interruption
