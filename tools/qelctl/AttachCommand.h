#pragma once

#include "Attachment.h"
#include "Command.h"

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

namespace VtxQel
{

/**
 * `qelctl attach APP`: is an application: prints the deliveries that come over the application's socket and answers
 * each with one verdict. Ends in order on SIGINT and SIGTERM.
 */
class AttachCommand : public Command
{
  public:
    CLI::App* Register(CLI::App& root) override;
    void Run(const GlobalOptions& options) override;

  private:
    std::string Socket() const;
    void CheckSocket(const std::string& socket) const;
    /** One stream from start to end. @return why it ended; empty when this side has ended it. */
    std::string AttachOnce(const std::string& socket, DeliveryPrinter& printer, bool& welcomed);
    void Follow(Attachment& attachment) const;
    std::string Explain(const Attachment& attachment, const std::string& socket) const;
    void RequestStop();
    bool IsOver();
    void Pause(std::chrono::milliseconds duration);

    std::string m_application;
    std::string m_runtimeDirectory = "/run/qel";
    std::string m_socket;
    AttachSettings m_settings;
    std::uint64_t m_count = 0;
    std::uint64_t m_received = 0;
    bool m_reconnect = false;

    std::mutex m_mutex;
    std::condition_variable m_changed;
    // Guarded by m_mutex: the thread that waits for signals uses them.
    bool m_stop = false;
    Attachment* m_current = nullptr;
};

} // namespace VtxQel
