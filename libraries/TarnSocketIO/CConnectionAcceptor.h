#pragma once

#include <TarnSocketIO/CSocketThread.h>

namespace TarnSocketIO {

/// The worker thread that accepts connections: it calls ConnectionAcceptor() about every 3 ms. CSocket is its one
/// subclass, so that a stream server is its own acceptor thread.
class CConnectionAcceptor : public CSocketThread {
public:
    ~CConnectionAcceptor() override;

    /// Starts the thread, with a pause of 50 microseconds, which the wait's step makes 3 ms. @return as Start.
    bool RunAcceptor();

    /// Stop().
    bool StopAcceptor();

protected:
    /// Calls ConnectionAcceptor().
    void Do() override;

public:
    /// One unit of the acceptor's work, on its thread.
    virtual void ConnectionAcceptor() = 0;
};

}  // namespace TarnSocketIO
