// Application init configurations, as they come from the management plane, through the handler's Callback: with the
// handler alone among fakes, and with the agent's handler, its topology, journal and subscriptions on a fake broker.
// An input is a series of messages; a broker request may fail on the way.

#include "AgentAmongFakes.h"
#include "Bytes.h"
#include "HandlerAmongFakes.h"
#include "Require.h"

#include <google/protobuf/stubs/logging.h>

namespace VtxQel::Fuzz
{
namespace
{

constexpr int MOST_MESSAGES = 12;

template <typename Scene>
void Play(Scene& scene, Bytes& input)
{
    for (int count = 0; count < MOST_MESSAGES && !input.AtEnd(); ++count)
    {
        const std::uint8_t how = input.Octet();
        const auto size = static_cast<std::size_t>(input.Octet()) << 8U | input.Octet();
        scene.Configure((how & 1U) != 0 ? "two" : "one", how >> 1U, std::string(input.Take(size)));
    }
    scene.Finish();
}

} // namespace
} // namespace VtxQel::Fuzz

// NOLINTNEXTLINE(readability-identifier-naming): the fuzzer's name
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace VtxQel::Fuzz;
    // The library would write a line for every text that is none.
    google::protobuf::SetLogHandler(nullptr);
    Bytes input(data, size);
    if ((input.Octet() & 1U) != 0)
    {
        HandlerAmongFakes handler;
        Play(handler, input);
    }
    else
    {
        AgentAmongFakes agent;
        Play(agent, input);
    }
    return 0;
}
