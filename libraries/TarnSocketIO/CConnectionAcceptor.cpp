#include <TarnSocketIO/CConnectionAcceptor.h>

namespace TarnSocketIO {

CConnectionAcceptor::~CConnectionAcceptor() = default;

bool CConnectionAcceptor::RunAcceptor() {
    SetIterationDelay(0, 50000);
    return Start(-1);
}

bool CConnectionAcceptor::StopAcceptor() {
    return Stop();
}

void CConnectionAcceptor::Do() {
    ConnectionAcceptor();
}

}  // namespace TarnSocketIO
