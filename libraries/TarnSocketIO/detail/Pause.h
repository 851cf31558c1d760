#pragma once

namespace TarnSocketIO::detail {

/// Sleeps for the library's step of 3 ms, whatever signals come. Changes errno.
void PauseOneStep();

}  // namespace TarnSocketIO::detail
