// getKeyString, getStringKey, getCommonErrCode.

#include <cstring>

#include "common/utility.h"

namespace COMMON_YR {
namespace {

constexpr const char* kNoRow = "unknown";

constexpr MapKeyString kErrorTexts[] = {
    {0, "success"},
    {kErrNoFile, "file not exist"},
    {-1, "failed"},
    {kMapKeyEnd, ""},
};

// The first row for which matches(row) holds; null when there is none.
template <typename Matches>
const MapKeyString* findRow(const MapKeyString* table, const Matches& matches) {
    for (const MapKeyString* row = table; row != nullptr && row->key != kMapKeyEnd; ++row) {
        if (row->text != nullptr && matches(*row)) {
            return row;
        }
    }
    return nullptr;
}

}  // namespace

const char* getKeyString(int key, const MapKeyString* table) {
    const MapKeyString* const found =
        findRow(table, [key](const MapKeyString& row) { return row.key == key; });
    return found == nullptr ? kNoRow : found->text;
}

bool getStringKey(const char* name, int& key, const MapKeyString* table) {
    if (name == nullptr) {
        return false;
    }
    const MapKeyString* const found =
        findRow(table, [name](const MapKeyString& row) { return std::strcmp(row.text, name) == 0; });
    if (found == nullptr) {
        return false;
    }
    key = found->key;
    return true;
}

const char* getCommonErrCode(int code) {
    if (code == kErrNoFile) {
        return getKeyString(kErrNoFile, kErrorTexts);
    }
    return getKeyString(code < 0 ? -1 : 0, kErrorTexts);
}

}  // namespace COMMON_YR
