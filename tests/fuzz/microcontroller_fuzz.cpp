// The emulated microcontroller. An input is requests: a byte with the length of the next one (0 lets time pass), then
// the request. It is held against what docs/mcu.md says, whatever is asked.

#include "twin/emulator/microcontroller.h"

#include <algorithm>

#include "base/mcu_image.h"
#include "platform/mcu/uds.h"
#include "tests/fuzz/fuzz.h"

namespace {

using fuzz::require;
using kavro::Bytes;
namespace emulator = kavro::emulator;
namespace uds = kavro::uds;

Bytes memoryWithoutApplication() {
    Bytes memory(kavro::kMcuFlashBytes, kavro::kMcuErasedByte);
    for (std::size_t index = 0; index < kavro::kMcuRecordStart; ++index) {
        memory[index] =
            static_cast<std::uint8_t>(emulator::kBootLoaderText[index % emulator::kBootLoaderText.size()]);
    }
    return memory;
}

Bytes bootLoaderOf(const emulator::FlashMemory& flash) {
    return {flash.bytes().begin(), flash.bytes().begin() + kavro::kMcuRecordStart};
}

void requireAnswer(const Bytes& request, const Bytes& answer) {
    require(!answer.empty() && answer.size() <= kavro::kMaxMessageBytes, "an answer is a message");
    if (answer[0] == uds::kNegativeResponse) {
        require(answer.size() == uds::kNegativeResponseBytes && answer[1] == request[0],
                "a refusal names the service and the reason");
        return;
    }
    require(answer[0] == static_cast<std::uint8_t>(request[0] + uds::kPositiveResponse),
            "an answer is that of the service");
}

// A version is reported when a record and a header hold, and only then.
void requireVersion(emulator::Microcontroller& mcu, const emulator::FlashMemory& flash, emulator::Time now) {
    const Bytes request = {uds::kReadDataByIdentifier, 0xF1, 0x89};
    const Bytes answer = mcu.answer(request, now);
    const auto* record = flash.bytes().data() + kavro::kMcuRecordStart;
    const bool hasRecord = std::equal(kavro::kMcuRecordMagic.begin(), kavro::kMcuRecordMagic.end(), record);
    require(answer[0] == uds::kNegativeResponse || hasRecord, "no application runs without a record");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::MemoryDirectory directory;
    static const std::string file = directory / "flash.bin";
    static const Bytes fresh = memoryWithoutApplication();
    std::string error;
    require(emulator::FlashMemory::format(file, fresh, error) == emulator::Opening::kOpened, error);
    emulator::FlashMemory flash;
    require(flash.open(file, error) == emulator::Opening::kOpened, error);
    const Bytes bootLoader = bootLoaderOf(flash);

    emulator::Time now{};
    emulator::Microcontroller mcu(
        flash, {[] {}, [] { return emulator::BlockFault::kNone; },
                [](const std::string& line) { require(!line.empty(), "a line says something"); }});
    fuzz::Input input(data, size);
    while (!input.empty()) {
        const std::string text = input.bytes(input.byte());
        now += emulator::Milliseconds(text.empty() ? 1000 : 100);
        mcu.advance(now);
        if (text.empty() || !mcu.hears(now)) {
            continue;
        }
        const Bytes request(text.begin(), text.end());
        requireAnswer(request, mcu.answer(request, now));
        mcu.answered(now);
    }
    require(bootLoaderOf(flash) == bootLoader, "nobody writes over the boot loader");
    now += emulator::Milliseconds(10000);
    mcu.advance(now);
    now += emulator::Milliseconds(1000);
    if (mcu.hears(now)) {
        requireVersion(mcu, flash, now);
    }
    return 0;
}
