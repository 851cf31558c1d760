#include "tests/support/PrivateNetwork.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "tests/support/Eventually.h"

namespace TarnTest {

namespace {

[[noreturn]] void ThrowError(const std::string& what) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

/// Runs a function on a thread of its own, to its end, and throws what it throws.
void OnAnotherThread(const std::function<void()>& function) {
    std::exception_ptr thrown;
    std::thread thread([&] {
        try {
            function();
        } catch (...) {
            thrown = std::current_exception();
        }
    });
    thread.join();
    if (thrown != nullptr) {
        std::rethrow_exception(thrown);
    }
}

void EnterNewNamespace() {
    if (unshare(CLONE_NEWNET) != 0) {
        ThrowError("unshare(CLONE_NEWNET)");
    }
}

/// @return whether the command ended well.
bool TryCommand(const std::string& command, std::string& output) {
    std::FILE* const pipe = popen(("{ " + command + "; } 2>&1").c_str(), "re");
    if (pipe == nullptr) {
        ThrowError(command);
    }
    std::array<char, 4096> part;
    std::size_t length;
    while ((length = std::fread(part.data(), 1, part.size(), pipe)) > 0) {
        output.append(part.data(), length);
    }
    return pclose(pipe) == 0;
}

std::string RunCommand(const std::string& command) {
    std::string output;
    if (!TryCommand(command, output)) {
        throw std::runtime_error(command + ": " + output);
    }
    return output;
}

void SetUp(const std::string& interface, const std::string& cidr) {
    if (!cidr.empty()) {
        RunCommand("ip address add " + cidr + " dev " + interface);
    }
    RunCommand("ip link set " + interface + " up");
}

// The kernel notices an end that came up a little later; what is sent until then is lost.
void AwaitCarrier(const std::string& interface) {
    const std::string command = "ip -oneline link show dev " + interface;
    if (!Eventually([&] { return RunCommand(command).find(" state UP ") != std::string::npos; })) {
        throw std::runtime_error(command + ": the wire is not ready");
    }
}

std::string InterfaceOf(const std::string& label) {
    return label.substr(0, label.find(':'));
}

/// The groups of an interface as the kernel writes them: the bytes of each in hexadecimal, in the kernel's byte order.
std::vector<std::string> ReadGroups(const std::string& interface) {
    // Of this thread: the file of the process tells what its first thread sees.
    std::ifstream file("/proc/thread-self/net/igmp");
    std::vector<std::string> groups;
    bool is_of_interface = false;
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        std::string first;
        words >> first;
        if (!line.empty() && line.front() == '\t') {
            if (is_of_interface) {
                groups.push_back(first);
            }
        } else {
            std::string name;
            words >> name;
            is_of_interface = name == interface;
        }
    }
    return groups;
}

std::string DottedQuad(const std::string& hexadecimal, bool reversed) {
    std::array<std::string, 4> bytes;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = std::to_string(std::stoul(hexadecimal.substr(2 * i, 2), nullptr, 16));
    }
    if (reversed) {
        std::reverse(bytes.begin(), bytes.end());
    }
    return bytes[0] + "." + bytes[1] + "." + bytes[2] + "." + bytes[3];
}

}  // namespace

/// A network namespace, kept alive by its descriptor.
class PrivateNetwork::Namespace {
public:
    /// The one that the calling thread is in.
    Namespace() : m_fd(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC)) {
        if (m_fd == -1) {
            ThrowError("/proc/thread-self/ns/net");
        }
    }
    ~Namespace() { close(m_fd); }
    Namespace(const Namespace&) = delete;
    Namespace& operator=(const Namespace&) = delete;

    void Enter() const {
        if (setns(m_fd, CLONE_NEWNET) != 0) {
            ThrowError("setns");
        }
    }

    /// Names it in a command.
    std::string Path() const { return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(m_fd); }

private:
    const int m_fd;
};

std::string PrivateNetwork::WhatIsMissing() {
    std::string output;
    if (!TryCommand("ip -Version", output)) {
        return "the ip command of iproute2";
    }
    try {
        OnAnotherThread(EnterNewNamespace);
    } catch (const std::runtime_error& error) {
        return std::string("the right to make a network namespace: ") + error.what();
    }
    return "";
}

PrivateNetwork::PrivateNetwork() : m_original(std::make_unique<Namespace>()) {
    OnAnotherThread([this] {
        EnterNewNamespace();
        RunCommand("ip link set lo up");
        m_peer = std::make_unique<Namespace>();
    });
    EnterNewNamespace();
    try {
        RunCommand("ip link set lo up");
    } catch (...) {
        m_original->Enter();
        throw;
    }
}

PrivateNetwork::~PrivateNetwork() {
    try {
        m_original->Enter();
    } catch (const std::exception& error) {
        // Whatever comes next would run in a network that it was not made for.
        std::fprintf(stderr, "cannot leave the private network: %s\n", error.what());
        std::abort();
    }
}

void PrivateNetwork::AddInterface(const std::string& name, const std::string& cidr, const std::string& peer_cidr) {
    Run("ip link add name " + name + " type veth peer name " + name + " netns " + m_peer->Path());
    SetUp(name, cidr);
    InPeer([&] { SetUp(name, peer_cidr); });
    AwaitCarrier(name);
    InPeer([&] { AwaitCarrier(name); });
}

void PrivateNetwork::AddAlias(const std::string& label, const std::string& cidr) {
    Run("ip address add " + cidr + " dev " + InterfaceOf(label) + " label " + label);
}

void PrivateNetwork::AddRoute(const std::string& destination, const std::string& interface) {
    Run("ip route add " + destination + " dev " + interface);
}

std::string PrivateNetwork::Run(const std::string& command) const {
    return RunCommand(command);
}

void PrivateNetwork::InPeer(const std::function<void()>& function) const {
    OnAnotherThread([&] {
        m_peer->Enter();
        function();
    });
}

std::vector<std::string> PrivateNetwork::AddressesOf(const std::string& name) const {
    const std::string interface = InterfaceOf(name);
    const std::string selection = interface == name ? "" : " label " + name;
    std::istringstream words(Run("ip -4 -oneline address show dev " + interface + selection));
    std::vector<std::string> addresses;
    for (std::string word; words >> word;) {
        if (word == "inet" && words >> word) {
            addresses.push_back(word.substr(0, word.find('/')));
        }
    }
    return addresses;
}

bool PrivateNetwork::IsUp(const std::string& name) const {
    return !Run("ip -oneline link show dev " + name + " up").empty();
}

std::vector<std::string> PrivateNetwork::GroupsOf(const std::string& name) const {
    const std::vector<std::string> written = ReadGroups(name);
    // All systems, 224.0.0.1, is on every interface that is up. Its look tells the byte order of the kernel, which
    // under emulation is not the program's.
    const auto has = [&](const char* group) {
        return std::find(written.begin(), written.end(), group) != written.end();
    };
    if (has("010000E0") == has("E0000001")) {
        throw std::runtime_error("/proc/net/igmp does not list 224.0.0.1 for " + name);
    }
    std::vector<std::string> groups;
    for (const std::string& group : written) {
        groups.push_back(DottedQuad(group, has("010000E0")));
    }
    return groups;
}

}  // namespace TarnTest
