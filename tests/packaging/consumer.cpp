// A program outside the library's tree: it includes, links and runs what an installed package offers.

#include <TarnSocketIO/TarnSocketIO.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdio>

namespace {

class Listener : public TarnSocketIO::CAsyncIO {
public:
    Listener() : CAsyncIO(TarnSocketIO::CONNECTION_STREAM) {}

    bool IsOpen() const {
        sockaddr_in address{};
        socklen_t length = sizeof address;
        return getsockname(GetListenerSocket(), reinterpret_cast<sockaddr*>(&address), &length) == 0 &&
               address.sin_port != 0;
    }

private:
    void OnConnected(int) override {}
    void OnTerminated(int) override {}
    void OnReceivedData(int, char*, long) override {}
};

}  // namespace

int main() {
    CMutex mutex(CMutex::enNormal);
    const CScopedLocker<CMutex> lock(mutex);

    const IPv4::IPAddress address("192.168.1.20");
    SOCKETIO_ASSERT(address == IPv4::IPAddress(192, 168, 1, 20))(address);

    Listener listener;
    const bool opened = listener.Initialise(0, nullptr) && listener.IsOpen();
    listener.StopListener();
    std::printf("TarnSocketIO %s: a listener could%s be opened\n", TARN_SOCKETIO_VERSION, opened ? "" : " not");
    return opened ? 0 : 1;
}
