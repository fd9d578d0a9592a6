#include "tests/support/package_parts.h"

#include <stdexcept>

#include "tests/support/device.h"
#include "tests/support/program.h"
#include "tests/support/test_package.h"

namespace testsupport {

namespace fs = std::filesystem;

namespace {

void require(bool condition, const std::string& what) {
    if (!condition) {
        throw std::runtime_error("test support: " + what);
    }
}

}  // namespace

void makeComponents(const fs::path& directory) {
    constexpr std::uint32_t kRamStart = 0x20000000;
    fs::create_directories(directory);
    writeFile(directory / "bld_release.bin", std::string(5000, 'b'));
    writeFile(directory / "cv22_kavro_qz7.dtb", deviceTree(200));
    writeFile(directory / "ext4", rootFileSystem(300000));
    writeFile(directory / "Image", kernelImage(70000));
    writeFile(directory / "mcu_flash_app.s19", mcuApplication(8));
    writeFile(directory / "mcu_flash_drv.s19", srecords(kRamStart, "the flash driver's code"));
}

void makeEcKey(const fs::path& path) {
    const ProgramResult result = runProgram({"openssl", "genpkey", "-algorithm", "EC", "-pkeyopt",
                                             "ec_paramgen_curve:P-256", "-out", path.string()});
    require(result.exitCode == 0, "openssl genpkey: " + result.err);
}

void makeRsaKey(const fs::path& path, int bits) {
    const ProgramResult result =
        runProgram({"openssl", "genpkey", "-algorithm", "RSA", "-pkeyopt",
                    "rsa_keygen_bits:" + std::to_string(bits), "-out", path.string()});
    require(result.exitCode == 0, "openssl genpkey: " + result.err);
}

}  // namespace testsupport
