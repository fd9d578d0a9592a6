// runSystem.

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <exception>
#include <sstream>
#include <string>
#include <string_view>

#include "base/child_process.h"
#include "base/file_descriptor.h"
#include "base/file_io.h"
#include "common/cancellation.h"
#include "common/utility.h"
#include "platform/utility/device_log.h"
#include "platform/utility/format_text.h"

namespace COMMON_YR {
namespace {

constexpr const char* kShell = "/bin/sh";

// Reads the command from descriptor kScriptDescriptor, closes that, and goes on as if it had been the
// argument.
constexpr const char* kRunScript = "kavro_command=$(cat <&3) || exit 127; exec 3<&-; eval \"$kavro_command\"";
static_assert(kavro::ChildProcess::kScriptDescriptor == 3);

// Of what a command prints, from its beginning.
constexpr std::size_t kMostLoggedBytes = 16384;

bool startShell(kavro::ChildProcess& shell, const char* command, int script, int output) {
    const char* const arguments[] = {"sh", "-c", command, nullptr};
    return shell.start(kShell, arguments, script, output);
}

// For a command that is too long for an argument. The kernel has no limit that could be asked for beforehand:
// one applies to the argument alone (128 KiB), another to all arguments together with the environment.
bool startLongCommand(kavro::ChildProcess& shell, std::string_view command, int output) {
    const kavro::FileDescriptor script(memfd_create("command", MFD_CLOEXEC));
    return script.valid() && kavro::writeFullyAt(script.get(), command.data(), command.size(), 0) &&
           startShell(shell, kRunScript, script.get(), output);
}

bool startCommand(kavro::ChildProcess& shell, const kavro::FormattedText& command, int output) {
    return startShell(shell, command.text.get(), -1, output) ||
           (errno == E2BIG && startLongCommand(shell, command.view(), output));
}

// What the command has printed is the device's to know, not for the terminal of whatever program called.
void logOutput(std::string_view command, int output) {
    std::string text(kMostLoggedBytes, '\0');
    const ssize_t length = kavro::readFullyAt(output, text.data(), text.size(), 0);
    text.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    const std::string begin = std::string(command.substr(0, command.find(' '))) + ": ";
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        kavro::logOfCommand(line.insert(0, begin));
    }
}

// Whether it could be run, and has ended with status 0.
bool runLogged(const kavro::FormattedText& command, const CancelHold& hold) {
    const kavro::FileDescriptor output(
        memfd_create("output", MFD_CLOEXEC));  // without it the command prints as we do
    kavro::ChildProcess shell;
    if (!startCommand(shell, command, output.get())) {
        return false;
    }
    const bool succeeded = shell.succeeds(hold);
    if (output.valid()) {
        logOutput(command.view(), output.get());
    }
    return succeeded;
}

}  // namespace

int runSystem(const char* format, ...) {
    const CancelHold hold;
    va_list arguments;
    va_start(arguments, format);
    const kavro::FormattedText command = kavro::formatText(format, arguments);
    va_end(arguments);
    if (command.text == nullptr) {
        return -1;
    }

    try {
        return runLogged(command, hold) ? 0 : -1;
    } catch (const std::exception&) {  // no memory
        return -1;
    }
}

}  // namespace COMMON_YR
