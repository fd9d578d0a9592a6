// The boot environment. An input is a configuration in the form of fw_env.config, up to an empty line, and the variables of
// the environment, a line each.
//
// Needs a device, or a name space, of its own: the environment's library locks a file in a fixed place.

#include <zlib.h>

#include <algorithm>
#include <map>

#include "platform/flash/environment_boot_control.h"
#include "tests/fuzz/fuzz.h"

namespace {

using fuzz::require;
using kavro::BootState;
using kavro::EnvironmentBootControl;
using kavro::SlotNames;

constexpr std::size_t kCopyBytes = 0x1000;
constexpr std::size_t kHeaderBytes = 5;  // CRC-32 and a flag that counts the saves

const SlotNames kSlots = {{"a", "b"}, "a"};

std::string littleEndian32(unsigned long value) {
    std::string bytes;
    for (int shift = 0; shift < 32; shift += 8) {
        bytes += static_cast<char>(value >> shift & 0xFF);
    }
    return bytes;
}

// A copy of the environment that holds these variables, each ended by a NUL.
std::string copyOf(std::string variables, char flag) {
    variables.resize(kCopyBytes - kHeaderBytes, '\0');
    const unsigned long crc =
        crc32_z(0, reinterpret_cast<const unsigned char*>(variables.data()), variables.size());
    return littleEndian32(crc) + flag + variables;
}

// The environment on the device: two copies and the file that tells of them.
struct Device {
    fuzz::MemoryFile first;
    fuzz::MemoryFile second;
    fuzz::MemoryFile config;

    Device() { config.fill(first.path() + " 0x0 0x1000\n" + second.path() + " 0x0 0x1000\n"); }
};

void requireState(const BootState& state) {
    require(state.bootSlot == "a" || state.bootSlot == "b", "one of the slots starts next");
    for (const auto& [slot, content] : state.content) {
        require(slot == "a" || slot == "b", "a content is that of a slot");
        for (const kavro::PartContent& part : content) {
            require(kavro::isPossible(part), "a content is a possible one");
        }
    }
}

kavro::SlotContent newContent() {
    kavro::SlotContent content;
    for (kavro::PartContent& part : content) {
        part = {4711, std::string(64, 'c')};
    }
    return content;
}

// Whatever else the environment holds, an activation and a confirmation do what they have to.
void requireActivation(EnvironmentBootControl& control, const BootState& before) {
    std::string error;
    BootState state;
    require(control.activate("b", newContent(), error), "a slot can be activated: " + error);
    require(control.load(state, error), "what was activated can be read: " + error);
    require(state.onTrial && kavro::isActivated({"b", newContent()}, state),
            "the activated slot starts next, on trial");
    require(state.starts == "0" && state.startLimit.find_first_not_of("0123456789") == std::string::npos &&
                state.startLimit.find_first_not_of('0') != std::string::npos,
            "its starts are counted, up to a limit");
    const auto untouched = before.content.find("a");
    require(state.content.count("a") == before.content.count("a") &&
                (untouched == before.content.end() || state.content["a"] == untouched->second),
            "the running slot's content stays as it was");

    require(control.keepRunning(error) && control.load(state, error), "it can be taken back: " + error);
    require(state.bootSlot == "a" && !state.onTrial, "the running slot starts next then");
}

void requirePlaces(const std::string& text) {
    static fuzz::MemoryFile config;
    config.fill(text);
    std::vector<std::string> paths;
    std::string error;
    const bool known = EnvironmentBootControl(config.path(), kSlots).places(paths, error);
    require(known == error.empty() && known == (paths.size() == 2),
            "there are two places, or an error is told");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Device device;
    const std::string input(reinterpret_cast<const char*>(data), size);
    const std::size_t emptyLine = input.find("\n\n");
    requirePlaces(input.substr(0, emptyLine));

    std::string variables = emptyLine == std::string::npos ? "" : input.substr(emptyLine + 2);
    // Room for the variables of an activation.
    variables.resize(std::min<std::size_t>(variables.size(), kCopyBytes / 2));
    std::replace(variables.begin(), variables.end(), '\n', '\0');
    device.first.fill(copyOf(variables, 1));
    device.second.fill(std::string(kCopyBytes, 'x'));

    EnvironmentBootControl control(device.config.path(), kSlots);
    BootState state;
    std::string error;
    const bool read = control.load(state, error);
    require(read == error.empty(), "an error is told, and only then");
    if (read) {
        requireState(state);
        requireActivation(control, state);
    }
    return 0;
}
