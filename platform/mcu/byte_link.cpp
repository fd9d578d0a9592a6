#include "platform/mcu/byte_link.h"

#include <sys/un.h>

#include "platform/mcu/serial_link.h"
#include "platform/mcu/spidev_link.h"
#include "platform/mcu/unix_link.h"

namespace kavro {
namespace {

struct KindName {
    const char* prefix;
    LinkAddress::Kind kind;
};

constexpr KindName kKinds[] = {
    {"spidev:", LinkAddress::Kind::kSpidev},
    {"serial:", LinkAddress::Kind::kSerial},
    {"unix:", LinkAddress::Kind::kUnix},
};

// With its ending zero a path has to fit into the address of a socket.
constexpr std::size_t kMaxSocketPathChars = sizeof(sockaddr_un::sun_path) - 1;

bool checkPath(const LinkAddress& address, std::string& error) {
    if (address.path.empty() || address.path.front() != '/') {
        error = "the path does not begin with '/'";
        return false;
    }
    if (address.kind == LinkAddress::Kind::kUnix && address.path.size() > kMaxSocketPathChars) {
        error = "the path of a socket has at most " + std::to_string(kMaxSocketPathChars) + " characters";
        return false;
    }
    return true;
}

}  // namespace

std::optional<LinkAddress> parseLinkAddress(const std::string& text, std::string& error) {
    for (const KindName& row : kKinds) {
        const std::string prefix = row.prefix;
        if (text.compare(0, prefix.size(), prefix) != 0) {
            continue;
        }
        LinkAddress address = {row.kind, text.substr(prefix.size())};
        if (!checkPath(address, error)) {
            error.insert(0, text + ": ");
            return std::nullopt;
        }
        return address;
    }
    error = "\"" + text + "\" is none of \"spidev:/dev/spidevB.C\", \"serial:/dev/ttyN\", \"unix:PATH\"";
    return std::nullopt;
}

std::unique_ptr<ByteLink> openByteLink(const std::string& address, std::string& error) {
    const std::optional<LinkAddress> parsed = parseLinkAddress(address, error);
    if (!parsed) {
        return nullptr;
    }
    switch (parsed->kind) {
        case LinkAddress::Kind::kSpidev:
            return openSpidevLink(parsed->path, error);
        case LinkAddress::Kind::kSerial:
            return openSerialLink(parsed->path, error);
        case LinkAddress::Kind::kUnix:
            break;
    }
    return openUnixLink(parsed->path, error);
}

}  // namespace kavro
