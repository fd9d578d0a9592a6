// A check reads an archive by other means than a device, which has its tar program: what the two could read differently is refused.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <ostream>

#include "package/check.h"
#include "tests/support/device.h"
#include "tests/support/program.h"
#include "tests/support/tar_archive.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_package.h"

namespace {

namespace fs = std::filesystem;
using kavro::package::Check;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testsupport::paxAttribute;
using testsupport::SigningKey;
using testsupport::tarEntry;
using testsupport::TarEntry;
using testsupport::TestPackage;

class ArchiveReading : public testing::Test {
  protected:
    // The archive of a package's 14 files, of which one is replaced by other blocks.
    std::string archiveWith(const std::string& name,
                            const std::function<std::string(const TarEntry& entry)>& blocks) const {
        std::string archive;
        for (const auto& [entryName, bytes] : package.files()) {
            const TarEntry entry = {entryName, bytes};
            archive += entryName == name ? blocks(entry) : tarEntry(entry);
        }
        return archive + std::string(1024, '\0');
    }

    std::vector<std::string> faultsOf(const std::string& archive) {
        package.setPayload(archive).writeTo(file);
        const Check check = kavro::package::check(file).value();
        std::vector<std::string> faults = check.faults;
        for (const kavro::package::ComponentCheck& component : check.components) {
            if (!component.fault.empty()) {
                faults.push_back(component.fault);
            }
        }
        return faults;
    }

    // What a device unpacks.
    std::string unpacked(const std::string& archive, const std::string& name) const {
        testsupport::writeFile(files / "payload.tar", archive);
        const auto result = testsupport::runProgram({"tar", "-xOf", files / "payload.tar", name});
        EXPECT_EQ(result.exitCode, 0) << result.err;
        return result.out;
    }

    const kavro_test::TempDir files;
    const std::string file = files / "release.pkg";
    TestPackage package;
};

// An entry that says more about the one behind it.
std::string attributes(const std::string& text, char type = 'x') {
    TarEntry entry;
    entry.name = "PaxHeaders/x";
    entry.type = type;
    entry.content = text;
    return tarEntry(entry);
}

std::string longName(const std::string& name) {
    return attributes(name + '\0', 'L');
}

// The same entry under another name in its own header.
std::string under(TarEntry entry, const std::string& name) {
    entry.name = name;
    return tarEntry(entry);
}

TEST_F(ArchiveReading, of_bare_headers_is_in_order) {
    EXPECT_THAT(faultsOf(archiveWith("Image", [](const TarEntry& entry) { return tarEntry(entry); })),
                IsEmpty());
}

TEST_F(ArchiveReading, takes_harmless_attributes) {
    EXPECT_THAT(faultsOf(archiveWith("Image",
                                     [](const TarEntry& entry) {
                                         return attributes(paxAttribute("mtime", "1700000000.123456789") +
                                                           paxAttribute("atime", "-1.5") +
                                                           paxAttribute("ctime", "7") +
                                                           paxAttribute("comment", "made by hand") +
                                                           paxAttribute("path", entry.name)) +
                                                under(entry, "x");
                                     })),
                IsEmpty());
}

TEST_F(ArchiveReading, takes_a_long_name) {
    EXPECT_THAT(faultsOf(archiveWith(
                    "Image", [](const TarEntry& entry) { return longName(entry.name) + under(entry, "x"); })),
                IsEmpty());
}

// libarchive takes this attribute for the size of the contents, and passes over what comes behind: a device unpacks all of it.
TEST_F(ArchiveReading, does_not_see_less_of_a_component_than_a_device_unpacks) {
    constexpr std::size_t kBlockOfReader = 65536;
    package.setComponent("ext4", testsupport::rootFileSystem(kBlockOfReader));
    const std::string archive = archiveWith("ext4", [](TarEntry entry) {
        const std::string size = std::to_string(entry.content.size());
        entry.content += std::string(kBlockOfReader, 'E');
        return attributes(paxAttribute("SCHILY.realsize", size)) + tarEntry(entry);
    });
    EXPECT_EQ(unpacked(archive, "ext4").size(), 2 * kBlockOfReader);
    EXPECT_THAT(faultsOf(archive), Contains(HasSubstr("an entry has the attribute 'SCHILY.realsize'")));
}

struct Reading {
    const char* name;
    std::function<std::string(const TarEntry& entry)> blocks;  // in the place of a component
    const char* fault;
};

void PrintTo(const Reading& reading, std::ostream* out) {
    *out << reading.name;
}

class DoubtfulEntry : public ArchiveReading, public testing::WithParamInterface<Reading> {};

TEST_P(DoubtfulEntry, is_refused_though_a_device_may_take_it) {
    const std::string archive = archiveWith("Image", GetParam().blocks);
    EXPECT_THAT(faultsOf(archive), Contains(HasSubstr(GetParam().fault)));
}

Reading attribute(const char* name, const std::string& keyword, const std::string& value, const char* fault) {
    return {name,
            [=](const TarEntry& entry) { return attributes(paxAttribute(keyword, value)) + tarEntry(entry); },
            fault};
}

std::string sizeText(const TarEntry& entry) {
    return std::to_string(entry.content.size());
}

// As GNU tar writes it: the map lies in front of the contents.
std::string sparsePax(const TarEntry& entry) {
    TarEntry made = entry;
    made.name = "GNUSparseFile.0/x";
    std::string map = "1\n0\n" + sizeText(entry) + "\n";
    map.resize(512, '\0');
    made.content = map + entry.content;
    return attributes(paxAttribute("GNU.sparse.major", "1") + paxAttribute("GNU.sparse.minor", "0") +
                      paxAttribute("GNU.sparse.name", entry.name) +
                      paxAttribute("GNU.sparse.realsize", sizeText(entry))) +
           tarEntry(made);
}

std::string ofType(TarEntry entry, char type) {
    entry.type = type;
    return tarEntry(entry);
}

const std::vector<Reading> kReadings = {
    {"size_of_another_archiver",
     [](const TarEntry& entry) {
         return attributes(paxAttribute("SCHILY.realsize", sizeText(entry))) + tarEntry(entry);
     },
     "an entry has the attribute 'SCHILY.realsize'"},
    {"size_as_attribute",
     [](const TarEntry& entry) {
         return attributes(paxAttribute("size", sizeText(entry))) + tarEntry(entry);
     },
     "an entry has the attribute 'size'"},
    {"sparse_file_of_pax_format", sparsePax, "an entry has the attribute 'GNU.sparse.major'"},
    {"name_of_a_sparse_file",
     [](const TarEntry& entry) {
         return attributes(paxAttribute("GNU.sparse.name", entry.name)) + under(entry, "evil");
     },
     "an entry has the attribute 'GNU.sparse.name'"},
    {"sparse_file",
     [](const TarEntry& entry) {
         std::string blocks = ofType(entry, 'S');
         char map[40];
         std::snprintf(map, sizeof map, "%011o%c%011lo", 0, '\0',
                       static_cast<unsigned long>(entry.content.size()));
         blocks.replace(386, 23, map, 23);
         blocks.replace(483, 11, map + 12, 11);
         testsupport::repairChecksum(blocks, 0);
         return blocks;
     },
     "an entry has the type 'S'"},
    {"contiguous_file", [](const TarEntry& entry) { return ofType(entry, '7'); },
     "an entry has the type '7'"},
    {"long_link",
     [](const TarEntry& entry) { return attributes(std::string("x\0", 2), 'K') + tarEntry(entry); },
     "an entry has the type 'K'"},
    attribute("character_set", "hdrcharset", "BINARY", "an entry has the attribute 'hdrcharset'"),
    attribute("kind_of_file", "SCHILY.filetype", "sparse", "an entry has the attribute 'SCHILY.filetype'"),
    attribute("kind_of_link", "LIBARCHIVE.symlinktype", "dir",
              "an entry has the attribute 'LIBARCHIVE.symlinktype'"),
    attribute("link", "linkpath", "ext4", "an entry has the attribute 'linkpath'"),
    attribute("extended_attribute", "SCHILY.xattr.user.x", "y",
              "an entry has the attribute 'SCHILY.xattr.user.x'"),
    attribute("access_list", "SCHILY.acl.access", "user::rwx",
              "an entry has the attribute 'SCHILY.acl.access'"),
    attribute("security_label", "RHT.security.selinux", "x",
              "an entry has the attribute 'RHT.security.selinux'"),
    attribute("listing_of_a_directory", "GNU.dumpdir", "Yext4", "an entry has the attribute 'GNU.dumpdir'"),
    attribute("part_of_a_volume", "GNU.volume.size", "1", "an entry has the attribute 'GNU.volume.size'"),
    attribute("attribute_with_control_characters", "\x1b[2J", "x", "an entry has the attribute '\\x1b[2J'"),
    attribute("time_that_is_none", "mtime", "yesterday", "an entry has 'yesterday' for its 'mtime'"),
    attribute("owner_that_is_none", "uid", "x", "an entry has 'x' for its 'uid'"),
    {"attribute_twice",
     [](const TarEntry& entry) {
         return attributes(paxAttribute("path", "evil") + paxAttribute("path", entry.name)) +
                under(entry, "x");
     },
     "an entry has the attribute 'path' twice"},
    {"name_with_an_end_inside",
     [](const TarEntry& entry) {
         return attributes(paxAttribute("path", entry.name + std::string("\0evil", 5))) + under(entry, "x");
     },
     "an entry has 'Image\\x00evil' for its 'path'"},
    {"long_name_with_an_end_inside",
     [](const TarEntry& entry) {
         return longName(entry.name + std::string("\0evil", 5)) + under(entry, "x");
     },
     "an entry has 'Image\\x00evil' for its name"},
    {"long_name_and_attributes",
     [](const TarEntry& entry) {
         return attributes(paxAttribute("path", entry.name)) + longName("evil") + under(entry, "x");
     },
     "more than one header stands before an entry"},
    {"long_name_twice",
     [](const TarEntry& entry) { return longName("evil") + longName(entry.name) + under(entry, "x"); },
     "more than one header stands before an entry"},
    {"attributes_twice",
     [](const TarEntry& entry) {
         return attributes(paxAttribute("comment", "x")) + attributes(paxAttribute("path", entry.name)) +
                under(entry, "x");
     },
     "the payload cannot be read as a plain tar archive"},
    {"attribute_of_another_length",
     [](const TarEntry& entry) { return attributes("99 path=x\n") + tarEntry(entry); },
     "the payload cannot be read as a plain tar archive"},
    {"attributes_with_more_behind",
     [](const TarEntry& entry) {
         return attributes(paxAttribute("comment", "x") + "more") + tarEntry(entry);
     },
     "the payload cannot be read as a plain tar archive"},
    {"attributes_of_no_bytes", [](const TarEntry& entry) { return attributes("") + tarEntry(entry); },
     "a header before an entry has 0 bytes"},
    {"attributes_of_many_bytes",
     [](const TarEntry& entry) {
         return attributes(paxAttribute("comment", std::string(70000, 'x'))) + tarEntry(entry);
     },
     "a header before an entry has "},
};

INSTANTIATE_TEST_SUITE_P(ArchiveReading, DoubtfulEntry, testing::ValuesIn(kReadings),
                         [](const testing::TestParamInfo<Reading>& test) {
                             return std::string(test.param.name);
                         });

}  // namespace
