// What it costs the handler to pass a message on: nanoseconds a message of Callback's default dispatch at log level 4,
// with a dispatcher that does nothing.
//
// "ByHand" does the same work in one inlined function: copy the type, lock the dispatcher, compare with three names,
// dispatch with a reference of its own. Expect Callback within a tenth of it: what is left is one more virtual call
// and the level tests of three lines that are off.

#include "common/MessageTypes.h"
#include "handler/QelMsgHandler.h"
#include "logging/Logger.h"

#include <benchmark/benchmark.h>
#include <boost/make_shared.hpp>
#include <boost/weak_ptr.hpp>

#include <cstddef>
#include <string>

namespace
{

using namespace VtxQel;

class BenchMessage : public RmqMessage
{
  public:
    BenchMessage() { m_properties->type = "com.brelix.vtx.telemetry.host.DiskUsageSample"; }

    boost::shared_ptr<RmqBody> GetBody() const override { return {}; }
    std::size_t GetBodyLength() const override { return 0; }
    const std::string& GetAppName() const override { return m_appName; }
    boost::shared_ptr<RmqProperties> GetProperties() const override { return m_properties; }
    std::string ToString() const override { return {}; }

  private:
    std::string m_appName = "telemetry";
    boost::shared_ptr<RmqProperties> m_properties = boost::make_shared<RmqProperties>();
};

class BenchDispatcher : public AppDispatcher
{
  public:
    bool Dispatch(boost::shared_ptr<RmqMessage> msg) override
    {
        benchmark::DoNotOptimize(msg.get());
        return true;
    }
};

// Not inlined into the loop, as a broker client could not inline Callback either.
[[gnu::noinline]] bool DispatchByHand(
    const boost::weak_ptr<AppDispatcher>& reference, boost::shared_ptr<RmqMessage> msg)
{
    const std::string type = msg->GetProperties()->type;
    const boost::shared_ptr<AppDispatcher> dispatcher = reference.lock();
    if (type == PING_REQUEST_TYPE || type == REASSIGN_HINT_TYPE || type == APP_INIT_CONFIG_TYPE)
    {
        return false;
    }
    return dispatcher->Dispatch(msg);
}

void CallbackDefaultDispatch(benchmark::State& state)
{
    vtx::Logger::logLevel = 4;
    const auto dispatcher = boost::make_shared<BenchDispatcher>();
    QelMsgHandler handler({}, {}, dispatcher, {}, {}, {});
    MsgHandler& asTheBrokerClientSeesIt = handler;
    benchmark::DoNotOptimize(&asTheBrokerClientSeesIt);
    const boost::shared_ptr<RmqMessage> message = boost::make_shared<BenchMessage>();
    for ([[maybe_unused]] auto iteration : state)
    {
        benchmark::DoNotOptimize(asTheBrokerClientSeesIt.Callback(message));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(CallbackDefaultDispatch);

void ByHand(benchmark::State& state)
{
    const auto dispatcher = boost::make_shared<BenchDispatcher>();
    const boost::weak_ptr<AppDispatcher> reference = dispatcher;
    const boost::shared_ptr<RmqMessage> message = boost::make_shared<BenchMessage>();
    for ([[maybe_unused]] auto iteration : state)
    {
        benchmark::DoNotOptimize(DispatchByHand(reference, message));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(ByHand);

} // namespace
