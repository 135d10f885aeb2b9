#pragma once

#include "AdminClient.h"
#include "AnswerPrompt.h"
#include "AnswerRules.h"
#include "Command.h"
#include "qel/Client.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace VtxQel
{

class DeliveryPrinter;

/**
 * `qelctl attach APP`: is an application: prints the deliveries that come over the application's socket and every
 * change of state, and answers each delivery by a rule, as the developer says, or with one verdict for all. Ends in
 * order on SIGINT and SIGTERM.
 */
class AttachCommand : public Command
{
  public:
    CLI::App* Register(CLI::App& root) override;
    void Run(const GlobalOptions& options) override;

  private:
    std::string Socket() const;
    qel::Options ClientOptions(const std::string& socket, DeliveryPrinter& printer);
    qel::Verdict Handle(const AnswerRules& rules, const qel::Message& message, DeliveryPrinter& printer);
    void TakeWelcome();
    void TakeDetachment(const qel::Detachment& detachment, const std::string& socket, DeliveryPrinter& printer);
    std::string Explain(const qel::Detachment& detachment, const std::string& socket) const;
    void RequestStop(qel::Client& client);

    std::string m_application;
    std::string m_runtimeDirectory = DefaultRuntimeDirectory();
    std::string m_socket;
    std::string m_instance;
    std::optional<std::uint32_t> m_window;
    Answer_e m_verdict = Answer_e::done;
    AnswerDefaults m_defaults;
    std::vector<std::string> m_rules;
    std::uint64_t m_count = 0;
    bool m_reconnect = false;

    std::uint64_t m_shown = 0;
    std::uint64_t m_answered = 0;
    std::unique_ptr<AnswerPrompt> m_prompt;

    std::mutex m_mutex;
    // Guarded by m_mutex: the thread that waits for signals and the library's use them.
    bool m_stopping = false;
    std::string m_trouble;
};

} // namespace VtxQel
