#include "prove/acts.h"
#include "formats/config_grammar.h"
#include "formats/kvr_ioctl.h"
#include "formats/proof_acts.h"

namespace proof {
namespace {

constexpr const char16_t* kOld = u"\\kvrprove.old";  // made before the volume is protected
constexpr const char16_t* kNew = u"\\kvrprove.new";  // made under protection
constexpr const char16_t* kLate = u"\\kvrprove.late";
constexpr const char16_t* kDuring = u"\\kvrprove.end";
constexpr std::uint32_t kPiece = 64 * 1024;  // bytes
constexpr std::uint32_t kPieces = 16;        // of each file
constexpr std::uint32_t kAsideBytes = 64;

// What a file holds, after each act that writes.
enum Content : std::uint32_t { kFirst = 1, kDiscarded = 2, kKept = 3, kDropped = 4 };

constexpr std::uint32_t kSwapProvisioning = 1, kSwapPresent = 2;
constexpr std::uint32_t kPollMilliseconds = 100, kMostPolls = 3000, kMostIdlePolls = 50;
constexpr std::uint32_t kHoldMilliseconds = 1000;
constexpr std::uint32_t kMostVolumes = 64;

alignas(4096) std::uint8_t gPiece[kPiece], gRead[kPiece];
char16_t gConfig[KVR_CONFIG_BYTES / 2];
KVR_FIXED_VOLUME_STATUS gVolumes[kMostVolumes];

// ---- bytes and texts ----------------------------------------------------------------------------------------

// No two sectors of any content are the same.
void Fill(std::uint32_t content, std::uint32_t piece) {
    std::uint32_t value = content * 2654435761u + piece * 40503u + 1;
    for (std::uint8_t& byte : gPiece) {
        value = value * 1664525u + 1013904223u;
        byte = static_cast<std::uint8_t>(value >> 24);
    }
}

bool SameUnits(const char16_t* one, const std::uint16_t* other) {
    for (std::uint32_t i = 0; i < KVR_NAME_CHARS; ++i) {
        if (one[i] != other[i]) return false;
        if (one[i] == 0) return true;
    }
    return true;
}

bool Contains(const char16_t* text, std::uint32_t units, const char* word) {
    for (std::uint32_t begin = 0; begin < units; ++begin) {
        std::uint32_t i = 0;
        while (word[i] != 0 && begin + i < units && text[begin + i] == static_cast<char16_t>(word[i])) ++i;
        if (word[i] == 0) return true;
    }
    return false;
}

class Text {
public:
    Text() {
        for (char16_t& unit : gConfig) unit = 0;
    }
    Text& Add(const char* words) {
        while (*words != 0) Put(static_cast<char16_t>(*words++));
        return *this;
    }
    Text& Add(const char16_t* words) {
        while (*words != 0) Put(*words++);
        return *this;
    }
    Text& Setting(config::Key key, std::uint32_t digit) {
        Add(config::RuleOf(key).name).Add(" = ");
        Put(static_cast<char16_t>('0' + digit));
        return Add("\r\n");
    }

private:
    void Put(char16_t unit) {
        if (units_ + 1 < KVR_CONFIG_BYTES / 2) gConfig[units_++] = unit;
    }
    std::uint32_t units_ = 0;
};

void Compose(const char16_t* volume, bool protection, std::uint32_t bootMode, std::uint32_t action) {
    Text text;
    text.Add(config::kGlobalHead).Add("\r\n").Setting(config::Key::Protection, protection ? 1 : 0);
    text.Add(config::kFixedHead).Add(" 1]\r\n").Add(config::RuleOf(config::Key::ID).name).Add(" = ");
    text.Add(volume).Add("\r\n").Setting(config::Key::ProtectionMode, 1);
    text.Setting(config::Key::BootMode, bootMode).Setting(config::Key::BootAction, action);
}

SWAP_CONFIG_REQUEST RequestFor(const char16_t* volume, std::uint64_t bytes) {
    SWAP_CONFIG_REQUEST request{};
    for (std::uint32_t i = 0; i + 1 < KVR_NAME_CHARS && volume[i] != 0; ++i) request.VolumeName[i] = volume[i];
    request.SwapSize = static_cast<std::int64_t>(bytes);
    return request;
}

// ---- steps --------------------------------------------------------------------------------------------------

// A guest with the control device open, and rows about it.
class Stage {
public:
    explicit Stage(Guest& guest) : guest(guest) {
        const Status status = guest.Open(Device::Control);
        guest.Report("the control device opens", Succeeded(status), status, 0);
    }
    ~Stage() { guest.Close(); }
    Stage(const Stage&) = delete;
    Stage& operator=(const Stage&) = delete;

    void Require(const char* name, Status status, std::uint64_t measured = 0) const {
        guest.Report(name, Succeeded(status), status, measured);
    }
    void Refused(const char* name, Status status) const { guest.Report(name, !Succeeded(status), status, 0); }
    void Exactly(const char* name, Status status, Status expected) const {
        guest.Report(name, status == expected, status, 0);
    }

    void Enabled(bool expected) const {
        std::uint32_t enabled = 2, returned = 0;
        const Status status = guest.Ask(IOCTL_KVR_GET_ENABLED, nullptr, 0, &enabled, sizeof enabled, &returned);
        guest.Report(expected ? "protection is on" : "protection is off",
                     Succeeded(status) && enabled == (expected ? 1u : 0u), status, enabled);
    }

    // Null when the driver does not list the volume.
    const KVR_FIXED_VOLUME_STATUS* Volume(Status* status) const {
        std::uint32_t returned = 0;
        *status = guest.Ask(IOCTL_KVR_GET_FIXED_VOLUMES, nullptr, 0, gVolumes, sizeof gVolumes, &returned);
        if (!Succeeded(*status)) return nullptr;
        for (std::uint32_t i = 0; i < returned / sizeof gVolumes[0]; ++i)
            if (SameUnits(guest.VolumeName(), gVolumes[i].VolumeName)) return &gVolumes[i];
        return nullptr;
    }
    void Listed(const char* name, std::uint32_t state) const {
        Status status = kSuccess;
        const auto* volume = Volume(&status);
        guest.Report(name, volume != nullptr && volume->State == state, status, volume ? volume->State : 0);
    }
    std::uint64_t Used() const {
        Status status = kSuccess;
        const auto* volume = Volume(&status);
        return volume == nullptr ? 0 : static_cast<std::uint64_t>(volume->SwapUsedBytes);
    }

    // Writes it and reads it back.
    void Configure(const char* name, bool protection, std::uint32_t bootMode, std::uint32_t action) const {
        Compose(guest.VolumeName(), protection, bootMode, action);
        std::uint32_t returned = 0;
        Status status = guest.Ask(IOCTL_KVR_SET_CONFIG, gConfig, sizeof gConfig, nullptr, 0, &returned);
        if (Succeeded(status))
            status = guest.Ask(IOCTL_KVR_GET_CONFIG, nullptr, 0, gRead, KVR_CONFIG_BYTES, &returned);
        bool same = Succeeded(status) && returned == KVR_CONFIG_BYTES;
        const auto* written = reinterpret_cast<const std::uint8_t*>(gConfig);
        for (std::uint32_t i = 0; same && i < KVR_CONFIG_BYTES; ++i) same = gRead[i] == written[i];
        guest.Report(name, same, status, 0);
    }

    void Write(const char* name, const char16_t* path, Content content, bool flush = true) const {
        Status status = kSuccess;
        for (std::uint32_t piece = 0; piece < kPieces && Succeeded(status); ++piece) {
            Fill(content, piece);
            status = guest.Write(path, std::uint64_t{piece} * kPiece, gPiece, kPiece);
        }
        if (flush && Succeeded(status)) status = guest.Flush(path);
        Require(name, status, std::uint64_t{kPieces} * kPiece);
    }
    void Holds(const char* name, const char16_t* path, Content content) const {
        Status status = kSuccess;
        std::uint64_t right = 0;
        for (std::uint32_t piece = 0; piece < kPieces && Succeeded(status); ++piece) {
            Fill(content, piece);
            status = guest.Read(path, std::uint64_t{piece} * kPiece, gRead, kPiece);
            for (std::uint32_t i = 0; Succeeded(status) && i < kPiece; ++i) right += gRead[i] == gPiece[i];
        }
        guest.Report(name, Succeeded(status) && right == std::uint64_t{kPieces} * kPiece, status, right);
    }
    void Missing(const char* name, const char16_t* path) const { Refused(name, guest.OpenToRead(path)); }

    Guest& guest;
};

void WriteBoth(const Stage& stage, Content content) {
    const std::uint64_t before = stage.Used();
    stage.Write("a new file is written", kNew, content);
    stage.Write("an old file is overwritten", kOld, content);
    stage.Holds("the new file reads as written", kNew, content);
    stage.Holds("the old file reads as overwritten", kOld, content);
    const std::uint64_t grown = stage.Used() - before;
    stage.guest.Report("the storage took what was written",
                       grown >= 2ull * kPieces * kPiece && grown < 1ull << 62, kSuccess, grown);
}

void Protected(const Stage& stage) {
    stage.Enabled(true);
    stage.Listed("the volume is protected", 2);
}

// ---- the acts -----------------------------------------------------------------------------------------------

void AskWrongly(const Stage& stage) {
    std::uint32_t returned = 0;
    stage.Exactly("a second handle is refused", stage.guest.OpenSecond(), kAlreadyAttached);
    stage.Refused("a configuration of another size is refused",
                  stage.guest.Ask(IOCTL_KVR_SET_CONFIG, gRead, kAsideBytes, nullptr, 0, &returned));
    stage.Refused("a code that is none is refused",
                  stage.guest.Ask(IOCTL_KVR_DEBUG + 0x400, nullptr, 0, nullptr, 0, &returned));
    stage.guest.Close();
    stage.Require("the device opens by its other name", stage.guest.Open(Device::Link));
}

void MakeStorage(const Stage& stage, std::uint64_t bytes) {
    const SWAP_CONFIG_REQUEST request = RequestFor(stage.guest.VolumeName(), bytes);
    std::uint32_t returned = 0;
    Status status = stage.guest.Ask(IOCTL_KVR_ALLOCATE_SWAP, &request, sizeof request, nullptr, 0, &returned);
    stage.Require("the storage is ordered", status, bytes);
    if (!Succeeded(status)) return;
    const KVR_FIXED_VOLUME_STATUS* volume = nullptr;
    std::uint32_t idle = 0;  // polls that found it neither begun nor ended: then it has failed
    for (std::uint32_t poll = 0; poll < kMostPolls && idle < kMostIdlePolls; ++poll) {
        stage.guest.Wait(kPollMilliseconds);
        volume = stage.Volume(&status);
        if (volume == nullptr || (volume->SwapStatus != kSwapProvisioning && volume->SwapStatus != 0)) break;
        idle = volume->SwapStatus == 0 ? idle + 1 : 0;
    }
    stage.guest.Report("the storage is made",
                       volume != nullptr && volume->SwapStatus == kSwapPresent &&
                           static_cast<std::uint64_t>(volume->SwapTotalBytes) >= bytes,
                       status, volume == nullptr ? 0 : static_cast<std::uint64_t>(volume->SwapTotalBytes));
}

void Setup(const Stage& stage, std::uint64_t storageBytes) {
    AskWrongly(stage);
    stage.Enabled(false);
    stage.Listed("the volume is listed, not protected", 0);
    stage.Write("a file is made before", kOld, kFirst);
    stage.Configure("a configuration is written and reads back: discard", true, config::kBootModeDiscard, 0);
    MakeStorage(stage, storageBytes);
}

void Discard(const Stage& stage, std::uint64_t) {
    Protected(stage);
    WriteBoth(stage, kDiscarded);
}

void Discarded(const Stage& stage, std::uint64_t) {
    Protected(stage);
    stage.Missing("the new file is gone", kNew);
    stage.Holds("the old file is as it was", kOld, kFirst);
    stage.Configure("the configuration is changed: keep", true, config::kBootModeKeep, 0);
}

void Keep(const Stage& stage, std::uint64_t) {
    Protected(stage);
    WriteBoth(stage, kKept);
}

void Kept(const Stage& stage, std::uint64_t) {
    Protected(stage);
    stage.Holds("the new file is kept", kNew, kKept);
    stage.Holds("the old file is kept as overwritten", kOld, kKept);
    stage.Configure("the configuration is changed: merge once", true, config::kBootModeKeep,
                    config::kActionMerge);
}

void Merged(const Stage& stage, std::uint64_t) {
    Protected(stage);
    std::uint32_t returned = 0;
    const Status status = stage.guest.Ask(IOCTL_KVR_GET_CONFIG, nullptr, 0, gConfig, sizeof gConfig, &returned);
    stage.guest.Report("the order to merge is used up",
                       Succeeded(status) && Contains(gConfig, KVR_CONFIG_BYTES / 2, "BootAction = 0"), status,
                       0);
    stage.Holds("the new file is there", kNew, kKept);
    stage.Holds("the old file is there as overwritten", kOld, kKept);
    stage.Configure("the configuration is changed: discard", true, config::kBootModeDiscard, 0);
}

// The driver takes its files in a thread of its own once the file system is there, which may be after this
// program has begun. To ask while it does so would be in its way, so it has a moment first.
void AwaitHeldFiles(const Stage& stage) {
    stage.guest.Wait(kHoldMilliseconds);
    const char16_t* const files[] = {u"\\kvr.SWP", u"\\kvr.MAP"};
    for (const char16_t* path : files)
        for (std::uint32_t poll = 0; poll < kMostIdlePolls && stage.guest.OpenToRead(path) != kSharingViolation;
             ++poll)
            stage.guest.Wait(kPollMilliseconds);
}

void Refused(const Stage& stage, std::uint64_t) {
    Protected(stage);
    AwaitHeldFiles(stage);
    stage.Exactly("the volume's first sector is not written", stage.guest.RewriteFirstSector(),
                  kWriteProtected);
    stage.Exactly("no sectors are given back to the disk", stage.guest.Trim(), kNotSupported);
    stage.Exactly("the storage cannot be deleted", stage.guest.Delete(u"\\kvr.SWP"), kSharingViolation);
    stage.Exactly("the map cannot be opened", stage.guest.OpenToRead(u"\\kvr.MAP"), kSharingViolation);
    std::uint32_t returned = 0;
    const SWAP_CONFIG_REQUEST request = RequestFor(stage.guest.VolumeName(), 0);
    stage.Refused("storage in use is not removed",
                  stage.guest.Ask(IOCTL_KVR_REMOVE_SWAP, &request, sizeof request, nullptr, 0, &returned));
    stage.Require("a merged file is deleted", stage.guest.Delete(kNew));
}

void Late(const Stage& stage, std::uint64_t) {
    Protected(stage);
    stage.Holds("the deleted file is back", kNew, kKept);
    stage.Write("a file is written and not flushed", kLate, kDropped, false);
    stage.Write("an old one too", kOld, kDropped, false);
    stage.guest.WriteDuringShutdown(kDuring);
}

void Gone(const Stage& stage, std::uint64_t) {
    Protected(stage);
    stage.Missing("the late file is gone", kLate);
    stage.Missing("what the shutdown wrote is gone", kDuring);
    stage.Holds("the old file is as merged", kOld, kKept);
    stage.Configure("the configuration is changed: no protection", false, config::kBootModeDiscard, 0);
}

void Off(const Stage& stage, std::uint64_t) {
    stage.Enabled(false);
    stage.Listed("the volume is not protected", 0);
    const SWAP_CONFIG_REQUEST request = RequestFor(stage.guest.VolumeName(), 0);
    std::uint32_t returned = 0;
    stage.Require("the storage is removed",
                  stage.guest.Ask(IOCTL_KVR_REMOVE_SWAP, &request, sizeof request, nullptr, 0, &returned));
    stage.Missing("its file is gone", u"\\kvr.SWP");
    stage.Write("a file is written", kOld, kDropped);
}

using Player = void (*)(const Stage& stage, std::uint64_t storageBytes);
constexpr Player kPlayers[] = {Setup, Discard, Discarded, Keep, Kept, Merged, Refused, Late, Gone, Off};
static_assert(sizeof(kPlayers) / sizeof(kPlayers[0]) == kActCount);

}  // namespace

void Play(Guest& guest, std::uint32_t act, std::uint64_t storageBytes) {
    if (act == 0 || act > kActCount) return guest.Report("the act is known", false, kSuccess, act);
    kPlayers[act - 1](Stage(guest), storageBytes);
}

}  // namespace proof
