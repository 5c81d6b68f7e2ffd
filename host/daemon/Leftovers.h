#pragma once

#include <chrono>
#include <string>
#include <vector>

/// What a host that was killed has left on the board. A host that stops puts everything back itself, and a restart of the
/// board leaves nothing.
class Leftovers {
public:
    /// Looks whether the last host of this boot ended without a stop, and removes uploads that a cut in power or a kill
    /// has left half done. To be made before the service's one object, which begins the settings file anew, and before
    /// there can be new uploads.
    Leftovers();

    /// Ends Podman services that nobody watches any more, puts the user storage disk back into write-back mode and frees
    /// loop devices that hold plugin files without a mount. Blocks until they have ended. Does nothing after a host
    /// that stopped, and when it is called again.
    /// @param grace  how long Podman services may take to end before they are killed
    /// @return a sentence for everything that was found, uploads included
    std::vector<std::string> Clear(std::chrono::milliseconds grace);

private:
    bool _areExpected;
    std::vector<std::string> _found;
};
