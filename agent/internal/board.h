// The board's answers, where it gives any.
#pragma once

#include <string>

#include "common/board.h"

namespace kavro::agent {

enum class Answer { kGiven, kFailed, kNone };  // kNone: this board does not tell

inline Answer askBoard(COMMON_YR::BoardState& state, std::string& error) {
    if (COMMON_YR::boardReadState == nullptr) {
        return Answer::kNone;
    }
    return COMMON_YR::boardReadState(state, error) >= 0 ? Answer::kGiven : Answer::kFailed;
}

inline Answer askBoardForSlot(const std::string& slot, std::string& error) {
    if (COMMON_YR::boardVerifySlot == nullptr) {
        return Answer::kNone;
    }
    return COMMON_YR::boardVerifySlot(slot, error) >= 0 ? Answer::kGiven : Answer::kFailed;
}

inline Answer askBoardToDropWrittenSlot(std::string& error) {
    if (COMMON_YR::boardDropWrittenSlot == nullptr) {
        return Answer::kNone;
    }
    return COMMON_YR::boardDropWrittenSlot(error) >= 0 ? Answer::kGiven : Answer::kFailed;
}

}  // namespace kavro::agent
