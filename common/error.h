// How a call of a library fails: the error and the result as values, which a program may show, store or pass on. Nothing
// throws across the interface of a library that uses them.
#pragma once

#include <optional>
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

    // Only when ok(): throws std::bad_variant_access otherwise.
    const Value& value() const& { return std::get<0>(content); }
    // The same, to be changed.
    Value& value() & { return std::get<0>(content); }
    // The same, to be moved away.
    Value&& value() && { return std::get<0>(std::move(content)); }

    // Only when not ok(): throws std::bad_variant_access otherwise.
    const Error& error() const& { return std::get<1>(content); }
    // The same, to be moved away.
    Error&& error() && { return std::get<1>(std::move(content)); }

  private:
    std::variant<Value, Error> content;
};

// Of a call that brings nothing but that it was done.
template <>
class [[nodiscard]] Result<void> {
  public:
    // It was done.
    Result() = default;
    // It was not.
    Result(Error error) : failure(std::move(error)) {}

    // Whether it was done.
    bool ok() const { return !failure.has_value(); }

    // Only when not ok(): throws std::bad_optional_access otherwise.
    const Error& error() const& { return failure.value(); }
    // The same, to be moved away.
    Error&& error() && { return std::move(failure).value(); }

  private:
    std::optional<Error> failure;
};

}  // namespace kavro
