#pragma once

#include "qtsovacore_export.h"

namespace QSova {

// The state code of QSova::Vad for an engine result: -1, 0, 1, 2 give 0, 1, 2, 3; anything
// else throws std::logic_error("Invalid Vad State").
QTSOVACORE_EXPORT int vadStateFromEngine(int result);

} // namespace QSova
