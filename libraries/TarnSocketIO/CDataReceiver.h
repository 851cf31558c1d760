#pragma once

#include <TarnSocketIO/CSocketThread.h>

namespace TarnSocketIO {

class CSocket;

/// The worker thread that receives for an endpoint: it runs one receive pass of it about every 3 ms. An endpoint makes
/// its own receivers; there is no need for an application to.
class CDataReceiver : public CSocketThread {
public:
    /// @param socket  whose passes it runs; it must live until StopReceiver has returned true. With null there is
    ///                nothing to do.
    explicit CDataReceiver(CSocket* socket);
    ~CDataReceiver() override;

    /// Starts the thread, with no pause but the wait's step of 3 ms. @return as Start.
    bool RunReceiver();

    /// Stop().
    bool StopReceiver();

protected:
    /// CSocket::DataReceiver.
    void Do() override;
    void ThreadStarted() override;

private:
    CSocket* const m_pSocket;
};

}  // namespace TarnSocketIO
