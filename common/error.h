// How a call of a library fails: the error and the result as values, which a program may show, store or pass on. Nothing
// throws across the interface of a library that uses them.
#pragma once

#include <cstdlib>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace kavro {

// What kind of failure it is. The numbers and the names of nameOf() stay as they are; new ones may come, so whoever branches
// on them has a way for all others.
enum class ErrorCode : int {
    kOther = 1,        // "other": the machine or the device: no room, no permission, a missing partition
    kUsage = 2,        // "usage": what the caller asks for
    kRefused = 3,      // "refused": the package, or what one is to be made of; nothing was flashed
    kFlashFailed = 4,  // "flash_failed": flashing had begun
    kGivenUp = 5,      // "given_up": interrupted in time; nothing was flashed
    kBusy = 6,         // "busy": another process changes the device; nothing was done
};

// The stable name of a code; that of kOther for a number that is none. Never null; lives as long as the program.
constexpr const char* nameOf(ErrorCode code) {
    switch (code) {
        case ErrorCode::kUsage:
            return "usage";
        case ErrorCode::kRefused:
            return "refused";
        case ErrorCode::kFlashFailed:
            return "flash_failed";
        case ErrorCode::kGivenUp:
            return "given_up";
        case ErrorCode::kBusy:
            return "busy";
        case ErrorCode::kOther:
            break;
    }
    return "other";
}

// All texts are for people, in English.
struct Error {
    ErrorCode code = ErrorCode::kOther;  // what kind of failure it is
    std::string text;                    // one sentence without a full stop that names the file it is about
    std::string next;                    // what can be done about it
    std::vector<std::string> details;    // the device's own words on it, if any
    std::vector<Error> further;          // of the same code, found along with it and told behind it
};

// What a call has brought: a value, or the error for which there is none.
template <typename Value>
class [[nodiscard]] Result {
  public:
    // Both are meant to convert: a function simply returns a value,
    Result(Value value) : content(std::in_place_index<0>, std::move(value)) {}
    // or its error.
    Result(Error error) : content(std::in_place_index<1>, std::move(error)) {}

    // Whether there is a value.
    bool ok() const { return content.index() == 0; }

    // Only when ok(): ends the process otherwise.
    const Value& value() const& { return *there(std::get_if<0>(&content)); }
    // The same, to be changed.
    Value& value() & { return *there(std::get_if<0>(&content)); }
    // The same, to be moved away.
    Value&& value() && { return std::move(*there(std::get_if<0>(&content))); }

    // Only when not ok(): ends the process otherwise.
    const Error& error() const& { return *there(std::get_if<1>(&content)); }
    // The same, to be moved away.
    Error&& error() && { return std::move(*there(std::get_if<1>(&content))); }

  private:
    template <typename Content>
    static Content* there(Content* part) {
        if (part == nullptr) {
            std::abort();
        }
        return part;
    }

    std::variant<Value, Error> content;
};

// Of a call that brings nothing but that it was done.
template <>
class [[nodiscard]] Result<void> : public Result<std::monostate> {
  public:
    // It was done.
    Result() : Result<std::monostate>(std::monostate()) {}
    // It was not.
    Result(Error error) : Result<std::monostate>(std::move(error)) {}
};

}  // namespace kavro
