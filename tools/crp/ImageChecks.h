#pragma once

#include "BoardView.h"

/// Looks into a plugin's image for what the board would only notice when it mounts and initialises it, and
/// adds it to the finding's problems.
/// @param notes  receives what could not be checked
void CheckImage(BoardView::Finding& finding, std::vector<std::string>& notes);
