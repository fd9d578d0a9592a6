#include "tests/tools/tool_support.h"

#include <stdexcept>

#include "tests/support/device.h"
#include "tests/support/test_package.h"

namespace tool_test {

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
    testsupport::writeFile(directory / "bld_release.bin", std::string(5000, 'b'));
    testsupport::writeFile(directory / "cv22_kavro_qz7.dtb", testsupport::deviceTree(200));
    testsupport::writeFile(directory / "ext4", testsupport::rootFileSystem(300000));
    testsupport::writeFile(directory / "Image", testsupport::kernelImage(70000));
    testsupport::writeFile(directory / "mcu_flash_app.s19", testsupport::mcuApplication(8));
    testsupport::writeFile(directory / "mcu_flash_drv.s19",
                           testsupport::srecords(kRamStart, "the flash driver's code"));
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

ProgramResult upgradectl(std::vector<std::string> arguments, const std::vector<std::string>& environment) {
    arguments.insert(arguments.begin(), UPGRADECTL);
    return runProgram(arguments, environment);
}

}  // namespace tool_test
