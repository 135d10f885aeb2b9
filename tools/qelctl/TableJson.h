#pragma once

#include "common/RmqTable.h"

#include <nlohmann/json.hpp>

#include <string>

namespace VtxQel
{

/** Text as it is, other bytes as {"base64": ...}. */
nlohmann::ordered_json TextOrBase64(const std::string& bytes);

/** Message headers as a JSON object; of a name that is there more than once the last value. */
nlohmann::ordered_json ToJson(const RmqTable& table);

} // namespace VtxQel
