#include "twin/emulator/fault.h"

#include <algorithm>
#include <limits>
#include <string_view>

#include "base/hex_digit.h"
#include "platform/mcu/uds.h"

namespace kavro::emulator {
namespace {

constexpr std::size_t kForEver = std::numeric_limits<std::size_t>::max();
constexpr std::size_t kLargestNumber = 1000000;
constexpr std::size_t kHexDigitsOfByte = 2;

enum class Value { kNone, kMilliseconds, kCount, kResponseCode };

enum class Counted { kArrived, kCarriedOut, kBlocks };

struct KindRow {
    FaultKind kind;
    std::string_view name;
    Value value;
    Counted counted;
    const char* meaning;
};

constexpr KindRow kKinds[] = {
    {FaultKind::kDrop, "drop", Value::kNone, Counted::kArrived, "the request is not heard"},
    {FaultKind::kLose, "lose", Value::kNone, Counted::kArrived, "it is carried out, its answer is not sent"},
    {FaultKind::kDamage, "damage", Value::kNone, Counted::kArrived, "a bit of its answer is flipped"},
    {FaultKind::kDelay, "delay", Value::kMilliseconds, Counted::kArrived,
     "its answer is late by VALUE milliseconds"},
    {FaultKind::kBusy, "busy", Value::kNone, Counted::kCarriedOut, "it is answered with busyRepeatRequest"},
    {FaultKind::kPending, "pending", Value::kCount, Counted::kArrived,
     "VALUE response-pending come before its answer"},
    {FaultKind::kRefuse, "refuse", Value::kResponseCode, Counted::kCarriedOut,
     "it is answered with the negative response code VALUE (hex)"},
    {FaultKind::kPowerLoss, "power-loss", Value::kNone, Counted::kBlocks,
     "half of the block is written, then the power is gone"},
    {FaultKind::kCorrupt, "corrupt", Value::kNone, Counted::kBlocks, "the block is written with a wrong bit"},
};

const KindRow& rowOf(FaultKind kind) {
    return *std::find_if(std::begin(kKinds), std::end(kKinds),
                         [kind](const KindRow& row) { return row.kind == kind; });
}

// A decimal number from 1 on.
std::optional<std::size_t> readNumber(std::string_view text) {
    std::size_t number = 0;
    for (const char character : text) {
        if (character < '0' || character > '9' || number > kLargestNumber) {
            return std::nullopt;
        }
        number = number * 10 + static_cast<std::size_t>(character - '0');
    }
    return number >= 1 && number <= kLargestNumber ? std::optional<std::size_t>(number) : std::nullopt;
}

// Exactly two hexadecimal digits.
std::optional<std::uint8_t> readByte(std::string_view text) {
    unsigned byte = 0;
    for (const char character : text) {
        const int digit = hexDigit(character);
        if (digit < 0) {
            return std::nullopt;
        }
        byte = byte << 4 | static_cast<unsigned>(digit);
    }
    return text.size() == kHexDigitsOfByte ? std::optional<std::uint8_t>(static_cast<std::uint8_t>(byte))
                                           : std::nullopt;
}

// Cuts off what stands behind the first `separator`; nothing when there is none.
std::optional<std::string_view> cutBehind(std::string_view& text, std::string_view separator) {
    const std::size_t at = text.find(separator);
    if (at == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view behind = text.substr(at + separator.size());
    text = text.substr(0, at);
    return behind;
}

// The readers below leave in problem what is wrong.

bool readKind(std::string_view text, Fault& fault, std::string& problem) {
    const std::optional<std::string_view> service = cutBehind(text, "@");
    const auto* const row = std::find_if(std::begin(kKinds), std::end(kKinds),
                                         [text](const KindRow& each) { return each.name == text; });
    if (row == std::end(kKinds)) {
        problem = "there is no kind '" + std::string(text) + "'";
        return false;
    }
    fault.kind = row->kind;
    if (!service) {
        return true;
    }
    if (row->counted == Counted::kBlocks) {
        problem = std::string(text) + " counts blocks and takes no service";
        return false;
    }
    fault.service = readByte(*service);
    if (!fault.service) {
        problem = "the service behind '@' is two hexadecimal digits, not '" + std::string(*service) + "'";
        return false;
    }
    return true;
}

bool readWhich(std::string_view text, Fault& fault, std::string& problem) {
    const std::string whole(text);
    const std::optional<std::string_view> lastText = cutBehind(text, "..");
    const std::optional<std::size_t> first = readNumber(text);
    std::optional<std::size_t> last = first;
    if (lastText) {
        last = lastText->empty() ? std::optional<std::size_t>(kForEver) : readNumber(*lastText);
    }
    if (!first || !last || *last < *first) {
        problem =
            "'" + whole + "' is no N, N.. or N..M with numbers from 1 to " + std::to_string(kLargestNumber);
        return false;
    }
    fault.first = *first;
    fault.last = *last;
    return true;
}

bool readValue(std::optional<std::string_view> text, Fault& fault, std::string& problem) {
    const KindRow& row = rowOf(fault.kind);
    const std::string name(row.name);
    if (row.value == Value::kNone) {
        problem = text ? name + " takes no ':VALUE'" : "";
        return !text;
    }
    std::optional<std::size_t> number;
    if (text && row.value == Value::kResponseCode) {
        number = readByte(*text);
    } else if (text) {
        number = readNumber(*text);
    }
    if (!number) {
        problem = name + (row.value == Value::kResponseCode
                              ? " needs ':CODE', two hexadecimal digits"
                              : " needs ':NUMBER', from 1 to " + std::to_string(kLargestNumber));
        return false;
    }
    fault.value = static_cast<std::uint32_t>(*number);
    return true;
}

bool applies(const Fault& fault, std::size_t number) {
    return number >= fault.first && number <= fault.last;
}

}  // namespace

std::optional<Fault> parseFault(const std::string& text, std::string& error) {
    std::string_view kind = text;
    std::string problem = "'=' is missing";
    Fault fault;
    std::optional<std::string_view> which = cutBehind(kind, "=");
    if (which) {
        const std::optional<std::string_view> value = cutBehind(*which, ":");
        if (readKind(kind, fault, problem) && readWhich(*which, fault, problem) &&
            readValue(value, fault, problem)) {
            return fault;
        }
    }
    error = "the fault '" + text + "' is not KIND[@SERVICE]=FIRST[..[LAST]][:VALUE]: " + problem;
    return std::nullopt;
}

std::string faultKindsText() {
    constexpr std::size_t kColumn = 12;
    std::string text;
    for (const KindRow& row : kKinds) {
        text +=
            "  " + std::string(row.name) + std::string(kColumn - row.name.size(), ' ') + row.meaning + "\n";
    }
    return text;
}

bool FaultPlan::strikes(const Fault& fault, std::uint8_t service, bool repeated) const {
    const Counted counted = rowOf(fault.kind).counted;
    if (counted == Counted::kBlocks || (fault.service && *fault.service != service)) {
        return false;
    }
    const Count& count = fault.service ? requestsOf.at(service) : requests;
    if (counted == Counted::kArrived) {
        return applies(fault, count.arrived);
    }
    return !repeated && applies(fault, count.carriedOut);
}

Fate FaultPlan::nextRequest(std::uint8_t service, bool repeated) {
    for (Count* count : {&requests, &requestsOf[service]}) {
        ++count->arrived;
        count->carriedOut += repeated ? 0 : 1;
    }
    Fate fate;
    for (const Fault& fault : faults) {
        if (!strikes(fault, service, repeated)) {
            continue;
        }
        switch (fault.kind) {
            case FaultKind::kDrop:
                fate.drop = true;
                break;
            case FaultKind::kLose:
                fate.lose = true;
                break;
            case FaultKind::kDamage:
                fate.damage = true;
                break;
            case FaultKind::kDelay:
                fate.delay += Milliseconds(fault.value);
                break;
            case FaultKind::kBusy:
                fate.refusal = uds::kBusyRepeatRequest;
                break;
            case FaultKind::kPending:
                fate.pending += fault.value;
                break;
            case FaultKind::kRefuse:
                fate.refusal = static_cast<std::uint8_t>(fault.value);
                break;
            case FaultKind::kPowerLoss:
            case FaultKind::kCorrupt:
                break;
        }
    }
    return fate;
}

BlockFault FaultPlan::nextBlock() {
    const std::size_t number = ++blocks;
    BlockFault result = BlockFault::kNone;
    for (const Fault& fault : faults) {
        if (rowOf(fault.kind).counted != Counted::kBlocks || !applies(fault, number)) {
            continue;
        }
        if (fault.kind == FaultKind::kPowerLoss) {
            return BlockFault::kPowerLoss;
        }
        result = BlockFault::kCorrupt;
    }
    return result;
}

}  // namespace kavro::emulator
