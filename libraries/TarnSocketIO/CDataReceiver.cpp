#include <TarnSocketIO/CDataReceiver.h>

namespace TarnSocketIO {

CDataReceiver::CDataReceiver(CSocket* socket) : m_pSocket(socket) {}

CDataReceiver::~CDataReceiver() = default;

bool CDataReceiver::RunReceiver() {
    SetIterationDelay(0, 0);
    return Start(-1);
}

bool CDataReceiver::StopReceiver() {
    return Stop();
}

void CDataReceiver::ThreadStarted() {}

}  // namespace TarnSocketIO
