#pragma once

#include "appinit/AppInitConfigMsg.pb.h"

#include <stdexcept>
#include <string>

namespace VtxQel
{

/** A configuration file is wrong; what() holds a line for every mistake: file, line, column, field and what it must be.
 */
class ConfigurationError : public std::runtime_error
{
  public:
    using std::runtime_error::runtime_error;
};

/**
 * Reads an application's configuration from JSON: `topicInfo`, a list of objects with `topic` and optionally
 * `priority`, and `queueName`, a list of names; each key also as the schema spells it (`topic_info`, `queue_name`).
 * @param fileName names the file in errors.
 * @throws ConfigurationError with at most 20 mistakes.
 */
brelix::vtx::messaging::appinit::AppInitConfigMsg ParseConfiguration(
    const std::string& fileName, const std::string& text);

/**
 * Reads such a file.
 * @param file its name, - for the standard input.
 * @throws ConfigurationError as above; Failure when it cannot be read.
 */
brelix::vtx::messaging::appinit::AppInitConfigMsg ReadConfiguration(const std::string& file);

} // namespace VtxQel
