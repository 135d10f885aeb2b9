#include "admin/RequestTarget.h"

#include "admin/AdminException.h"

#include <memory>
#include <uriparser/Uri.h>

namespace VtxQel
{

namespace
{

void ReadPath(const UriUriA& uri, RequestTarget& target)
{
    for (const UriPathSegmentA* segment = uri.pathHead; segment != nullptr; segment = segment->next)
    {
        target.path += '/' + std::string(segment->text.first, segment->text.afterLast);
    }
    if (target.path.empty())
    {
        target.path = "/";
    }
}

void ReadQuery(const UriUriA& uri, RequestTarget& target)
{
    UriQueryListA* items = nullptr;
    int count = 0;
    if (uri.query.first == nullptr ||
        uriDissectQueryMallocA(&items, &count, uri.query.first, uri.query.afterLast) != URI_SUCCESS)
    {
        return;
    }
    const std::unique_ptr<UriQueryListA, void (*)(UriQueryListA*)> owner(items, uriFreeQueryListA);
    for (const UriQueryListA* item = items; item != nullptr; item = item->next)
    {
        target.query[item->key] = item->value == nullptr ? "" : item->value;
    }
}

} // namespace

RequestTarget RequestTarget::Parse(const std::string& text)
{
    UriUriA uri;
    const char* errorAt = nullptr;
    // The host keeps a path that begins with two slashes from being taken for one.
    const std::string whole = "http://agent" + text;
    if (!text.starts_with('/') || uriParseSingleUriA(&uri, whole.c_str(), &errorAt) != URI_SUCCESS)
    {
        throw AdminException("the request's target is not a path with an optional query");
    }
    const std::unique_ptr<UriUriA, void (*)(UriUriA*)> owner(&uri, uriFreeUriMembersA);
    RequestTarget target;
    ReadPath(uri, target);
    ReadQuery(uri, target);
    return target;
}

} // namespace VtxQel
