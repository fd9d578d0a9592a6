#include "platform/mcu/file_mcu_link.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "common/utility.h"
#include "platform/mcu/mcu_image.h"
#include "platform/mcu/raw_file.h"

namespace kavro {
namespace {

constexpr std::size_t kBlockBytes = 4096;  // what is erased, written and compared at once

using Image = std::vector<std::uint8_t>;  // of the application's flash, from kMcuApplicationStart on

Image erasedImage() {
    return Image(kMcuApplicationBytes, kMcuErasedByte);
}

// What the application's flash holds once the application, which must have been checked, is in it.
Image imageOf(const std::vector<Segment>& application) {
    Image image = erasedImage();
    for (const Segment& segment : application) {
        std::copy(segment.bytes.begin(), segment.bytes.end(),
                  image.begin() + static_cast<long>(segment.address - kMcuApplicationStart));
    }
    return image;
}

// The opened flash memory. Every step names the file in the error it leaves.
class Flash {
  public:
    explicit Flash(const std::string& flashPath) : path(flashPath) {}

    bool open(int flags, std::string& error) {
        if (!file.open(path, flags)) {
            return fail("cannot be opened", errno, error);
        }
        if (file.size() != kMcuFlashBytes) {
            return fail("is no flash memory of " + std::to_string(kMcuFlashBytes) + " bytes", 0, error);
        }
        return true;
    }

    bool read(void* buffer, std::size_t size, std::uint32_t address, std::string& error) const {
        const long count = file.readAt(buffer, size, address);
        if (count != static_cast<long>(size)) {
            return fail("cannot be read", count < 0 ? errno : 0, error);
        }
        return true;
    }

    bool write(const std::uint8_t* data, std::size_t size, std::uint32_t address, std::string& error) const {
        return file.writeAt(data, size, address) || fail("cannot be written", errno, error);
    }

    bool flush(std::string& error) const { return file.flush() || fail("cannot be flushed", errno, error); }

    // Writes an image block by block, up to where keepGoing ends it.
    bool writeImage(const Image& image, const KeepGoing& keepGoing, std::string& error) const {
        for (std::size_t offset = 0; offset < image.size(); offset += kBlockBytes) {
            if (!keepGoing()) {
                return fail("programming was given up", 0, error);
            }
            const std::size_t size = std::min(kBlockBytes, image.size() - offset);
            if (!write(image.data() + offset, size, addressOf(offset), error)) {
                return false;
            }
        }
        return flush(error);
    }

    // Whether storage holds exactly the image.
    bool compareImage(const Image& image, std::string& error) const {
        file.dropCache();
        Image block(kBlockBytes);
        for (std::size_t offset = 0; offset < image.size(); offset += kBlockBytes) {
            const std::size_t size = std::min(kBlockBytes, image.size() - offset);
            if (!read(block.data(), size, addressOf(offset), error)) {
                return false;
            }
            if (!std::equal(block.begin(), block.begin() + static_cast<long>(size),
                            image.begin() + static_cast<long>(offset))) {
                return fail("does not hold what was written", 0, error);
            }
        }
        return true;
    }

    bool fail(const std::string& what, int errorNumber, std::string& error) const {
        error = fileError(path, what, errorNumber);
        return false;
    }

  private:
    static std::uint32_t addressOf(std::size_t offset) {
        return kMcuApplicationStart + static_cast<std::uint32_t>(offset);
    }

    const std::string path;
    RawFile file;
};

// Takes the magic out of the header, so that the rest can be written without the application becoming valid.
void blankMagic(Image& image) {
    std::fill_n(image.begin(), kMcuMagicBytes, kMcuErasedByte);
}

// Programming on flash that is already open. The order makes it safe to be interrupted anywhere: first the
// old header goes, so that the half-erased application is not taken for one, and last comes the new magic,
// when everything else is on storage and was read back.
bool programImage(const Flash& flash, Image image, const KeepGoing& keepGoing, std::string& error) {
    const std::vector<std::uint8_t> noMagic(kMcuMagicBytes, 0);
    blankMagic(image);
    if (!keepGoing()) {
        return flash.fail("programming was given up", 0, error);
    }
    if (!flash.write(noMagic.data(), noMagic.size(), kMcuApplicationStart, error) || !flash.flush(error)) {
        return false;
    }
    if (!flash.writeImage(erasedImage(), keepGoing, error) || !flash.writeImage(image, keepGoing, error) ||
        !flash.compareImage(image, error)) {
        return false;
    }
    if (!keepGoing()) {
        return flash.fail("programming was given up", 0, error);
    }
    std::copy(kMcuMagic.begin(), kMcuMagic.end(), image.begin());
    return flash.write(kMcuMagic.data(), kMcuMagic.size(), kMcuApplicationStart, error) &&
           flash.flush(error) && flash.compareImage(image, error);
}

}  // namespace

FileMcuLink::FileMcuLink(std::string flashFile) : flashPath(std::move(flashFile)) {}

bool FileMcuLink::probe(std::string& error) {
    Flash flash(flashPath);
    return flash.open(O_RDWR, error);
}

bool FileMcuLink::setLink(bool on, std::string& error) {
    return !on || probe(error);
}

std::optional<int> FileMcuLink::version(std::string& error) {
    Flash flash(flashPath);
    std::array<std::uint8_t, kMcuHeaderBytes> header{};
    if (!flash.open(O_RDONLY, error) ||
        !flash.read(header.data(), header.size(), kMcuApplicationStart, error)) {
        return std::nullopt;
    }
    const std::optional<int> version = headerVersion(header);
    if (!version) {
        flash.fail("holds no complete application", 0, error);
    }
    return version;
}

bool FileMcuLink::program(const McuFirmware& firmware, const KeepGoing& keepGoing, std::string& error) {
    if (!checkFlashDriver(firmware.flashDriver, error)) {
        error.insert(0, "flash driver: ");
        return false;
    }
    if (!checkApplication(firmware.application, error)) {
        error.insert(0, "application: ");
        return false;
    }
    Flash flash(flashPath);
    return flash.open(O_RDWR, error) && programImage(flash, imageOf(firmware.application), keepGoing, error);
}

bool FileMcuLink::verify(const std::vector<Segment>& application, std::string& error) {
    if (!checkApplication(application, error)) {
        return false;
    }
    Flash flash(flashPath);
    return flash.open(O_RDONLY, error) && flash.compareImage(imageOf(application), error);
}

bool FileMcuLink::requestReset(std::string& error) {
    if (!probe(error)) {
        return false;
    }
    const std::string directory = flashPath.substr(0, flashPath.rfind('/') + 1);
    const std::string path = directory + kMcuResetRequestName;
    std::string text = "reset\n";
    if (COMMON_YR::writeFile(path.c_str(), text.data(), text.size(), false) !=
        static_cast<long>(text.size())) {
        error = fileError(path, "cannot be written", 0);
        return false;
    }
    return true;
}

}  // namespace kavro
