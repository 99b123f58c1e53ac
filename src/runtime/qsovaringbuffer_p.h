#pragma once

#include "qsovaringbuffer.h"

namespace QSova {

// Called by the self test after each write of the mirroring check (round 0, index = element
// written) and after each round's produce (round 1 to 10, index 0), before the values are
// checked. Lets tests damage the buffer on purpose.
using SelftestProbe = void (*)(RingBuffer<int>& buffer, int round, unsigned index);

// RingBuffer<int>::selftest with a probe; null probe is the plain self test.
QTSOVACORE_EXPORT bool ringBufferSelftest(bool verbose, SelftestProbe probe);

} // namespace QSova
