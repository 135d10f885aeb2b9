// Broker URLs: a malformed one is told without its secrets, a sound one has sound parts and a printable form.

#include "Bytes.h"
#include "Require.h"
#include "broker/BrokerUrl.h"
#include "common/QelException.h"

#include <optional>

namespace VtxQel::Fuzz
{
namespace
{

/** Why the text is no URL, if so. */
std::optional<std::string> ErrorOf(const std::string& text)
{
    try
    {
        const BrokerUrl url = BrokerUrl::Parse(text);
        Require(!url.vhost.empty(), "there is a virtual host");
        Require(url.Printable().starts_with(url.tls ? "amqps://" : "amqp://"), "the printable form tells the scheme");
        const BrokerUrl other{url.host, url.port, url.vhost, "", "", false, url.tls};
        Require(other.Printable() == url.Printable(), "the printable form holds neither user nor password");
        return {};
    }
    catch (const RmqConnectionException& error)
    {
        return error.what();
    }
}

/** The text with other secrets: what stands between the scheme and the last '@'. */
std::string WithOtherSecrets(const std::string& text)
{
    const std::size_t at = text.rfind('@');
    const std::size_t scheme = text.find("://");
    return at == std::string::npos || scheme == std::string::npos || scheme + 3 > at
               ? text
               : text.substr(0, scheme + 3) + "someone:else" + text.substr(at);
}

} // namespace
} // namespace VtxQel::Fuzz

// NOLINTNEXTLINE(readability-identifier-naming): the fuzzer's name
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace VtxQel::Fuzz;
    const std::string text = Bytes(data, size).Rest();
    const std::optional<std::string> error = ErrorOf(text);
    if (error)
    {
        Require(error->starts_with("malformed broker URL: "), "the error says what is wrong");
        Require(IsOneLine(*error), "the error is one line");
        // Where the rest is at fault, nothing of the secrets is told.
        const std::optional<std::string> other = ErrorOf(WithOtherSecrets(text));
        Require(!other || *other == *error, "the error does not show the secrets");
    }
    return 0;
}
