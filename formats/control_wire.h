// How a control tool reaches the driver of a hosted machine: the bytes on the Unix stream socket
// `control.sock` in the machine's folder. The server speaks it on behalf of a program inside the machine.
//
// The client sends a request and reads its response, one after the other, as often as it likes; closing the
// connection is the close of what it opened, and the server ends its side when that is closed: a client that
// ends its own and waits for it leaves the device free. A connection holds at most one handle to the control
// device. A request that breaks the layout ends the connection. All integers are little-endian.
#pragma once
#include <cstddef>
#include <cstdint>
#include "formats/file_system_kind.h"

namespace tool::wire {

inline constexpr char kSocketName[] = "control.sock";
inline constexpr std::uint32_t kMagic = 0x3152564B;             // "KVR1"
inline constexpr std::uint32_t kMaximumLength = 1024u * 1024u;  // of input, output and text, each

enum class Command : std::uint32_t {
    // `code` is the desired access (GENERIC_READ, GENERIC_WRITE or both). The status is the driver's: a second
    // handle is refused with STATUS_DEVICE_ALREADY_ATTACHED.
    Open = 1,
    // `code` is the control code, `outputLength` the size of the output buffer. STATUS_INVALID_HANDLE before
    // Open. Refused with a text where the machine itself says no (STATUS_DEVICE_BUSY: a client is connected to
    // the volume).
    DeviceControl = 2,
    // Input: a VolumeName. Output: VolumeFacts, then a text that names the clients, if there are any. Needs no
    // handle. STATUS_OBJECT_NAME_NOT_FOUND for a volume that the machine does not have.
    Facts = 3,
    // Input: SectorsAt. Output: the bytes as the disk below the driver holds them. Needs no handle.
    ReadSectors = 4,
    // Input: the registry path of a key, a zero character, the name of a value; UTF-16. Output: its data.
    ReadRegistry = 5,
    // Output: none; the text is one line of `key=value` pairs about the machine (`hardening=1`: this boot has
    // the driver's stricter rules; `minutes-east=60`: its clock is that far ahead of UTC), and behind it lines:
    // "warning: SENTENCE" for each thing that is not as configured; "note: SENTENCE" for each that its user
    // should know; "storage-failure: VOLUME SENTENCE" when the host failed the making of the storage that was
    // asked for last; "boot: VOLUME DID BYTES RANGES SENTENCE" for what this boot did with a volume's changes
    // (DID is nothing, dropped, merged, kept or lost); "rate: VOLUME NUMBER" for the bytes a second by which a
    // storage fills, where that is known; "storage: VOLUME" for the one that is being made or removed, "-" for
    // none. Needs no handle.
    About = 6,
    // Shuts the machine down in order and powers it on again; connected clients wait meanwhile. The handle of
    // every control connection is closed by it.
    Reboot = 7,
    // Shuts down in order, ends the server. The response is sent when the machine is off.
    Stop = 8,
    // Sets a switch of the driver's registry key: `code` is 0 or 1, the input its name in UTF-16. What is set
    // holds from the next boot on. STATUS_INVALID_PARAMETER for every other value. Needs no handle: who may
    // connect may write the configuration as well.
    SetSwitch = 9,
    // As ReadSectors, but as the volume's users see them: through the driver, in this moment. Needs no handle.
    ReadPresent = 10,
    // Input: a VolumeName. Output: StorageRun records, where the volume's storage files (the map's among them)
    // lie by its file system, as its users see that now. STATUS_OBJECT_NAME_NOT_FOUND when one that must be
    // there is not, STATUS_DEVICE_BUSY while the file system is a client's. Needs no handle.
    StorageRuns = 11,
    // Output: a VolumeText for each volume of this boot, the machine's own among them. Needs no handle.
    Volumes = 12,
};

struct RequestHeader {
    std::uint32_t magic;
    Command command;
    std::uint32_t code;
    std::uint32_t inputLength;   // bytes that follow the header
    std::uint32_t outputLength;  // bytes that the client has room for
};
static_assert(sizeof(RequestHeader) == 20);

struct ResponseHeader {
    std::uint32_t magic;
    std::int32_t status;         // NTSTATUS
    std::uint32_t outputLength;  // bytes of output that follow the header
    std::uint32_t textLength;    // bytes of UTF-8 text that follow them: why the machine itself refused
};
static_assert(sizeof(ResponseHeader) == 16);

// A volume device's object name, such as \Device\HarddiskVolume1, with a zero character behind it.
struct VolumeName {
    char16_t text[64];
};
static_assert(sizeof(VolumeName) == 128);

using ::FileSystemKind;

struct VolumeFacts {
    std::uint64_t bytes;
    std::uint64_t freeBytes;  // kUnknown while the file system is none of the machine's
    std::uint32_t sectorBytes;
    std::uint32_t removable;  // 0 or 1
    FileSystemKind fileSystem;
    std::uint32_t clients;     // connections that use the volume, through its own export or its disk's
    std::uint32_t disk;        // number of its disk
    std::uint32_t system;      // 1: the machine's own system volume
    std::uint64_t diskOffset;  // bytes, of the volume's first sector
};
static_assert(sizeof(VolumeFacts) == 48 && offsetof(VolumeFacts, diskOffset) == 40);
inline constexpr std::uint64_t kUnknown = ~std::uint64_t{0};

// What a volume is, for people, as its boot found it; UTF-8 with zero characters behind it, cut where it is
// longer.
struct VolumeText {
    VolumeName name;
    std::uint64_t bytes;
    char label[136];
    char partition[40];   // its GUID, as Linux and Windows write it; empty for a partition that has none
    char fileSystem[16];  // "ntfs", "ext", "fat32", ...; empty for a raw volume
    char what[72];        // clauses such as "EFI system partition, cannot hold storage"; often empty
};
static_assert(sizeof(VolumeText) == 400 && offsetof(VolumeText, what) == 328);

struct SectorsAt {
    VolumeName volume;
    std::uint64_t offset;  // bytes, whole sectors
    std::uint32_t length;  // bytes, whole sectors, kMaximumLength at most
    std::uint32_t reserved;
};
static_assert(sizeof(SectorsAt) == 144 && offsetof(SectorsAt, offset) == 128);

struct StorageRun {
    std::uint64_t offset;  // bytes on the volume
    std::uint64_t length;  // bytes
};
static_assert(sizeof(StorageRun) == 16);

}  // namespace tool::wire
