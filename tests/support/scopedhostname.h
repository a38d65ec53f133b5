// Sets this process's host name in Core for the lifetime of the object, so
// tests that depend on the host name see a known one rather than the
// machine's, and restores the previous name afterwards.
#pragma once

#include "core/core.h"

#include <string>

namespace UlmarCommsTest {

// Replaces Core's cached host name until destroyed.
class ScopedHostName {
public:
    explicit ScopedHostName(const std::string& name) : m_previous(UlmarComms::Core::instance()->getHostName())
    {
        UlmarComms::Core::instance()->setHostName(name);
    }

    ~ScopedHostName() { UlmarComms::Core::instance()->setHostName(m_previous); }

    ScopedHostName(const ScopedHostName&) = delete;
    ScopedHostName& operator=(const ScopedHostName&) = delete;

private:
    std::string m_previous;
};

} // namespace UlmarCommsTest
