// What stands behind the tool: a machine that runs the driver, on Windows this very computer, elsewhere a
// hosted machine. The driver is reached through its control device alone; what the driver does not tell (free
// room, clients, sectors, the registry) the machine tells.
#pragma once
#include <map>
#include <optional>
#include "client/control_client.h"
#include "client/driver_switches.h"
#include "formats/file_system_kind.h"
#include "formats/space_limits.h"
#include "tool/kvrctl/host.h"

namespace ctl {

struct VolumeFacts {
    std::uint64_t bytes = 0;
    std::optional<std::uint64_t> freeBytes;  // unknown while the file system is another's
    std::uint32_t sectorBytes = 0;
    bool removable = false;
    FileSystemKind fileSystem = FileSystemKind::Other;
    std::string clients;  // who else uses the volume, in words; empty for nobody
};

// Where a volume's storage files lie by its file system, as far as somebody can look.
struct StorageFiles {
    enum class Look { Unknown, Missing, Found } look = Look::Unknown;
    struct Run {
        std::uint64_t offset, length;  // bytes on the volume
    };
    std::vector<Run> runs;
};

// What a hosted machine's server tells of the present boot, as far as it does.
struct MachineNotes {
    // What the boot did with a volume's changes.
    struct BootDeed {
        std::u16string volume;
        std::string did;  // a word of formats/control_wire.h
        std::uint64_t bytes = 0, ranges = 0;
        std::string text;
    };
    std::vector<std::string> warnings;  // one sentence each, without the point
    std::vector<BootDeed> deeds;
    std::vector<std::u16string> making;  // volumes whose storage is being made or removed
    bool knowsMaking = false;            // ... none, if there are none
    std::map<std::u16string, std::int64_t>
        bytesPerSecond;  // at which a volume's storage fills; unknown without
};

enum class Access { Read, ReadWrite };

class World {
public:
    virtual ~World() = default;
    // Null while another program holds the device. Throws Failure where there is no driver (kExitNotRunning) or
    // no right to it (kExitDenied).
    virtual std::unique_ptr<Driver> OpenDriver(Access access) = 0;
    // `volume`: the volume device's object name. Nothing for a volume that the machine does not have or does
    // not describe.
    virtual std::optional<VolumeFacts> Facts(const std::u16string& volume) = 0;
    // Whole sectors as the volume holds them. Throws Failure.
    virtual Bytes ReadSectors(const std::u16string& volume, std::uint64_t offset, std::uint32_t length) = 0;
    // ... as its users see them, through the driver, and where that can be had: what tells this boot from every
    // other one. Throws Failure, always where there is no reading below the driver.
    virtual Bytes ReadPresent(const std::u16string& volume, std::uint64_t offset, std::uint32_t length);
    virtual std::string BootMark();
    // Throws Failure.
    virtual StorageFiles FilesOfStorage(const std::u16string&) { return {}; }
    // The data of a value of the driver's key; nothing when there is no such value. Throws Failure.
    virtual std::optional<Bytes> ReadRegistry(const std::u16string& value) = 0;
    // Sets a switch of the driver's key, which the next boot reads. Throws Failure: kExitDenied for who may not
    // write the configuration either.
    virtual void WriteSwitch(const std::u16string& value, bool on) = 0;
    // Are the driver's stricter rules in force? Nothing where the driver alone knows. Throws Failure.
    virtual std::optional<bool> HardeningNow() = 0;
    // By how much the machine's clock, in which the configuration's dates stand, is now ahead of UTC. Throws
    // Failure.
    virtual int MinutesEast() = 0;
    // Bytes of a storage that stay out of the reach of those who write here.
    virtual std::uint64_t StorageReserve() const { return kLowSpaceLimit; }
    // Why the volume's storage could not be made whole, as far as the machine knows; else empty. Throws
    // Failure.
    virtual std::string WhyUnfinished(const std::u16string&) { return {}; }
    virtual MachineNotes Notes() { return {}; }
    // Which machine it is, for people and for a picture.
    virtual std::string Name() const { return "this computer"; }
    // How the machine is booted anew, as the end of a sentence: "the next boot (kvrhost reboot m)".
    virtual std::string NextBoot() const = 0;
};

// How long a device that another program holds is waited for.
enum class Patience {
    UntilInterrupted,  // about two seconds
    Insistent,         // half a minute, whatever the user does: what was begun has to be ended
};
// Throws Failure as World::OpenDriver does, and when the device stays held (kExitBusy) or the user asks for the
// end (kExitStopped).
Client OpenClient(World& world, Terminal& terminal, Access access, Patience = Patience::UntilInterrupted);

// The world in which this program runs. `folder`: of the hosted machine; empty where there is none to choose.
// Reaches for nothing yet. Throws Failure for a folder that makes no sense here.
std::unique_ptr<World> MakeWorld(const std::string& folder);

}  // namespace ctl
