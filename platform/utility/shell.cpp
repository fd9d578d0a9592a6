// runSystem.

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <string_view>

#include "base/child_process.h"
#include "base/file_descriptor.h"
#include "base/file_io.h"
#include "common/cancellation.h"
#include "common/utility.h"
#include "platform/utility/format_text.h"

namespace COMMON_YR {
namespace {

constexpr const char* kShell = "/bin/sh";

// Reads the command from descriptor kScriptDescriptor, closes that, and goes on as if it had been the
// argument.
constexpr const char* kRunScript = "kavro_command=$(cat <&3) || exit 127; exec 3<&-; eval \"$kavro_command\"";
static_assert(kavro::ChildProcess::kScriptDescriptor == 3);

bool startShell(kavro::ChildProcess& shell, const char* command, int script) {
    const char* const arguments[] = {"sh", "-c", command, nullptr};
    return shell.start(kShell, arguments, script);
}

// For a command that is too long for an argument. The kernel has no limit that could be asked for beforehand:
// one applies to the argument alone (128 KiB), another to all arguments together with the environment.
bool startLongCommand(kavro::ChildProcess& shell, std::string_view command) {
    const kavro::FileDescriptor script(memfd_create("command", MFD_CLOEXEC));
    return script.valid() && kavro::writeFullyAt(script.get(), command.data(), command.size(), 0) &&
           startShell(shell, kRunScript, script.get());
}

bool startCommand(kavro::ChildProcess& shell, const kavro::FormattedText& command) {
    return startShell(shell, command.text.get(), -1) ||
           (errno == E2BIG && startLongCommand(shell, command.view()));
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

    kavro::ChildProcess shell;
    return startCommand(shell, command) && shell.succeeds(hold) ? 0 : -1;
}

}  // namespace COMMON_YR
