#include <TarnSocketIO/detail/Pause.h>

#include <cerrno>
#include <ctime>

namespace TarnSocketIO::detail {

void PauseOneStep() {
    timespec rest{0, 3'000'000};
    while (::nanosleep(&rest, &rest) == -1 && errno == EINTR) {
    }
}

}  // namespace TarnSocketIO::detail
