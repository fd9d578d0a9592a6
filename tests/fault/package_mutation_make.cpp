// Makes packages with something wrong, for package_mutation.sh:
//
//   package_mutation_make kinds               their names
//   package_mutation_make list full           the ids: KIND:SEED
//   package_mutation_make list quick WORD     some of each kind, drawn from these by the word
//   package_mutation_make make ID FILE DIR    that package, and in DIR the components that a device may flash from it
//
// A kind's seed says which of its many forms; the same id gives the same package, but for keys and signatures.

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <numeric>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/tar_archive.h"
#include "tests/support/test_package.h"

namespace {

using testsupport::SigningKey;
using testsupport::TarEntry;
using testsupport::TestPackage;
using testsupport::Trailer;

// The package at work.
struct Mutation {
    explicit Mutation(unsigned seed) : random(seed) {
        package.setVersions(1, 105, 8, 3);
        const auto files = package.files();
        for (const std::string& name : testsupport::componentNames()) {
            entries.push_back({name, files.at(name)});
            entries.push_back({name + ".sign", files.at(name + ".sign")});
            flashable[name] = files.at(name);
        }
    }

    std::size_t below(std::size_t limit) {
        return std::uniform_int_distribution<std::size_t>(0, limit - 1)(random);
    }
    TarEntry& named(const std::string& name) {
        return *std::find_if(entries.begin(), entries.end(),
                             [&](const TarEntry& entry) { return entry.name == name; });
    }
    const std::string& anyComponent() { return testsupport::componentNames()[below(7)]; }
    TarEntry& anyEntry() { return entries[below(entries.size())]; }
    void sign(const std::string& component) {
        named(component + ".sign").content = SigningKey::shared().sign(named(component).content);
        flashable[component] = named(component).content;
    }
    void flipBit(std::string& bytes, std::size_t from, std::size_t to) {
        char& byte = bytes.at(from + below(to - from));
        byte = static_cast<char>(byte ^ (1 << below(8)));
    }

    std::mt19937 random;
    TestPackage package;
    std::vector<TarEntry> entries;                 // become the payload,
    std::function<void(std::string&)> afterwards;  // which this changes; the md5 is that of the result
    std::map<std::string, std::string> flashable;
};

// An entry in front of another one that says more about it.
void putBefore(Mutation& mutation, const std::string& name, const TarEntry& extra) {
    const auto place = std::find_if(mutation.entries.begin(), mutation.entries.end(),
                                    [&](const TarEntry& entry) { return entry.name == name; });
    mutation.entries.insert(place, extra);
}

// --- the file and its trailer ---------------------------------------------------------------------------------------

void asItIs(Mutation& /*mutation*/) {}

void truncated(Mutation& mutation) {
    mutation.package.setTotalSize(testsupport::kPackageBytes - 1 -
                                  mutation.below(testsupport::kPackageBytes - 1));
}

void padded(Mutation& mutation) {
    mutation.package.setTotalSize(testsupport::kPackageBytes + 1 + mutation.below(1 << 20));
}

// A field that moves others, and then any byte of the trailer.
void editTrailer(Mutation& mutation) {
    const std::size_t which = mutation.below(10);
    const std::size_t number = mutation.below(1 << 16);
    mutation.package.editTrailer([=](Trailer& trailer) {
        const std::string text = testsupport::hexText(number);
        switch (which) {
            case 0:
                trailer.payloadLength = text;
                break;
            case 1:
                trailer.keyLength = text;
                break;
            case 2:
                trailer.branchLength = text;
                break;
            case 3:
                trailer.userLength = text;
                break;
            case 4:
                trailer.payloadLength = "FFFFFFFF";
                break;
            case 5:
                trailer.keyLength = "FFFFFFFF";
                break;
            case 6:
                trailer.branchLength = "FFFFFFFF";
                break;
            case 7:
                trailer.key = "no key";
                trailer.keyLength = testsupport::hexText(6);
                break;
            case 8:
                trailer.version = "-01+02 3 abc";
                break;
            default:
                trailer.md5.assign(32, 'g');
                break;
        }
    });
}

void flipTrailer(Mutation& mutation) {
    const std::size_t bit = mutation.below(std::size_t{460} * 8);
    mutation.package.editTrailer([bit](Trailer& trailer) {
        std::string* const fields[] = {&trailer.payloadLength, &trailer.md5,          &trailer.keyLength,
                                       &trailer.key,           &trailer.stamp,        &trailer.ident,
                                       &trailer.version,       &trailer.branchLength, &trailer.branch,
                                       &trailer.userLength,    &trailer.user};
        std::size_t at = bit / 8;
        for (std::string* field : fields) {
            if (at < field->size()) {
                (*field)[at] = static_cast<char>((*field)[at] ^ (1 << bit % 8));
                return;
            }
            at -= field->size();
        }
        trailer.fill = 'x';
    });
}

void otherKeyInTrailer(Mutation& mutation) {
    mutation.package.editTrailer([](Trailer& trailer) {
        trailer.key = SigningKey().publicKey();
        trailer.keyLength = testsupport::hexText(trailer.key.size());
    });
}

// The whole package by somebody else's key: nothing tells a device whose key it is.
void otherKey(Mutation& mutation) {
    static const SigningKey other;
    for (const std::string& name : testsupport::componentNames()) {
        mutation.named(name + ".sign").content = other.sign(mutation.named(name).content);
    }
    mutation.package.editTrailer([](Trailer& trailer) {
        trailer.key = other.publicKey();
        trailer.keyLength = testsupport::hexText(trailer.key.size());
    });
}

// --- the payload ----------------------------------------------------------------------------------------------------

void flipPayload(Mutation& mutation) {
    mutation.package.flipPayloadByte(static_cast<long>(mutation.below(30000)));
}

// As by who changes a package, not as in transit.
void flipPayloadWithMd5(Mutation& mutation) {
    mutation.afterwards = [&mutation](std::string& payload) { mutation.flipBit(payload, 0, payload.size()); };
}

void flipHeader(Mutation& mutation) {
    const std::vector<std::size_t> headers = testsupport::headersOf(mutation.entries);
    const std::size_t header = headers[mutation.below(headers.size())];
    mutation.afterwards = [&mutation, header](std::string& payload) {
        mutation.flipBit(payload, header, header + 345);
        testsupport::repairChecksum(payload, header);
    };
}

void flipContent(Mutation& mutation) {
    TarEntry& entry = mutation.named(mutation.anyComponent());
    mutation.flipBit(entry.content, 0, entry.content.size());
}

void flipSignature(Mutation& mutation) {
    TarEntry& entry = mutation.named(mutation.anyComponent() + ".sign");
    mutation.flipBit(entry.content, 0, entry.content.size());
}

void cutPayload(Mutation& mutation) {
    mutation.afterwards = [&mutation](std::string& payload) {
        payload.resize(mutation.below(payload.size()));
    };
}

void emptyPayload(Mutation& mutation) {
    mutation.entries.clear();
    mutation.afterwards = [&mutation](std::string& payload) { payload.resize(mutation.below(3) * 512); };
}

void noArchive(Mutation& mutation) {
    mutation.afterwards = [&mutation](std::string& payload) {
        std::generate(payload.begin(), payload.end(), [&] { return static_cast<char>(mutation.below(256)); });
    };
}

void compressed(Mutation& mutation) {
    static const char* const kTools[] = {"gzip -nc", "bzip2 -c", "xz -c", "zstd -qc"};
    const std::string tool = kTools[mutation.below(4)];
    mutation.afterwards = [tool](std::string& payload) {
        const std::string plain =
            std::filesystem::temp_directory_path() / ("mutation." + std::to_string(getpid()));
        std::ofstream(plain, std::ios::binary) << payload;
        FILE* const output = popen((tool + " <" + plain).c_str(), "re");
        payload.clear();
        for (int byte = 0; (byte = std::getc(output)) != EOF;) {
            payload += static_cast<char>(byte);
        }
        (void)pclose(output);
        std::filesystem::remove(plain);
        if (payload.empty()) {
            throw std::runtime_error(tool + " is missing");
        }
    };
}

// --- the entries ----------------------------------------------------------------------------------------------------

void missingEntry(Mutation& mutation) {
    mutation.entries.erase(mutation.entries.begin() +
                           static_cast<long>(mutation.below(mutation.entries.size())));
}

void shuffledEntries(Mutation& mutation) {
    std::shuffle(mutation.entries.begin(), mutation.entries.end(), mutation.random);
}

void swappedContents(Mutation& mutation) {
    const std::string& first = mutation.anyComponent();
    std::string second = first;
    while (second == first) {
        second = mutation.anyComponent();
    }
    std::swap(mutation.named(first).content, mutation.named(second).content);
}

// A signature does not cover the name.
void swappedWithSignatures(Mutation& mutation) {
    std::swap(mutation.named("Image").content, mutation.named("cv22_kavro_qz7.dtb").content);
    mutation.sign("Image");
    mutation.sign("cv22_kavro_qz7.dtb");
}

void oldSignature(Mutation& mutation) {
    const std::string& name = mutation.anyComponent();
    mutation.named(name + ".sign").content = SigningKey::shared().sign("what it was before");
}

void duplicate(Mutation& mutation) {
    TarEntry again = mutation.anyEntry();
    switch (mutation.below(3)) {
        case 0:
            break;
        case 1:
            again.content = "something else";
            break;
        default:
            again.content.clear();
            break;
    }
    const bool first = mutation.below(2) == 0;
    mutation.entries.insert(first ? mutation.entries.begin() : mutation.entries.end(), again);
}

// An entry that is no file, under the name of one that must be there.
void otherType(Mutation& mutation) {
    TarEntry& entry = mutation.anyEntry();
    static constexpr char kTypes[] = {'3', '4', '5', '6', '7', 'x', 'g', 'L', 'K', 'S', 'V', 'Z'};
    entry.type = kTypes[mutation.below(sizeof kTypes)];
    entry.major = 1;
    entry.minor = 5;
    if (entry.type >= '3' && entry.type <= '6') {
        entry.content.clear();
    }
}

void fifo(Mutation& mutation) {
    TarEntry& entry = mutation.anyEntry();
    entry.type = '6';
    entry.content.clear();
}

// In the place of a component or signature, or beside them.
void linkEntry(Mutation& mutation) {
    static const char* const kTargets[] = {"ext4",          "Image.sign", "/config/upgrade_last_runtime",
                                           "../../config",  "/dev/zero",  "/dev/disk/by-partlabel/rootfs_a",
                                           "no such thing", "/",          ".",
                                           "/proc/self/mem"};
    TarEntry made = {"link", "", mutation.below(3) == 0 ? '1' : '2', kTargets[mutation.below(10)]};
    if (mutation.below(3) != 0) {
        TarEntry& entry = mutation.anyEntry();
        made.name = entry.name;
        entry = made;
    } else {
        mutation.entries.insert(mutation.entries.begin(), made);
    }
}

// A link that leads out, and then files that would be written through it.
void linkThenThrough(Mutation& mutation) {
    static const char* const kTargets[] = {"/config", "/firmware", "../..", "/etc/kavro",
                                           "/dev/disk/by-partlabel"};
    static const char* const kFiles[] = {"way/upgraded", "way/current.pkg", "way/platform.json",
                                         "way/kernel_a", "way"};
    const TarEntry way = {"way", "", '2', kTargets[mutation.below(5)]};
    const TarEntry through = {kFiles[mutation.below(5)], "written from outside"};
    mutation.entries.insert(mutation.entries.begin(), {way, through});
}

void outsideName(Mutation& mutation) {
    static const char* const kNames[] = {"../evil",
                                         "/config/evil",
                                         "../../config/upgraded",
                                         "a/../../../evil",
                                         "/tmp/pubkey",
                                         "./../../../run/evil",
                                         "//etc/kavro/evil",
                                         "..",
                                         "../upgrade/Image",
                                         "/dev/disk/by-partlabel/kernel_a"};
    const TarEntry outside = {kNames[mutation.below(10)], "written from outside"};
    mutation.entries.insert(
        mutation.entries.begin() + static_cast<long>(mutation.below(mutation.entries.size())), outside);
}

void componentRenamed(Mutation& mutation) {
    TarEntry& entry = mutation.anyEntry();
    static const char* const kFronts[] = {"./", "sub/", "../upgrade/", "/raw/upgrade/", ".//"};
    entry.name = kFronts[mutation.below(5)] + entry.name;
}

void besides(Mutation& mutation) {
    static const char* const kNames[] = {"notes.txt",      "a,b",   "-rf", "$(reboot)", "a b",
                                         "ext4.sign.sign", "IMAGE", "x\ny"};
    mutation.entries.push_back({kNames[mutation.below(8)], "something"});
}

void longName(Mutation& mutation) {
    const std::string name(1 + mutation.below(400), 'n');
    const bool gnu = mutation.below(2) == 0;
    TarEntry more;
    more.name = gnu ? "././@LongLink" : "PaxHeaders/x";
    more.type = gnu ? 'L' : 'x';
    more.content = gnu ? name + '\0' : testsupport::paxAttribute("path", name);
    mutation.entries.push_back(more);
    mutation.entries.push_back({name.substr(0, 100), "something"});
}

// What a pax header says takes the place of what the entry's own header says.
void pax(Mutation& mutation) {
    static const char* const kAttributes[][2] = {
        {"path", "../../config/evil"}, {"path", "ext4"},          {"size", "1"},
        {"size", "99999999999"},       {"linkpath", "/config"},   {"uid", "9999999999"},
        {"mtime", "99999999999999"},   {"GNU.sparse.major", "1"}, {"SCHILY.xattr.user.x", "y"},
        {"charset", "BINARY"},         {"comment", "harmless"},   {"hdrcharset", "x"}};
    const auto& attribute = kAttributes[mutation.below(12)];
    TarEntry header;
    header.name = "PaxHeaders/x";
    header.type = mutation.below(4) == 0 ? 'g' : 'x';
    header.content = testsupport::paxAttribute(attribute[0], attribute[1]);
    putBefore(mutation, mutation.anyEntry().name, header);
}

// The size that a header states is not that of the content.
void wrongSize(Mutation& mutation) {
    TarEntry& entry = mutation.anyEntry();
    const long right = static_cast<long>(entry.content.size());
    static constexpr long kChanges[] = {-1, 1, 511, 512, 513, 4096, 1L << 30, (1L << 33) - 1};
    entry.size = std::max(0L, (right + kChanges[mutation.below(8)]) % (1L << 33));
}

void noMode(Mutation& mutation) {
    static constexpr unsigned kModes[] = {0, 04755, 02755, 0111, 07777, 0222};
    mutation.anyEntry().mode = kModes[mutation.below(6)];
}

void otherOwner(Mutation& mutation) {
    TarEntry& entry = mutation.anyEntry();
    entry.owner = static_cast<unsigned>(1 + mutation.below(2097150));
}

void emptyComponent(Mutation& mutation) {
    const std::string& name = mutation.anyComponent();
    mutation.named(name).content.clear();
    mutation.sign(name);
}

// More than a small disk takes; the script gives the device one.
void bomb(Mutation& mutation) {
    const std::string content(std::size_t{24} << 20, 'b');
    mutation.entries.insert(mutation.entries.begin(), {"filler", content});
}

// More files than a disk has room for.
void manyFiles(Mutation& mutation) {
    for (int index = 0; index < 20000; ++index) {
        mutation.entries.push_back({"f" + std::to_string(index), ""});
    }
}

// A component of another release of the same maker, with its signature: only the list tells.
void mixedReleases(Mutation& mutation) {
    TestPackage other;
    other.setVersions(1, 106, 9, 4)
        .setComponent("bld_release.bin", std::string(2048, 'C'))
        .setComponent("cv22_kavro_qz7.dtb", testsupport::deviceTree(128))
        .setComponent("ext4", testsupport::rootFileSystem(32768))
        .setComponent("Image", testsupport::kernelImage(8192))
        .setComponent("mcu_flash_drv.s19", testsupport::srecords(0x20000000, std::string(128, 'E')));
    const auto files = other.files();
    const std::string& name = mutation.anyComponent();
    mutation.named(name).content = files.at(name);
    mutation.named(name + ".sign").content = files.at(name + ".sign");
    mutation.flashable[name] = files.at(name);
}

// The same release under other versions.
void otherVersions(Mutation& mutation) {
    const std::string version = testsupport::versionText(1, 999, 8, static_cast<int>(mutation.below(1000)));
    mutation.package.editTrailer([version](Trailer& trailer) { trailer.version = version; });
}

// A list that is none, or not of this form.
void foreignList(Mutation& mutation) {
    static const char* const kLists[] = {"hw 1\n", "release_list 2\nhardware 1\n",
                                         "release_list 1\nhardware 1\n", "release_list 1", "\n"};
    mutation.named("version_list.acs").content = kLists[mutation.below(5)];
    mutation.sign("version_list.acs");
}

// --- the kinds ------------------------------------------------------------------------------------------------------

struct Kind {
    const char* name;
    unsigned quick;  // how many of each series
    unsigned full;
    void (*make)(Mutation& mutation);
};

constexpr Kind kKinds[] = {
    {"as_it_is", 1, 3, asItIs},
    {"truncated", 1, 10, truncated},
    {"padded", 1, 5, padded},
    {"trailer_field", 2, 40, editTrailer},
    {"trailer_bit", 3, 120, flipTrailer},
    {"other_key_in_trailer", 1, 2, otherKeyInTrailer},
    {"other_key", 1, 3, otherKey},
    {"payload_bit", 1, 30, flipPayload},
    {"payload_bit_and_md5", 2, 60, flipPayloadWithMd5},
    {"header_bit", 3, 120, flipHeader},
    {"content_bit", 1, 30, flipContent},
    {"signature_bit", 1, 30, flipSignature},
    {"payload_cut", 1, 20, cutPayload},
    {"payload_empty", 1, 3, emptyPayload},
    {"no_archive", 1, 5, noArchive},
    {"compressed", 1, 6, compressed},
    {"missing", 1, 14, missingEntry},
    {"shuffled", 1, 5, shuffledEntries},
    {"swapped", 1, 10, swappedContents},
    {"swapped_with_signatures", 1, 2, swappedWithSignatures},
    {"mixed_releases", 2, 14, mixedReleases},
    {"other_versions", 1, 5, otherVersions},
    {"foreign_list", 2, 10, foreignList},
    {"old_signature", 1, 7, oldSignature},
    {"duplicate", 2, 40, duplicate},
    {"other_type", 2, 40, otherType},
    {"fifo", 1, 14, fifo},
    {"link", 3, 60, linkEntry},
    {"link_then_through", 2, 20, linkThenThrough},
    {"outside_name", 2, 30, outsideName},
    {"component_renamed", 1, 20, componentRenamed},
    {"besides", 1, 16, besides},
    {"long_name", 1, 20, longName},
    {"pax", 2, 50, pax},
    {"wrong_size", 2, 30, wrongSize},
    {"mode", 1, 12, noMode},
    {"owner", 1, 10, otherOwner},
    {"empty_component", 1, 7, emptyComponent},
    {"bomb", 1, 3, bomb},
    {"many_files", 1, 1, manyFiles},
};

std::vector<unsigned> allSeeds(const Kind& kind) {
    std::vector<unsigned> seeds(kind.full);
    std::iota(seeds.begin(), seeds.end(), 1);
    return seeds;
}

// Of each kind some, the same for the same word. The shuffle is our own, for that of a library may change.
std::vector<unsigned> drawnSeeds(const Kind& kind, const std::string& word) {
    const std::string text = word + kind.name;
    std::seed_seq sequence(text.begin(), text.end());
    std::mt19937 random(sequence);
    std::vector<unsigned> seeds = allSeeds(kind);
    for (unsigned place = 0; place < kind.quick; ++place) {
        std::swap(seeds[place], seeds[place + random() % (kind.full - place)]);
    }
    seeds.resize(kind.quick);
    return seeds;
}

// One of each kind, then the second of each, so that a series that is cut short has tried all kinds.
void list(const std::function<std::vector<unsigned>(const Kind& kind)>& choose) {
    bool any = true;
    for (std::size_t round = 0; any; ++round) {
        any = false;
        for (const Kind& kind : kKinds) {
            const std::vector<unsigned> seeds = choose(kind);
            if (round < seeds.size()) {
                std::printf("%s:%u\n", kind.name, seeds[round]);
                any = true;
            }
        }
    }
}

const Kind& kindOf(const std::string& name) {
    for (const Kind& kind : kKinds) {
        if (name == kind.name) {
            return kind;
        }
    }
    throw std::runtime_error("there is no kind '" + name + "'");
}

void make(const std::string& id, const std::string& file, const std::string& directory) {
    const std::size_t colon = id.find(':');
    const Kind& kind = kindOf(id.substr(0, colon));
    Mutation mutation(static_cast<unsigned>(std::stoul(id.substr(colon + 1))));
    kind.make(mutation);
    std::string payload = testsupport::tarArchive(mutation.entries);
    if (mutation.afterwards) {
        mutation.afterwards(payload);
    }
    mutation.package.setPayload(payload).writeTo(file);
    std::filesystem::create_directories(directory);
    for (const auto& [name, content] : mutation.flashable) {
        std::ofstream(std::filesystem::path(directory) / name, std::ios::binary) << content;
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> words(argv + 1, argv + argc);
    try {
        if (words == std::vector<std::string>{"kinds"}) {
            for (const Kind& kind : kKinds) {
                std::printf("%s\n", kind.name);
            }
            return 0;
        }
        if (words == std::vector<std::string>{"list", "full"}) {
            list(allSeeds);
            return 0;
        }
        if (words.size() == 3 && words[0] == "list" && words[1] == "quick") {
            list([&words](const Kind& kind) { return drawnSeeds(kind, words[2]); });
            return 0;
        }
        if (words.size() == 4 && words[0] == "make") {
            make(words[1], words[2], words[3]);
            return 0;
        }
    } catch (const std::exception& problem) {
        std::fprintf(stderr, "package_mutation_make: %s\n", problem.what());
        return 1;
    }
    std::fprintf(stderr,
                 "usage: package_mutation_make kinds | list full | list quick WORD | make ID FILE DIR\n");
    return 2;
}
