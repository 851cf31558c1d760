#include <TarnSocketIO/detail/SocketUse.h>

#include <TarnSocketIO/detail/Descriptor.h>
#include <TarnSocketIO/detail/Pause.h>
#include <TarnSocketIO/detail/SocketCalls.h>

namespace TarnSocketIO::detail {

bool CloseUnused(int fd, const std::atomic<std::int32_t>& users) {
    if (fd <= 0) {
        return true;
    }
    constexpr int patience = 333;
    for (int step = 0; users > 0; ++step) {
        if (step == patience) {
            return false;
        }
        // Link-layer sockets cannot be shut down; those who wait on them look up by themselves.
        WakeReaders(fd);
        PauseOneStep();
    }
    CloseDescriptor(fd);
    return true;
}

}  // namespace TarnSocketIO::detail
