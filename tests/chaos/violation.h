#pragma once

#include <string>

namespace chaos {

/// What the host is doing, for whoever has to find out why it failed.
void setStory(const std::string& story);

/// Says that the run is alive. Without a call for a long time it counts as hanging.
void tellProgress();

/// Describes the state of a round that may be hanging; called on the watching thread.
using StateText = std::string (*)();

/// Watches for progress from a thread of its own, and ends the program when there is none.
void startWatchdog(StateText state);

/// Prints what is wrong and the story, and ends the program without another word. The workers go
/// with it.
[[noreturn]] void reportViolation(const std::string& what);

} // namespace chaos
