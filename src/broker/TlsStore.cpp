#include "broker/TlsStore.h"

#include "common/QelException.h"
#include "logging/Log.h"

#include <chrono>
#include <utility>

namespace VtxQel
{

namespace
{

/** How often it is looked whether a warning is due. */
constexpr std::chrono::hours WATCH_INTERVAL{1};
constexpr std::int64_t DAY = 86400;

std::int64_t Now()
{
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

} // namespace

TlsStore::TlsStore(boost::asio::io_context& io, TlsFiles files, LinkState& state)
    : m_files(std::move(files)), m_state(state), m_timer(io)
{
}

std::shared_ptr<const TlsMaterial> TlsStore::Read()
{
    try
    {
        m_material = ReadTlsMaterial(m_files);
        m_fault.clear();
    }
    catch (const RmqConnectionException& error)
    {
        if (!m_material)
        {
            throw;
        }
        if (std::exchange(m_fault, error.what()) != error.what())
        {
            QEL_LOG(vtx::LevelWarning, "the TLS files cannot be used, those read before stay in use: %s", error.what());
        }
    }
    m_state.Update(
        [this](LinkStatus& status)
        {
            status.certificates.client = m_material->clientNotAfter;
            status.certificates.authority = m_material->authorityNotAfter;
        });
    WarnOfExpiry();
    return m_material;
}

void TlsStore::Use(const TlsFiles& files)
{
    m_files = files;
    if (m_material)
    {
        Read();
    }
}

void TlsStore::OnBrokerCertificate(const std::string& url, std::int64_t notAfter)
{
    m_brokerUrl = url;
    m_brokerNotAfter = notAfter;
    m_state.Update([notAfter](LinkStatus& status) { status.certificates.broker = notAfter; });
    WarnOfExpiry();
}

void TlsStore::WarnOfExpiry()
{
    const TlsFiles& files = m_material->files;
    WarnOfExpiry("the client certificate " + files.certificateFile, m_material->clientNotAfter);
    WarnOfExpiry("a certificate in the CA file " + files.caFile, m_material->authorityNotAfter);
    WarnOfExpiry("the certificate of the broker " + m_brokerUrl, m_brokerNotAfter);
    if (!std::exchange(m_watching, true))
    {
        WarnLater();
    }
}

void TlsStore::WarnOfExpiry(const std::string& name, std::int64_t notAfter)
{
    const std::int64_t now = Now();
    if (!m_warnings.IsDue(name, notAfter, now))
    {
        return;
    }
    const std::string when = UtcText(notAfter);
    if (notAfter <= now)
    {
        QEL_LOG(vtx::LevelWarning, "%s expired on %s: renew it", name.c_str(), when.c_str());
        return;
    }
    QEL_LOG(
        vtx::LevelWarning, "%s expires in %lld days, on %s: renew it", name.c_str(),
        static_cast<long long>((notAfter - now) / DAY), when.c_str());
}

void TlsStore::WarnLater()
{
    m_timer.expires_after(WATCH_INTERVAL);
    m_timer.async_wait(
        [this](const boost::system::error_code& error)
        {
            if (!error)
            {
                m_watching = false;
                WarnOfExpiry();
            }
        });
}

} // namespace VtxQel
