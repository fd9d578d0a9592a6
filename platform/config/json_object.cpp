#include "platform/config/json_object.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <memory>

#include "base/errno_text.h"
#include "base/file_io.h"

namespace kavro {
namespace {

// Such a file has a few hundred bytes; anything of this size is not one.
constexpr std::size_t kMaxFileBytes = 1 << 20;

// The files nest four levels deep.
constexpr int kMaxNesting = 32;

std::string cannotBeRead(int errorNumber) {
    return "cannot be read: " + reasonOf(errorNumber);
}

// The file's text; empty with the reason in `fault` when it cannot be read or is too long.
std::string readText(const std::string& path, std::string& fault) {
    std::string text;
    const bool read = readBeginning(path, kMaxFileBytes + 1, text);
    if (!read || text.size() > kMaxFileBytes) {
        fault = cannotBeRead(read ? EFBIG : errno);
        return {};
    }
    return text;
}

// The first of the parser's complaints, "* Line 3, Column 5\n  Missing ...\n", in one line.
std::string firstComplaint(const std::string& complaints) {
    const std::size_t lineEnd = complaints.find('\n');
    if (complaints.rfind("* ", 0) != 0 || lineEnd == std::string::npos) {
        return complaints;
    }
    const std::string place = complaints.substr(2, lineEnd - 2);
    const std::size_t reason = complaints.find_first_not_of(' ', lineEnd + 1);
    const std::string what =
        reason == std::string::npos ? "" : complaints.substr(reason, complaints.find('\n', reason) - reason);
    std::string text = place + ": " + what;
    for (const char* word : {"Line", "Column"}) {
        const std::size_t position = text.find(word);
        if (position < place.size()) {
            text[position] = static_cast<char>(std::tolower(text[position]));
        }
    }
    return text;
}

}  // namespace

Json::Value readJsonObject(const std::string& path, std::string& fault) {
    fault.clear();
    const std::string text = readText(path, fault);
    if (!fault.empty()) {
        return {};
    }

    Json::CharReaderBuilder builder;
    builder["stackLimit"] = kMaxNesting;
    builder["failIfExtra"] = true;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    try {
        Json::Value root;
        std::string complaints;
        if (!reader->parse(text.data(), text.data() + text.size(), &root, &complaints)) {
            fault = "is no JSON: " + firstComplaint(complaints);
        } else if (!root.isObject()) {
            fault = "is no JSON object";
        } else {
            return root;
        }
    } catch (const Json::Exception&) {
        fault = "is no JSON: it nests too deeply";
    }
    return {};
}

}  // namespace kavro
