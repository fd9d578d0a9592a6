// Options of the JSON configuration files. An input is the name of an option, a line; a value, a line; and the text of a
// file.

#include <json/json.h>

#include <cstring>
#include <memory>

#include "tests/fuzz/fuzz.h"
#include "upgrade/upgrade_common.h"

namespace {

using fuzz::require;

constexpr const char* kBystander = "a member that no input names, of another option";
constexpr std::int32_t kBystanderValue = -2147483647 - 1;

bool holdsObject(const std::string& text) {
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    Json::Value root;
    return reader->parse(text.data(), text.data() + text.size(), &root, nullptr) && root.isObject();
}

// What a read returns, and that it leaves a value alone that it does not find.
int readNumber(const std::string& file, const std::string& option, std::int32_t& number) {
    const std::int32_t before = number;
    const int result = UPGRADE_COMM_read_config(file, option, CFG_DATA_TYPE_INT, &number);
    require(result == 0 || result == -2 || result == -3, "reading a number has one of its results");
    require(result == 0 || number == before, "a failed read leaves the number alone");
    return result;
}

int readText(const std::string& file, const std::string& option, std::string& text) {
    const std::string before = text;
    const int result = UPGRADE_COMM_read_config(file, option, CFG_DATA_TYPE_STRING, &text);
    require(result == 0 || result == -2 || result == -4, "reading a text has one of its results");
    require(result == 0 || text == before, "a failed read leaves the text alone");
    return result;
}

void requireReadsAgree(const std::string& file, const std::string& option) {
    std::int32_t number = 4711;
    std::string text = "untouched";
    const int asNumber = readNumber(file, option, number);
    const int asText = readText(file, option, text);
    require((asNumber == -2) == (asText == -2), "an option is there for both types or for none");
    require(asNumber != 0 || asText != 0, "an option is not of both types");
}

// Every write leaves a whole object behind, with what the other writes have put there.
void requireWritten(const std::string& file, int result) {
    const std::string text = fuzz::readText(file);
    require(result == static_cast<int>(text.size()), "a write returns the length of the file");
    require(holdsObject(text), "a write leaves a whole JSON object behind");
}

void requireWritesRead(const std::string& file, const std::string& option, const std::string& value) {
    requireWritten(file, UPGRADE_COMM_write_config(file, kBystander, CFG_DATA_TYPE_INT, &kBystanderValue));

    requireWritten(file, UPGRADE_COMM_write_config(file, option, CFG_DATA_TYPE_STRING, &value));
    std::string text;
    require(readText(file, option, text) == 0, "a text that was written is there");
    // JSON has no way to write anything but characters.
    require(!fuzz::isUtf8(value) || text == value, "a text reads as it was written");

    std::int32_t number = 0;
    std::memcpy(&number, value.data(), std::min(value.size(), sizeof number));
    requireWritten(file, UPGRADE_COMM_write_config(file, option, CFG_DATA_TYPE_INT, &number));
    std::int32_t readBack = ~number;
    require(readNumber(file, option, readBack) == 0 && readBack == number,
            "a number reads as it was written");

    std::int32_t bystander = 0;
    require(readNumber(file, kBystander, bystander) == 0 && bystander == kBystanderValue,
            "a write keeps the other members");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::MemoryDirectory directory;
    static const std::string file = directory / "config.json";
    fuzz::Input input(data, size);
    const std::string option = input.line();
    const std::string value = input.line();
    fuzz::writeText(file, input.rest());

    requireReadsAgree(file, option);
    // A name that is no text, as JSON has it, is another name afterwards.
    if (option != kBystander && fuzz::isUtf8(option)) {
        requireWritesRead(file, option, value);
    }
    return 0;
}
