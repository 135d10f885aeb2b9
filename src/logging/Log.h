#pragma once

#include "logging/Logger.h"

/**
 * QEL_LOG(level, format, ...) and QEL_LOG_ERROR(tag, format, ...) write one line of the agent.
 *
 * The level is tested first: below it nothing is built and the arguments are not evaluated, so a line that is off costs
 * one comparison. Error lines are those of level 2 and always carry an error-code tag; no other line does.
 */
#define QEL_LOG(level, ...)                                                                                            \
    do                                                                                                                 \
    {                                                                                                                  \
        if (::vtx::Logger::logLevel >= (level))                                                                        \
        {                                                                                                              \
            ::vtx::Logger(level).subcomp("qel").put(__VA_ARGS__);                                                      \
        }                                                                                                              \
    } while (false)

#define QEL_LOG_ERROR(errorTag, ...)                                                                                   \
    do                                                                                                                 \
    {                                                                                                                  \
        if (::vtx::Logger::logLevel >= ::vtx::LevelError)                                                              \
        {                                                                                                              \
            ::vtx::Logger(::vtx::LevelError).subcomp("qel").tag(errorTag).put(__VA_ARGS__);                            \
        }                                                                                                              \
    } while (false)
