// Records that programs hand to the driver.
#pragma once
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>
#include "formats/kvr_ioctl.h"

namespace support {

// Of the provisioning codes.
inline SWAP_CONFIG_REQUEST StorageRequest(std::u16string_view volume, std::int64_t bytes = -1) {
    SWAP_CONFIG_REQUEST request{};
    std::copy(volume.begin(), volume.end(), request.VolumeName);
    request.SwapSize = bytes;
    return request;
}

// The configuration with that text.
inline std::vector<std::uint8_t> ConfigRecord(std::u16string_view text) {
    std::vector<std::uint8_t> record(KVR_CONFIG_BYTES);
    std::memcpy(record.data(), text.data(), text.size() * sizeof(char16_t));
    return record;
}

}  // namespace support
