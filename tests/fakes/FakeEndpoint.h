#pragma once

#include "common/EndpointController.h"
#include "fakes/Answers.h"

#include <string>

namespace VtxQel::Fakes
{

/** Notes "fe.Reassign(code, value)". */
class FakeFE : public FE
{
  public:
    explicit FakeFE(Journal& journal) : answers(journal) {}

    bool Reassign(int code, int value) override
    {
        return answers.To("fe.Reassign(" + std::to_string(code) + ", " + std::to_string(value) + ")");
    }

    Answers answers;
};

/** Notes "controller.FE()" and answers as the real one. */
class FakeEndpointController : public EndpointController
{
  public:
    FakeEndpointController(Journal& journal, boost::weak_ptr<class FE> fe)
        : EndpointController(std::move(fe)), answers(journal)
    {
    }

    boost::weak_ptr<class FE> FE() override
    {
        answers.To("controller.FE()");
        return EndpointController::FE();
    }

    Answers answers;
};

} // namespace VtxQel::Fakes
