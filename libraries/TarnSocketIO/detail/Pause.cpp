#include <TarnSocketIO/detail/Pause.h>

#include <cerrno>
#include <ctime>

namespace TarnSocketIO::detail {

void PauseOneStep() {
    timespec rest{0, STEP_MS * 1'000'000};
    while (::nanosleep(&rest, &rest) == -1 && errno == EINTR) {
    }
}

}  // namespace TarnSocketIO::detail
