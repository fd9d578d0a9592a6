// What the board tells of its slots: the boot loader's state, the record of the written slot, and storage itself.
#include "common/board.h"

#include <algorithm>
#include <charconv>
#include <optional>

#include "common/cancellation.h"
#include "platform/config/platform_config.h"
#include "platform/config/written_slot.h"
#include "platform/flash/environment_boot_control.h"
#include "platform/flash/flash_progress.h"
#include "platform/flash/partition.h"
#include "platform/flash/slot_map.h"

namespace {

constexpr int kFailed = -1;

// Everything there is to know of the slots.
struct Slots {
    kavro::SlotMap map;
    kavro::BootState boot;
    std::optional<kavro::WrittenSlot> written;  // one that awaits its activation
    bool repairsMicrocontroller = false;

    [[nodiscard]] bool read(std::string& error) {
        const kavro::PlatformConfig config = kavro::readPlatformConfig();
        repairsMicrocontroller = config.mcuRepair;
        if (!kavro::readSlotMap(config, map, error) ||
            !kavro::EnvironmentBootControl(map.bootEnvironmentConfig, map.slots).load(boot, error) ||
            !kavro::readWrittenSlot(map.writtenSlotFile, written, error)) {
            return false;
        }
        if (written && kavro::isActivated(*written, boot)) {
            written.reset();
        }
        return true;
    }

    // That of a written slot is not the boot loader's business before it is activated.
    [[nodiscard]] std::optional<kavro::SlotContent> contentOf(const std::string& slot) const {
        if (written && written->slot == slot) {
            return written->content;
        }
        const auto known = boot.content.find(slot);
        return known == boot.content.end() ? std::nullopt : std::optional(known->second);
    }
};

int numberOr(const std::string& text, int otherwise) {
    int number = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && stop == end && number >= 0 ? number : otherwise;
}

COMMON_YR::BoardSlotContent byComponent(const kavro::SlotContent& content) {
    COMMON_YR::BoardSlotContent components;
    for (std::size_t part = 0; part < content.size(); ++part) {
        components[kavro::kSlotComponents[part]] = {content[part].bytes, content[part].sha256};
    }
    return components;
}

}  // namespace

namespace COMMON_YR {

int boardReadState(BoardState& state, std::string& error) {
    const CancelHold hold;
    Slots slots;
    if (!slots.read(error)) {
        return kFailed;
    }
    state = {};
    state.runningSlot = slots.map.slots.running;
    state.nextSlot = slots.boot.bootSlot;
    state.onTrial = slots.boot.onTrial;
    state.trialStarts = numberOr(slots.boot.starts, kBoardUnknown);
    state.trialLimit = numberOr(slots.boot.startLimit, kBoardUnknown);
    state.repairsMicrocontroller = slots.repairsMicrocontroller;
    state.writtenSlot = slots.written ? slots.written->slot : "";
    for (const std::string& slot : slots.map.slots.names) {
        if (const auto content = slots.contentOf(slot)) {
            state.slots[slot] = byComponent(*content);
        }
    }
    return 0;
}

int boardVerifySlot(const std::string& slot, std::string& error) {
    const CancelHold hold;
    Slots slots;
    if (!slots.read(error)) {
        return kFailed;
    }
    const std::optional<kavro::SlotContent> content = slots.contentOf(slot);
    const auto partitions = slots.map.partitions.find(slot);
    if (!content || partitions == slots.map.partitions.end()) {
        error = "it is not known what slot " + slot + " must hold";
        return kFailed;
    }
    const auto toTheEnd = [] { return true; };
    for (std::size_t part = 0; part < content->size(); ++part) {
        if (!kavro::verifyPartition(partitions->second[part], (*content)[part], toTheEnd, error)) {
            return kFailed;
        }
    }
    return 0;
}

int boardDropWrittenSlot(std::string& error) {
    const CancelHold hold;
    const kavro::PlatformConfig config = kavro::readPlatformConfig();
    kavro::SlotMap map;
    return kavro::readSlotMap(config, map, error) && kavro::removeWrittenSlot(map.writtenSlotFile, error)
               ? 0
               : kFailed;
}

void boardReadProgress(BoardProgress& progress) {
    const auto bytesOf = [](const kavro::FlashProgress& driver) {
        const long long total = driver.bytesTotal();
        return BoardBytes{std::min(driver.bytesDone(), total), total};
    };
    progress = {bytesOf(kavro::mpuProgress), bytesOf(kavro::mcuProgress)};
}

std::string boardLogFile() {
    const CancelHold hold;
    return kavro::readPlatformConfig().logFile;
}

}  // namespace COMMON_YR
