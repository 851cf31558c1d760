#pragma once

namespace TarnSocketIO::detail {

constexpr long STEP_MS = 3;

/// Sleeps for the library's step of STEP_MS, whatever signals come. Changes errno.
void PauseOneStep();

}  // namespace TarnSocketIO::detail
