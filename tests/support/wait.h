// Waiting with a deadline: tests poll a condition instead of sleeping a
// fixed time, so they are as fast as the code allows and fail (rather than
// hang) when the condition never comes.
#pragma once

#include <chrono>
#include <thread>

namespace UlmarCommsTest {

// Polls condition every millisecond until it holds (true) or timeout passes
// (false, after one last look).
template <typename Condition>
bool waitUntil(Condition condition, std::chrono::milliseconds timeout = std::chrono::seconds(10))
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return condition();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

} // namespace UlmarCommsTest
