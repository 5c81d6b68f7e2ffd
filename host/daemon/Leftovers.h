#pragma once

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

/// What a daemon that was killed has left on the board. One that stops puts everything back itself, and a restart of the
/// board leaves nothing but uploads that were never finished.
///
/// A mark in /run tells that a daemon has taken the board and has not given it back.
class Leftovers {
public:
    /// Ends Podman services that nobody watches any more, puts the user storage disk back into write-back mode and frees
    /// loop devices that hold plugin files without a mount, where the mark is; removes unfinished uploads that are older
    /// than this object. Blocks until all that is done.
    /// @param grace  how long Podman services may take to end before they are killed
    /// @return a sentence for everything that was found
    std::vector<std::string> Clear(std::chrono::milliseconds grace);

    /// The board is taken, with Podman on that TCP port too; 0 for none.
    static void Mark(unsigned tcpPort);
    /// The board is as if nobody had taken it.
    static void Unmark();

private:
    const std::filesystem::file_time_type _begun = std::filesystem::file_time_type::clock::now();
};
