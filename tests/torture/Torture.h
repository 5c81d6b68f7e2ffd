#pragma once

#include <functional>
#include <string>
#include <vector>

namespace Torture {

/// What an operation under test writes its result into, without allocating memory.
class Outcome {
public:
    Outcome(char* text, size_t size) : _text(text), _size(size) { _text[0] = '\0'; }

    __attribute__((format(printf, 2, 3))) void Add(const char* format, ...);
    const char* Text() const { return _text; }

private:
    char* _text;
    size_t _size;
};

/// A public operation of the library.
struct Operation {
    const char* name;
    /// Brings the process that runs the operation into a mount namespace of its own with everything that it
    /// needs.
    std::function<void()> furnish;
    /// Puts everything back that a run changes.
    std::function<void()> prepare;
    /// The calls of the library; what they return goes into the outcome. Runs with failing calls.
    std::function<void(Outcome&)> run;
    /// Adds what the run has left behind in the board; runs without failing calls.
    std::function<void(Outcome&)> inspect = [](Outcome&) {};
    /// Gives back what prepare() took for this run only.
    std::function<void()> release = [] {};
    /// Whether the operation's first call in a process is meant, with everything that is made only once. It is
    /// then run once more without failing calls, and may leave as much memory as when nothing fails.
    bool isCold = false;
};

const std::vector<Operation>& Operations();

}  // namespace Torture
