#pragma once

#include <boost/smart_ptr/weak_ptr.hpp>

#include <utility>

namespace VtxQel
{

/** The front end that the agent is connected through. */
class FE
{
  public:
    virtual ~FE() = default;

    /** Asks for a move to another front end. @return whether the request was taken. May be called from any thread. */
    virtual bool Reassign(int code, int value) = 0;
};

/** Knows the current front end, which somebody else owns. Not changed after construction. */
class EndpointController
{
  public:
    explicit EndpointController(boost::weak_ptr<class FE> fe) : m_fe(std::move(fe)) {}
    virtual ~EndpointController() = default;

    /** A copy of the reference to the front end; nothing is locked. */
    virtual boost::weak_ptr<class FE> FE() { return m_fe; }

  protected:
    boost::weak_ptr<class FE> m_fe;
};

} // namespace VtxQel
