// A recording stand-in for the system router, shared by the messaging and
// network tests.
#pragma once

#include "messaging/messaging.h"

#include <algorithm>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace UlmarCommsTest {

// Stands in for the system router: records registrations, commands and the
// messages it is given; it can be told to refuse messages.
class RecordingSystemRouter : public UlmarComms::ISystemRouter {
public:
    struct Command {
        UlmarComms::IMessageRouter* from;
        unsigned char code;
        std::string text;
    };

    bool start() override { return true; }
    void finish() override {}
    bool add(UlmarComms::IMessageRouter* router) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_routers.push_back(router);
        return true;
    }
    bool remove(UlmarComms::IMessageRouter* router) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::erase(m_routers, router);
        return true;
    }
    bool post(UlmarComms::MessageRef message) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_accept)
            return false;
        m_posted.push_back(std::move(message));
        return true;
    }
    void handleCommand(UlmarComms::IMessageRouter* from, unsigned char code, const char* text) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_commands.push_back(Command{from, code, text != nullptr ? text : "<null>"});
    }

    void setAccept(bool accept)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_accept = accept;
    }
    std::vector<UlmarComms::IMessageRouter*> routers() { return locked(m_routers); }
    std::vector<Command> commands() { return locked(m_commands); }
    // Commands as "code text" lines, for compact comparisons.
    std::vector<std::string> commandLines()
    {
        std::vector<std::string> lines;
        for (const Command& command : commands())
            lines.push_back(std::to_string(command.code) + " " + command.text);
        return lines;
    }
    void clearCommands()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_commands.clear();
    }
    std::vector<std::vector<std::pair<std::string, std::string>>> posted()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<std::vector<std::pair<std::string, std::string>>> copies;
        for (const UlmarComms::MessageRef& message : m_posted) {
            copies.emplace_back();
            for (int i = 0; i < message->numberOfArguments(); ++i)
                copies.back().emplace_back(message->key(i), message->value(i));
        }
        return copies;
    }
    size_t postedCount()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_posted.size();
    }
    size_t count() { return postedCount(); }
    // The value of key in posted message i ("" when absent).
    std::string value(size_t i, const char* key)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const char* text = i < m_posted.size() ? m_posted[i]->value(key) : nullptr;
        return text != nullptr ? text : "";
    }

private:
    template <typename T> T locked(const T& field)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return field;
    }

    std::mutex m_mutex;
    bool m_accept = true;
    std::vector<UlmarComms::IMessageRouter*> m_routers;
    std::vector<Command> m_commands;
    std::vector<UlmarComms::MessageRef> m_posted;
};

} // namespace UlmarCommsTest
