#include "qel/StopOnSignals.h"

#include <cstdlib>
#include <utility>

#include <pthread.h>

namespace qel
{

StopOnSignals::StopOnSignals(std::function<void()> onStop) : m_onStop(std::move(onStop))
{
    sigemptyset(&m_signals);
    sigaddset(&m_signals, SIGINT);
    sigaddset(&m_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &m_signals, nullptr);
    m_thread = std::thread(&StopOnSignals::Wait, this);
}

StopOnSignals::~StopOnSignals()
{
    m_over = true;
    pthread_kill(m_thread.native_handle(), SIGINT);
    m_thread.join();
}

void StopOnSignals::Wait()
{
    for (bool first = true;; first = false)
    {
        int received = 0;
        sigwait(&m_signals, &received);
        if (m_over)
        {
            return;
        }
        if (!first)
        {
            std::_Exit(128 + received);
        }
        m_onStop();
    }
}

} // namespace qel
