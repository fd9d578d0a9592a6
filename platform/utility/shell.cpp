// runSystem.

#include <sys/mman.h>
#include <unistd.h>

#include <cstdarg>
#include <string_view>

#include "common/cancellation.h"
#include "common/utility.h"
#include "platform/utility/child_process.h"
#include "platform/utility/file_descriptor.h"
#include "platform/utility/file_io.h"
#include "platform/utility/format_text.h"

namespace COMMON_YR {
namespace {

constexpr const char* kShell = "/bin/sh";

// The kernel refuses an argument longer than this, with its end, whatever room the environment leaves.
constexpr std::size_t kMaxArgument = 128 << 10;

// Reads the command from descriptor kScriptDescriptor, closes that, and goes on as if it had been the
// argument.
constexpr const char* kRunScript = "kavro_command=$(cat <&3); exec 3<&-; eval \"$kavro_command\"";
static_assert(kavro::ChildProcess::kScriptDescriptor == 3);

bool startShell(kavro::ChildProcess& shell, const char* command, int script) {
    const char* const arguments[] = {"sh", "-c", command, nullptr};
    return shell.start(kShell, arguments, script);
}

bool startLongCommand(kavro::ChildProcess& shell, std::string_view command) {
    const kavro::FileDescriptor script(memfd_create("command", MFD_CLOEXEC));
    return script.valid() && kavro::writeFullyAt(script.get(), command.data(), command.size(), 0) &&
           startShell(shell, kRunScript, script.get());
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
    const bool started = command.length < kMaxArgument ? startShell(shell, command.text.get(), -1)
                                                       : startLongCommand(shell, command.view());
    return started && shell.succeeds(hold) ? 0 : -1;
}

}  // namespace COMMON_YR
