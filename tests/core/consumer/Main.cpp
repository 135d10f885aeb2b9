#include "appinit/AppInitConfigMsg.pb.h"
#include "common/SFormat.h"
#include "handler/QelMsgHandler.h"
#include "logging/Logger.h"

#include <boost/make_shared.hpp>

#include <iostream>

// Parameters are unused on purpose: it is this project's own business whether that is worth a warning.
class Dispatcher : public VtxQel::AppDispatcher
{
  public:
    bool Dispatch(boost::shared_ptr<VtxQel::RmqMessage> msg) override
    {
        int unused;
        return true;
    }
};

int main()
{
    vtx::Logger::logLevel = 2;
    vtx::SetLogSink([](const vtx::LogLine& line) { std::cout << line.text << '\n'; });
    auto dispatcher = boost::make_shared<Dispatcher>();
    VtxQel::QelMsgHandler handler({}, {}, dispatcher, {}, {}, {});
    brelix::vtx::messaging::appinit::AppInitConfigMsg config;
    config.add_topic_info()->set_topic("topic");
    std::cout << VtxQel::SFormat("%d topic", config.topic_info_size()) << '\n';
    return handler.Callback(nullptr) ? 1 : 0;
}
