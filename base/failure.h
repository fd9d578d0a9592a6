// Errors on their way through a library or a program: thrown where they are found, and made values again where a public
// function ends.
#pragma once

#include <exception>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "common/cancellation.h"
#include "common/error.h"

namespace kavro {

class Failure : public std::exception {
  public:
    explicit Failure(Error error) : content(std::move(error)) {}
    // text, next and details as in Error.
    Failure(ErrorCode code, std::string text, std::string next, std::vector<std::string> details = {})
        : content{code, std::move(text), std::move(next), std::move(details), {}} {}

    const Error& error() const { return content; }
    const char* what() const noexcept override { return content.text.c_str(); }

  private:
    Error content;
};

// What any other exception means: there was no memory, or something that was never expected to fail.
inline Error unexpectedError(const std::exception& exception) {
    return {ErrorCode::kOther, exception.what(), "check the memory and the storage of this machine", {}, {}};
}

// Calls work and returns what it returns, or the error of what it throws. A cancel of the thread waits until it has ended:
// what it holds is given back by destructors, which must not be cut short.
template <typename Work>
Result<std::invoke_result_t<Work>> resultOf(const Work& work) {
    const COMMON_YR::CancelHold hold;
    try {
        if constexpr (std::is_void_v<std::invoke_result_t<Work>>) {
            work();
            return {};
        } else {
            return work();
        }
    } catch (const Failure& failure) {
        return failure.error();
    } catch (const std::exception& exception) {
        return unexpectedError(exception);
    }
}

// The value of a result; throws the Failure of its error.
template <typename Value>
Value valueOf(Result<Value> result) {
    if (!result.ok()) {
        throw Failure(std::move(result).error());
    }
    if constexpr (!std::is_void_v<Value>) {
        return std::move(result).value();
    }
}

}  // namespace kavro
