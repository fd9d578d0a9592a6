// The one place of the device's libraries that knows libubootenv.
#include "platform/flash/environment_boot_control.h"

#include <fcntl.h>
#include <libuboot.h>
#include <stdlib.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <memory>
#include <sstream>

#include "base/errno_text.h"
#include "base/file_io.h"
#include "base/raw_file.h"
#include "common/utility.h"

namespace kavro {
namespace {

using Variables = std::map<std::string, std::string>;

constexpr std::size_t kCopies = 2;
constexpr const char* kDefaultStartLimit = "3";

constexpr const char* kBootSlot = "boot_slot";
constexpr const char* kOnTrial = "upgrade_available";
constexpr const char* kStarts = "bootcount";
constexpr const char* kStartLimit = "bootlimit";

std::string contentVariable(const std::string& slot, std::size_t part) {
    return "slot_" + slot + "_" + kSlotParts[part];
}

std::string contentText(const PartContent& content) {
    return std::to_string(content.bytes) + " " + content.sha256;
}

// False for a text of any other form.
bool parseContent(const std::string& text, PartContent& content) {
    const std::size_t space = text.find(' ');
    if (space == std::string::npos) {
        return false;
    }
    const auto [end, problem] = std::from_chars(text.data(), text.data() + space, content.bytes);
    content.sha256 = text.substr(space + 1);
    return problem == std::errc() && end == text.data() + space && isPossible(content);
}

// The library's context, and from open() on the lock that keeps every other program off the environment.
class Environment {
  public:
    Environment() = default;
    ~Environment() {
        if (isLocked) {
            libuboot_close(context);
        }
        if (context != nullptr) {
            libuboot_exit(context);
        }
    }
    Environment(const Environment&) = delete;
    Environment& operator=(const Environment&) = delete;

    // Reads the newer of the whole copies. 0, or the library's negative error number.
    [[nodiscard]] int open(const std::string& config) {
        int result = libuboot_initialize(&context, nullptr);
        if (result != 0) {
            context = nullptr;
            return result;
        }
        result = libuboot_read_config(context, config.c_str());
        if (result == 0) {
            isLocked = true;  // even when it fails
            result = libuboot_open(context);
        }
        return result;
    }

    // Empty for a variable that does not exist.
    [[nodiscard]] std::string get(const std::string& name) const {
        const std::unique_ptr<char, decltype(&::free)> value(libuboot_get_env(context, name.c_str()),
                                                             &::free);
        return value == nullptr ? std::string() : value.get();
    }
    [[nodiscard]] bool set(const Variables& variables) {
        bool done = true;
        for (const auto& [name, value] : variables) {
            done = done && libuboot_set_env(context, name.c_str(), value.c_str()) == 0;
        }
        return done;
    }
    [[nodiscard]] bool save() { return libuboot_env_store(context) == 0; }

  private:
    uboot_ctx* context = nullptr;
    bool isLocked = false;
};

// Where one copy is.
struct Copy {
    std::string path;
    std::string offset;
};

bool fail(const std::string& path, const std::string& what, std::string& error) {
    error = path + ": " + what;
    return false;
}

// In any form that C has for it.
bool isNumber(const std::string& text) {
    char* end = nullptr;
    (void)::strtoll(text.c_str(), &end, 0);
    return !text.empty() && *end == '\0';
}

// The library keeps to itself what it read from the file.
bool readCopies(const std::string& config, std::vector<Copy>& copies, std::string& error) {
    if (RawFile file; !file.open(config, O_RDONLY)) {
        error = fileError(config, "cannot be read", errno);
        return false;
    }
    std::istringstream lines(COMMON_YR::readFile2String(config.c_str()));
    for (std::string line; std::getline(lines, line);) {
        Copy copy;
        std::string size;
        if (std::istringstream(line) >> copy.path >> copy.offset >> size && copy.path.front() != '#' &&
            isNumber(copy.offset) && isNumber(size)) {
            copies.push_back(copy);
        }
    }
    // With a single copy, a power cut during a save would take the whole environment.
    if (copies.size() != kCopies) {
        return fail(config,
                    "must have two lines \"DEVICE OFFSET SIZE\", one for each copy of the boot environment",
                    error);
    }
    if (copies[0].path == copies[1].path && copies[0].offset == copies[1].offset) {
        return fail(config, "both copies of the boot environment are in the same place", error);
    }
    for (const Copy& copy : copies) {
        if (RawFile file; !file.open(copy.path, O_RDONLY)) {
            return fail(config, fileError(copy.path, "the boot environment cannot be opened", errno), error);
        }
    }
    return true;
}

bool openEnvironment(const std::string& config, Environment& environment, std::string& error) {
    std::vector<Copy> copies;
    if (!readCopies(config, copies, error)) {
        return false;
    }
    const int result = environment.open(config);
    if (result == 0) {
        return true;
    }
    if (result == -ENODATA) {
        return fail(config,
                    "neither copy of the boot environment (" + copies[0].path + ", " + copies[1].path +
                        ") is whole. Where places and sizes are right, a restart lets the boot loader make a "
                        "new one, or "
                        "'fw_setenv -f FILE' does, with a line boot_slot=NAME in FILE",
                    error);
    }
    error = fileError(config,
                      "the boot environment (" + copies[0].path + ", " + copies[1].path + ") cannot be read",
                      -result);
    return false;
}

// The library does not tell of a failed flush: the copies are flushed once more, through descriptors that were
// opened before the save and so see every error since.
class FlushedCopies {
  public:
    [[nodiscard]] bool open(const std::vector<Copy>& copies, std::string& error) {
        for (const Copy& copy : copies) {
            files.emplace_back();
            if (!files.back().open(copy.path, O_RDONLY)) {
                error = fileError(copy.path, "the boot environment cannot be opened", errno);
                return false;
            }
        }
        return true;
    }
    [[nodiscard]] bool flush() {
        for (const RawFile& file : files) {
            if (!file.flush()) {
                return false;
            }
            file.dropCache();
        }
        return true;
    }

  private:
    std::vector<RawFile> files;
};

// The boot loader takes anything else for no limit: a slot on trial would never be given up.
bool isPositiveNumber(const std::string& text) {
    const auto isDigit = [](char character) { return character >= '0' && character <= '9'; };
    return std::all_of(text.begin(), text.end(), isDigit) && text.find_first_not_of('0') != std::string::npos;
}

// Changes all of these variables, in one save.
bool save(const std::string& config, const Variables& changes, std::string& error) {
    std::vector<Copy> copies;
    FlushedCopies flushed;
    if (!readCopies(config, copies, error) || !flushed.open(copies, error)) {
        return false;
    }
    {
        Environment environment;
        if (!openEnvironment(config, environment, error)) {
            return false;
        }
        if (!environment.set(changes) || !environment.save() || !flushed.flush()) {
            return fail(config, "the boot environment cannot be saved", error);
        }
    }
    Environment saved;
    if (!openEnvironment(config, saved, error)) {
        return false;
    }
    for (const auto& [name, value] : changes) {
        if (saved.get(name) != value) {
            return fail(config, "the boot environment was saved, but holds another " + name, error);
        }
    }
    return true;
}

}  // namespace

EnvironmentBootControl::EnvironmentBootControl(std::string configFile, SlotNames slotNames)
    : config(std::move(configFile)), slots(std::move(slotNames)) {}

bool EnvironmentBootControl::load(BootState& state, std::string& error) const {
    Environment environment;
    if (!openEnvironment(config, environment, error)) {
        return false;
    }
    state = {};
    state.bootSlot = environment.get(kBootSlot);
    state.onTrial = environment.get(kOnTrial) == "1";
    state.starts = environment.get(kStarts);
    state.startLimit = environment.get(kStartLimit);
    for (const std::string& slot : slots.names) {
        SlotContent content;
        bool known = true;
        for (std::size_t part = 0; part < kSlotParts.size(); ++part) {
            known = known && parseContent(environment.get(contentVariable(slot, part)), content[part]);
        }
        if (known) {
            state.content[slot] = content;
        }
    }
    if (state.bootSlot != slots.names[0] && state.bootSlot != slots.names[1]) {
        return fail(config,
                    "the boot environment's boot_slot is \"" + state.bootSlot + "\", neither \"" +
                        slots.names[0] + "\" nor \"" + slots.names[1] + "\"; 'fw_setenv boot_slot " +
                        slots.running + "' sets it to the running slot",
                    error);
    }
    return true;
}

bool EnvironmentBootControl::activate(const std::string& slot, const SlotContent& content,
                                      std::string& error) {
    Variables changes = {{kBootSlot, slot}, {kOnTrial, slot == slots.running ? "0" : "1"}, {kStarts, "0"}};
    for (std::size_t part = 0; part < kSlotParts.size(); ++part) {
        changes[contentVariable(slot, part)] = contentText(content[part]);
    }
    BootState state;
    if (!load(state, error)) {
        return false;
    }
    if (!isPositiveNumber(state.startLimit)) {
        changes[kStartLimit] = kDefaultStartLimit;
    }
    return save(config, changes, error);
}

bool EnvironmentBootControl::keepRunning(std::string& error) {
    return save(config, {{kBootSlot, slots.running}, {kOnTrial, "0"}, {kStarts, "0"}}, error);
}

bool EnvironmentBootControl::places(std::vector<std::string>& paths, std::string& error) const {
    std::vector<Copy> copies;
    if (!readCopies(config, copies, error)) {
        return false;
    }
    for (const Copy& copy : copies) {
        paths.push_back(copy.path);
    }
    return true;
}

}  // namespace kavro
