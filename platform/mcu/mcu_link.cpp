#include "platform/mcu/mcu_link.h"

#include "platform/mcu/file_mcu_link.h"

namespace kavro {

std::unique_ptr<McuLink> openMcuLink(const PlatformConfig& config, std::string& error) {
    if (config.mcuFlashFile.empty()) {
        error = platformConfigError(config, "\"mcu\" names no \"flash\"");
        return nullptr;
    }
    return std::make_unique<FileMcuLink>(config.mcuFlashFile);
}

}  // namespace kavro
