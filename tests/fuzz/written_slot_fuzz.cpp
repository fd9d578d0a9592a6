// The record of the slot that was written and awaits its activation. An input is the text of the file.

#include "platform/config/written_slot.h"

#include "tests/fuzz/fuzz.h"

namespace {

using fuzz::require;
using kavro::WrittenSlot;

void requireRoundTrip(const std::string& file, const WrittenSlot& record) {
    std::string error;
    require(kavro::saveWrittenSlot(file, record, error), "a record can be saved: " + error);
    std::optional<WrittenSlot> again;
    require(kavro::readWrittenSlot(file, again, error) && again, "a saved record can be read: " + error);
    require(again->content == record.content, "the content reads as it was saved");
    // JSON has no way to write anything but characters.
    require(!fuzz::isUtf8(record.slot) || again->slot == record.slot, "the slot reads as it was saved");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::MemoryDirectory directory;
    static const std::string file = directory / "written_slot.json";
    fuzz::writeText(file, std::string(reinterpret_cast<const char*>(data), size));

    std::optional<WrittenSlot> record;
    std::string error;
    const bool read = kavro::readWrittenSlot(file, record, error);
    require(read == error.empty() && read == record.has_value(), "there is a record, or an error is told");
    if (record) {
        for (const kavro::PartContent& content : record->content) {
            require(kavro::isPossible(content), "a record tells of nothing impossible");
        }
        requireRoundTrip(file, *record);
    }
    require(kavro::removeWrittenSlot(file, error), "a record can be removed: " + error);
    require(kavro::readWrittenSlot(file, record, error) && !record, "a removed record is not there");
    return 0;
}
