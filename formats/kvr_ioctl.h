// The control device's interface: codes and records, for the driver and for tools in user mode.
// All codes use buffered transfer; all records are little-endian.
#pragma once
#include <cstddef>
#include <cstdint>

inline constexpr std::uint32_t IOCTL_KVR_GET_CONFIG = 0x84048;             // out: exactly KVR_CONFIG_BYTES
inline constexpr std::uint32_t IOCTL_KVR_SET_CONFIG = 0x88044;             // in: exactly KVR_CONFIG_BYTES
inline constexpr std::uint32_t IOCTL_KVR_GET_REMOVABLE_VOLUMES = 0x840C4;  // out: KVR_REMOVABLE_VOLUME_STATUS[]
inline constexpr std::uint32_t IOCTL_KVR_GET_FIXED_VOLUMES = 0x840C8;      // out: KVR_FIXED_VOLUME_STATUS[]
inline constexpr std::uint32_t IOCTL_KVR_GET_ENABLED = 0x84104;            // out: exactly 4 bytes, 0 or 1
inline constexpr std::uint32_t IOCTL_KVR_DEBUG = 0x843C4;
inline constexpr std::uint32_t IOCTL_KVR_ALLOCATE_SWAP = 0x88084;  // in: SWAP_CONFIG_REQUEST
inline constexpr std::uint32_t IOCTL_KVR_STOP_SWAP_THREAD = 0x88088;
inline constexpr std::uint32_t IOCTL_KVR_REMOVE_SWAP = 0x8808C;  // in: SWAP_CONFIG_REQUEST

inline constexpr std::uint32_t KVR_CONFIG_BYTES = 8192;  // UTF-16LE text, zero-filled behind it
inline constexpr std::uint32_t KVR_NAME_CHARS = 64;

struct SWAP_CONFIG_REQUEST {
    std::uint16_t VolumeName[KVR_NAME_CHARS];  // ends at a 0 character, at the latest at the last
    std::int64_t SwapSize;                     // bytes; 0 or less: remove only
};
static_assert(sizeof(SWAP_CONFIG_REQUEST) == 136 && offsetof(SWAP_CONFIG_REQUEST, SwapSize) == 128);

struct KVR_REMOVABLE_VOLUME_STATUS {
    std::uint32_t AccessMode;  // 0 not protected, 1 protected, 2 protected and invisible
    std::uint16_t VolumeName[KVR_NAME_CHARS];
};
static_assert(sizeof(KVR_REMOVABLE_VOLUME_STATUS) == 132 &&
              offsetof(KVR_REMOVABLE_VOLUME_STATUS, VolumeName) == 4);

struct KVR_FIXED_VOLUME_STATUS {
    std::uint32_t State;  // 0 not protected; else 3 invisible, 2 by a section of its own, 1 otherwise
    std::uint16_t VolumeName[KVR_NAME_CHARS];
    std::uint32_t Reserved1;
    std::int64_t SwapTotalBytes;
    std::int64_t SwapUsedBytes;
    std::uint32_t SwapStatus;  // 1 provisioning runs; 3 to 6 error states; 2 storage present; 0 none
    std::uint32_t Reserved2;
};
static_assert(sizeof(KVR_FIXED_VOLUME_STATUS) == 160 &&
              offsetof(KVR_FIXED_VOLUME_STATUS, SwapTotalBytes) == 136 &&
              offsetof(KVR_FIXED_VOLUME_STATUS, SwapUsedBytes) == 144 &&
              offsetof(KVR_FIXED_VOLUME_STATUS, SwapStatus) == 152);
