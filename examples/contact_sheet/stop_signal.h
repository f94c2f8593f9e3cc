#pragma once

namespace sheet {

/// From now on, the first SIGINT or SIGTERM is only remembered; a second one of its kind kills.
void watchForStopSignals();

/// The signal that came, or 0.
int stopSignal();

} // namespace sheet
