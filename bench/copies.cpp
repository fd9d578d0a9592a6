// Copies and digests of whole packages against the commands that do the same.
#include <unistd.h>

#include <cstdio>
#include <memory>

#include "bench/measurements.h"
#include "bench/sample.h"
#include "common/utility.h"

namespace bench {
namespace {

std::string outputOf(const std::string& command) {
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "re"), pclose);
    char text[256] = {};
    if (pipe == nullptr || std::fgets(text, sizeof(text), pipe.get()) == nullptr) {
        fail(command);
    }
    return text;
}

}  // namespace

void measureCopy(const std::string& source, int rounds, const std::string& command) {
    const std::string copy = source + ".copy";
    const auto prepare = [&] {
        unlink(copy.c_str());
        ::sync();
    };
    comparePairs(
        "cpFile", rounds, prepare, [&] { return COMMON_YR::cpFile(source, copy) == 0; },
        command + " " + source + " " + copy + " && sync " + copy);
    prepare();
}

void measureMd5(const std::string& path, int rounds) {
    const std::string md5 = outputOf("md5sum " + path).substr(0, 32);
    comparePairs(
        "chkFileMd5", rounds, [] {}, [&] { return COMMON_YR::chkFileMd5(path, md5); },
        "openssl md5 " + path + " >/dev/null");
}

}  // namespace bench
