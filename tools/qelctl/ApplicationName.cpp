#include "ApplicationName.h"

#include <string>

namespace VtxQel
{

CLI::Validator ApplicationNameValidator()
{
    return CLI::Validator(
        [](std::string& name) -> std::string
        {
            const char* allowed = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
            if (!name.empty() && name.size() <= 64 && name.find_first_not_of(allowed) == std::string::npos)
            {
                return "";
            }
            return "\"" + name + "\" is not an application's name: 1 to 64 of A-Z a-z 0-9 . _ -";
        },
        "");
}

} // namespace VtxQel
