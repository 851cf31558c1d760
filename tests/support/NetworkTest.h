#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/LogTest.h"
#include "tests/support/OutputCapture.h"
#include "tests/support/PrivateNetwork.h"

/// What tests on a network of their own have in common.
namespace TarnTest {

/// Skipped where no private network can be made.
class NetworkTest : public testing::Test {
protected:
    void SetUp() override {
        const std::string missing = PrivateNetwork::WhatIsMissing();
        if (!missing.empty()) {
            GTEST_SKIP() << "needs " << missing;
        }
    }
};

///     the test                               the peer
///     wire0  192.0.2.1/24     -----------    wire0  192.0.2.2/24
///     wire1  198.51.100.1/24  -----------    wire1  198.51.100.2/24     with two wires
///
/// Both sides route 239.192.0.0/14 over wire0.
class WiredHosts : public PrivateNetwork {
public:
    explicit WiredHosts(int wires = 1) {
        AddInterface("wire0", "192.0.2.1/24", "192.0.2.2/24");
        if (wires > 1) {
            AddInterface("wire1", "198.51.100.1/24", "198.51.100.2/24");
        }
        AddRoute("239.192.0.0/14", "wire0");
        InPeer([this] { AddRoute("239.192.0.0/14", "wire0"); });
    }

    /// Runs a function in the peer. @return what it returns.
    template <class Function>
    auto FromPeer(const Function& function) const {
        decltype(function()) result{};
        InPeer([&] { result = function(); });
        return result;
    }
};

/// The lines of a text that are not empty, without the stamps of the debug log's.
inline std::vector<std::string> LinesOf(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) {
        if (!line.empty()) {
            lines.push_back(LooksLikeAStamp(line) ? Message(line) : line);
        }
    }
    return lines;
}

/// Everything that `act` writes to standard output, line by line: the lines of the debug log among it, with those that
/// tell an outcome. Not while threads of an endpoint run.
inline std::vector<std::string> LinesOf(const std::function<void()>& act) {
    Restart(1);
    const std::string output = OutputOf(act);
    Log::SetLoggingDestination(0);
    return LinesOf(output);
}

}  // namespace TarnTest
