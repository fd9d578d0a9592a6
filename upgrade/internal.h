// What the source units of the upgrade manager share among themselves. Not installed.
#pragma once

#include <string>

#include "common/cancellation.h"
#include "common/utility.h"

// Logging. A unit defines kSourceUnit, its name in the log. Cancellation is held off meanwhile: a log service
// may block, take locks and write files.
#define UPGRADE_LOG(level, ...)                       \
    do {                                              \
        const COMMON_YR::CancelHold holdWhileLogging; \
        printLog(level, __VA_ARGS__);                 \
    } while (false)

// An error line. Where a line number is given it is part of the message: people look for these numbers.
#define UPGRADE_ERROR_AT(function, line, text, ...) \
    UPGRADE_LOG(1, "file:%s, func:%s line:%d " text, kSourceUnit, function, line, ##__VA_ARGS__)
#define UPGRADE_ERROR(text, ...) UPGRADE_ERROR_AT(__func__, __LINE__, text, ##__VA_ARGS__)

// A failed step of a larger function.
#define UPGRADE_STEP_ERROR_AT(function, line) \
    UPGRADE_ERROR_AT(function, line, "%s %s %d error!!!\n", kSourceUnit, function, line)
#define UPGRADE_STEP_ERROR() UPGRADE_STEP_ERROR_AT(__func__, __LINE__)

namespace kavro {

// Whether access(2) finds something at the path. Where storage gives no answer, nothing is there.
bool pathExists(const std::string& path);
// The same, but where storage gives no answer it is assumed: what is done with the path tells then. A marker that was
// taken for missing would let an activation exchange the packages without switching the slot.
bool pathMayExist(const std::string& path);

// The path as a command line needs it: unchanged when the shell takes it as one plain word, quoted otherwise;
// a relative path that a command would take for an option or a remote host gets "./" in front.
std::string shellWord(const std::string& path);

}  // namespace kavro
