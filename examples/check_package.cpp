// Tells what is in a package, and whether a device that trusts a key would take it.
#include <cstdio>

#include "package/check.h"

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: check_package PACKAGE TRUSTED_KEY\n");
        return 2;
    }
    const auto checked = kavro::package::check(argv[1], argv[2]);
    if (!checked.ok()) {  // there is nothing to check
        const kavro::Error& error = checked.error();
        std::fprintf(stderr, "%s: %s\n%s\n", kavro::nameOf(error.code), error.text.c_str(),
                     error.next.c_str());
        return 2;
    }
    const kavro::package::Check& check = checked.value();
    std::printf("%s, signed with %s\n", kavro::package::formatVersion(check.trailer.version).c_str(),
                check.keyDescription.c_str());
    for (const auto& component : check.components) {
        const bool good = component.fault.empty();
        std::printf("%s: %s\n", component.name.c_str(), good ? "in order" : component.fault.c_str());
    }
    for (const auto& fault : check.faults) {
        std::printf("fault: %s\n", fault.c_str());
    }
    return check.inOrder() ? 0 : 1;
}
