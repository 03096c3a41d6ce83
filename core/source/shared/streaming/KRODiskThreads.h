// The two disk threads of the process: one fills the rings of every file
// player, the other writes the buffers of every recorder. Each is a serial
// queue of high priority, first in first out, made on first use and never
// ended.
#pragma once

#include "KROSerialQueue.h"

namespace KRODiskThreads {

// With create false, none until some caller made it.
KROSerialQueue* playback(bool create = true);
KROSerialQueue* recording(bool create = true);

// Returns when every task posted to the thread so far has run; at once when
// it was never made.
void drain(KROSerialQueue* thread);

} // namespace KRODiskThreads
