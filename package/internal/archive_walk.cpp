#include "package/internal/archive_walk.h"

#include <archive.h>
#include <archive_entry.h>

#include <cerrno>
#include <limits>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

namespace kavro::package {

namespace {

constexpr std::size_t kBlockBytes = 65536;

struct ReaderCloser {
    void operator()(archive* reader) const { archive_read_free(reader); }
};
using Reader = std::unique_ptr<archive, ReaderCloser>;

la_ssize_t readFromSource(archive* reader, void* source, const void** data) {
    const long size = (*static_cast<ArchiveSource*>(source))(*data);
    if (size < 0) {
        archive_set_error(reader, EIO, "the package cannot be read");
        return ARCHIVE_FATAL;
    }
    return size;
}

std::string faultOf(archive* reader) {
    const char* text = archive_error_string(reader);
    return text != nullptr ? text : "unknown fault";
}

// A name that this machine's character set lacks is no matter: a device takes its bytes.
bool isAboutCharacters(archive* reader) {
    return faultOf(reader).find("can't be converted") != std::string::npos;
}

std::string nameOf(archive_entry* entry) {
    if (const char* name = archive_entry_pathname(entry)) {
        return name;
    }
    const char* name = archive_entry_pathname_utf8(entry);
    return name != nullptr ? name : "";
}

std::string typeOf(archive_entry* entry) {
    if (archive_entry_hardlink(entry) != nullptr) {
        return "hard link";
    }
    switch (archive_entry_filetype(entry)) {
        case AE_IFREG:
            return "file";
        case AE_IFDIR:
            return "directory";
        case AE_IFLNK:
            return "symbolic link";
        case AE_IFCHR:
        case AE_IFBLK:
            return "device";
        case AE_IFIFO:
            return "fifo";
        default:
            return "unknown";
    }
}

bool isOwner(la_int64_t number) {
    return number >= 0 && number <= std::numeric_limits<std::uint32_t>::max();
}

// A device gives a file to the owner of this name, if it knows one.
bool isRoot(const char* name) {
    return name == nullptr || name[0] == '\0' || std::string_view(name) == "root";
}

Entry describe(archive_entry* entry) {
    const la_int64_t bytes = archive_entry_size(entry);
    const la_int64_t owner = archive_entry_uid(entry);
    const la_int64_t group = archive_entry_gid(entry);
    return {
        nameOf(entry),
        typeOf(entry),
        bytes > 0 ? static_cast<std::uint64_t>(bytes) : 0,
        isOwner(owner) && isOwner(group),
        owner == 0 && group == 0 && isRoot(archive_entry_uname(entry)) && isRoot(archive_entry_gname(entry)),
        archive_entry_perm(entry)};
}

// Returns "", or why not all of the entry's contents have come. The map of a sparse entry may lead far beyond the size
// that its header states: the reader would hand out zeros without end.
std::string passContents(archive* reader, std::vector<char>& block, std::uint64_t bytes,
                         ArchiveVisitor& visitor) {
    while (bytes > 0) {
        const la_ssize_t size = archive_read_data(reader, block.data(), block.size());
        if (size <= 0) {
            return faultOf(reader);
        }
        if (static_cast<std::uint64_t>(size) > bytes) {
            return "an entry holds more than the size that it states";
        }
        visitor.contents(block.data(), static_cast<std::size_t>(size));
        bytes -= static_cast<std::uint64_t>(size);
    }
    return {};
}

}  // namespace

std::string walkArchive(ArchiveSource source, ArchiveVisitor& visitor) {
    const Reader reader(archive_read_new());
    if (reader == nullptr || archive_read_support_format_tar(reader.get()) != ARCHIVE_OK) {
        return "there is no memory to read it";
    }
    if (archive_read_open(reader.get(), &source, nullptr, readFromSource, nullptr) != ARCHIVE_OK) {
        return faultOf(reader.get());
    }
    std::vector<char> block(kBlockBytes);
    for (;;) {
        archive_entry* header = nullptr;
        const int result = archive_read_next_header(reader.get(), &header);
        if (result == ARCHIVE_EOF) {
            return {};
        }
        if (result != ARCHIVE_OK && !(result == ARCHIVE_WARN && isAboutCharacters(reader.get()))) {
            return faultOf(reader.get());
        }
        const Entry entry = describe(header);
        if (!visitor.begin(entry)) {
            continue;
        }
        if (std::string fault = passContents(reader.get(), block, entry.bytes, visitor); !fault.empty()) {
            return fault;
        }
        visitor.end();
    }
}

}  // namespace kavro::package
