#pragma once

#include "common/QelException.h"

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <typeinfo>

namespace VtxQel
{

/** A strong reference to a collaborator for one operation. @throws QelScopeException naming the class when it is gone.
 */
template <class T>
boost::shared_ptr<T> LockOrThrow(const boost::weak_ptr<T>& reference)
{
    boost::shared_ptr<T> locked = reference.lock();
    if (!locked)
    {
        throw QelScopeException(typeid(T).name());
    }
    return locked;
}

} // namespace VtxQel
