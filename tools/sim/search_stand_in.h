#pragma once

namespace sim {

/// Folder with the stand-in for `ls`, beside the preloaded library; `fiscora sim` puts it first on PATH.
constexpr char STAND_IN_FOLDER[] = "sim-path";

/// Whether this program was started as that stand-in.
bool isSearchStandIn();

/// In place of `ls`. The library finds the device by a shell command, which inherits PATH even if nothing
/// else of the simulation reaches the program (32-bit, statically linked, another LD_PRELOAD). The search's
/// own `ls` lists nothing, and says so on standard error; any other becomes the real `ls`. Returns the exit
/// status.
int standInForSearch(char** arguments);

}  // namespace sim
