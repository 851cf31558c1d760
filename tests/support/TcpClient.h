#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace TarnTest {

/// A client that is connected to a port of this machine. Operations wait; they throw std::system_error when they fail
/// or when nothing has happened for half a minute, which only happens when the test has failed.
class TcpClient {
public:
    explicit TcpClient(std::uint16_t port);
    ~TcpClient();
    TcpClient(TcpClient&& other) noexcept;
    TcpClient& operator=(TcpClient&&) = delete;
    TcpClient(const TcpClient&) = delete;
    TcpClient& operator=(const TcpClient&) = delete;

    void Send(const std::string& data);

    /// One byte of urgent data.
    void SendUrgent(char byte);

    /// @return `length` bytes; fewer if the connection ended before.
    std::string Receive(std::size_t length);

    /// @return everything up to the end of the connection.
    std::string ReceiveAll();

    /// Says that nothing more is coming; the server can still send.
    void EndSending();

    void Close();

    /// Breaks the connection off, so that the server sees an error and no orderly end.
    void Reset();

    int Socket() const { return m_socket; }

private:
    int m_socket;
};

}  // namespace TarnTest
