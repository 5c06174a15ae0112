#include "tool/kvrctl/refusal.h"
#include "formats/kvr_ioctl.h"
#include "tool/kvrctl/failure.h"

namespace ctl {
namespace {

struct Meaning {
    std::uint32_t code;  // 0: of any control code
    Status status;
    const char* text;
    int exitCode;
};

// The first that fits counts.
constexpr Meaning kMeanings[] = {
    {IOCTL_KVR_GET_CONFIG, kUnsuccessful, "the configuration file cannot be read", kExitFailed},
    {IOCTL_KVR_SET_CONFIG, kNoSuchFile,
     "the configuration file cannot be opened or made: the system volume has no folder system32\\drivers, or "
     "does "
     "not answer",
     kExitFailed},
    {IOCTL_KVR_SET_CONFIG, kUnsuccessful, "the configuration file cannot be written", kExitFailed},
    {IOCTL_KVR_ALLOCATE_SWAP, kInvalidParameter,
     "the driver makes no storage while this volume, or the one that holds the configuration, is protected: "
     "switch protection off (kvrctl disable), boot, and try again",
     kExitFailed},
    {IOCTL_KVR_REMOVE_SWAP, kInvalidParameter,
     "the driver removes no storage while this volume, or the one that holds the configuration, is protected: "
     "switch protection off (kvrctl disable), boot, and try again",
     kExitFailed},
    {IOCTL_KVR_ALLOCATE_SWAP, kFileLockConflict,
     "storage is being made or removed already; wait for it, or end it with 'kvrctl swap stop'", kExitBusy},
    {IOCTL_KVR_REMOVE_SWAP, kFileLockConflict,
     "storage is being made or removed already; wait for it, or end it with 'kvrctl swap stop'", kExitBusy},
    {0, kAccessDenied, "this needs more rights than you have; run it as an administrator", kExitDenied},
    {0, kInsufficientResources, "the machine has no memory left for it", kExitFailed},
    {0, kInvalidDeviceRequest, "the driver is loaded but stands by, and filters nothing", kExitFailed},
    {0, kInvalidHandle, "the machine was booted anew in between; try again", kExitFailed},
    {0, kDevicePoweredOff, "the machine is off", kExitNotRunning},
    {0, kDeviceBusy, "the volume is in use", kExitBusy},
};

const Meaning* FindMeaning(Status status, std::uint32_t code) {
    for (const Meaning& meaning : kMeanings) {
        if (meaning.status == status && (meaning.code == code || meaning.code == 0)) return &meaning;
    }
    return nullptr;
}

}  // namespace

void Require(const Answer& answer, std::uint32_t code) {
    if (IsSuccess(answer.status)) return;
    const Meaning* meaning = FindMeaning(answer.status, code);
    const int exitCode = meaning ? meaning->exitCode : kExitFailed;
    if (!answer.text.empty()) throw Failure(answer.text, exitCode);
    if (meaning) throw Failure(std::string(meaning->text) + " (" + StatusText(answer.status) + ")", exitCode);
    throw Failure("the driver refused: " + StatusText(answer.status), exitCode);
}

}  // namespace ctl
