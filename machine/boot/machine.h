// The hosted computer as a whole: disks with their stacks, volumes above them, file systems, the registry and
// power, with the driver under test in every stack. A machine goes through boots: PowerOn loads the driver
// afresh and starts everything, Shutdown and PowerCut end the boot in their two ways. What survives is what
// a real computer keeps: the media and the registry's flushed values.
//
// There is one host kernel in a process, so one machine at a time is powered on.
#pragma once
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>
#include "machine/disk/fault_disk.h"
#include "machine/files/file_system.h"
#include "machine/boot/registry_file.h"
#include "machine/boot/volume_numbers.h"
#include "machine/files/stack_volume_io.h"
#include "machine/disk/volume_device.h"
#include "platform/host/kernel_host.h"
#include "platform/host/memory/pool.h"

// The driver's entry point, for MachineOptions::driver.
extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath);

namespace machine {

struct MachineDisk {
    std::shared_ptr<Disk> medium;
    bool removable = false;
    Completion completion = Completion::Immediate;  // Stepped counts from the end of the boot to its shutdown
    // Number of its first volume, so that its volumes keep their names whatever the other disks hold; 0: the
    // next number that is free. A number that another volume has makes the boot fail.
    unsigned firstVolume = 0;
};

// What a shutdown has just done, in its order.
enum class ShutdownStep {
    Notified,         // the drivers know; files and their metadata go on being written
    RegistryWritten,  // its last values are on disk
    Dismounted,       // file systems have written what they had; raw requests are all that can come
    LastChance,       // and then the power goes
};

struct MachineOptions {
    std::vector<MachineDisk> disks;
    // The driver under test; null: a machine without one.
    PDRIVER_INITIALIZE driver = nullptr;
    std::u16string driverName = u"\\Driver\\kvr";
    bool filterDisks = true;  // the driver is registered for disks as well as for volumes
    // Null: in memory, for as long as the machine lives.
    std::shared_ptr<RegistryFile> registry;
    // Which file system mounts on a volume; a driver without `mount` leaves it raw. Empty: all stay raw.
    std::function<FileSystemDriver(const VolumeDevice&)> fileSystem;
    // Volumes are remembered by what they are and keep their numbers, the highest of which is this one
    // (volume_numbers.h); 0: they are counted anew at each boot, over all disks.
    unsigned mostVolumes = 0;
    unsigned systemVolume = 1;                   // number of the volume that \SystemRoot lies on, 0: none
    std::u16string systemFolder = u"\\Windows";  // \SystemRoot on that volume
    // Called at each shutdown behind each of its steps, on its thread: what somebody still does then.
    // Everything but this class's own calls works as before, as far as it is still there.
    std::function<void(ShutdownStep)> atShutdown;
    // Called at each power-on before the driver is loaded, when the kernel is empty: for a test's own plans.
    std::function<void()> beforeDriver;
};

// One volume of the present boot. Destroyed from the end: the file system before its way to the volume, that
// before the volume.
struct Volume {
    std::unique_ptr<VolumeDevice> device;
    std::unique_ptr<StackVolumeIo> io;
    std::unique_ptr<FileSystem> files;  // null: raw
    NTSTATUS addStatus;                 // of the driver's AddDevice
    // Of the start request. A volume whose start failed stays where it is but is not used: nothing mounts.
    NTSTATUS startStatus;
    NTSTATUS mountStatus;  // STATUS_UNRECOGNIZED_VOLUME while nothing was mounted
};

// How a shutdown went, and what the driver left behind.
struct ShutdownReport {
    NTSTATUS dismount = STATUS_SUCCESS;  // the first failure of a file system
    NTSTATUS registry = STATUS_SUCCESS;
    ULONG threads = 0;  // system threads that were still running
    host::LeakReport leaks{};
    // Pool blocks that were outstanding at the end, the records that live as long as the driver among them.
    std::vector<host::PoolBalance> pool;
};

// A file object that raw requests carry, as a file system would make it. It lives until its boot ends, so
// its address stands for one file as long as anything may remember it.
struct RawFile {
    std::u16string name;
    FILE_OBJECT object{};
};

class Machine {
public:
    explicit Machine(MachineOptions options);
    ~Machine();  // cuts the power if it is on
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    // ---- power (machine_boot.cpp, machine_power.cpp) ---------------------------------------------------
    // Boots. Fixed disks come first, then removable ones; each group's file systems are mounted when all its
    // volumes have started, the system volume's first. A driver that fails to load is left out, as on the
    // platform (DriverStatus); a failure returned here is one of the machine's own devices.
    // Throws std::bad_alloc where the host has no memory for these; PowerCut() then ends what has begun.
    [[nodiscard]] NTSTATUS PowerOn();
    // Nothing of it can be refused: what finds no host memory is tried again until there is some.
    // In the platform's order: notifies the drivers, writes the registry out, dismounts the file systems,
    // notifies those who asked for the last chance, and sends the power request to every stack. Then waits for
    // the driver's threads and ends the boot. A thread held by a gate of the test must
    // be let go before. What ends or changes a boot must not be called by a thread that holds a Use.
    ShutdownReport Shutdown();
    // The power fails now: no write reaches a disk or the registry from the instant it is called, and every
    // request fails until the driver's threads have ended. Returns once the boot is gone and the power is back.
    void PowerCut();
    ShutdownReport Reboot(NTSTATUS& booted);
    bool IsOn() const { return on_.load(std::memory_order_acquire); }
    // To arm a cut at the n-th write from now, also before PowerOn. When it has struck (IsCut), PowerCut() ends
    // the boot and makes the switch ready for the next.
    PowerSwitch& Power() { return *power_; }
    NTSTATUS DriverStatus() const { return driverStatus_; }

    // ---- use -------------------------------------------------------------------------------------------
    // Held by whoever uses devices, volumes or file systems directly from a thread of its own while another
    // one may end the boot: the boot's end waits for it. False when the power is off or going.
    class Use {
    public:
        explicit Use(Machine& machine);
        explicit operator bool() const { return hold_.owns_lock(); }

    private:
        std::shared_lock<std::shared_mutex> hold_;
    };

    // Null when there is none. Numbers and names count over all disks: 1 is \Device\HarddiskVolume1.
    Volume* VolumeOf(unsigned number);
    Volume* VolumeNamed(std::u16string_view name);
    std::vector<Volume*> Volumes();
    // The same without a list, which would have to be made first.
    template <class Action>
    void ForEachVolume(const Action& action) {
        if (boot_ == nullptr) return;
        for (const auto& [number, volume] : boot_->volumes) action(*volume);
    }
    // Every volume that was ever numbered, the present ones among them; empty unless mostVolumes says so.
    std::map<unsigned, KnownVolume> KnownVolumes() const;
    // False when the disk of that number did not start in this boot, or its partition table could not be read:
    // it may have volumes that the boot does not.
    bool IsTableKnown(unsigned number) const { return disks_[number].tableKnown; }
    // The disk of the options' index, or of AddDisk; null once it was removed.
    DiskDevice* DiskOf(unsigned number);
    // The medium below the power switch, for checks from outside; never null for a number that was given.
    Disk& MediumOf(unsigned number) { return *disks_[number].medium; }
    RegistryFile& Registry() { return *options_.registry; }
    // Looks again at a volume that is raw: somebody may have made a file system on it. STATUS_DEVICE_BUSY when
    // one is mounted. The caller sees to it that the boot goes on and that nobody uses this volume's `files`.
    [[nodiscard]] NTSTATUS MountRaw(unsigned number);

    // Raw transfers to the top of a volume's stack, with the file object of `fileName` unless it is empty.
    [[nodiscard]] NTSTATUS Read(unsigned volume, std::uint64_t offset, void* buffer, std::uint32_t length,
                                std::u16string_view fileName = {});
    [[nodiscard]] NTSTATUS Write(unsigned volume, std::uint64_t offset, const void* buffer,
                                 std::uint32_t length, std::u16string_view fileName = {});
    [[nodiscard]] NTSTATUS Flush(unsigned volume);
    // The file object that such transfers carry; the same one for the same name and flags (FO_).
    PFILE_OBJECT FileObjectOf(unsigned volume, std::u16string_view fileName, ULONG flags = 0);

    // A program's request to the driver's control device: opens it, sends the code, closes it.
    [[nodiscard]] NTSTATUS Control(std::u16string_view device, ULONG code, const void* input, ULONG inputLength,
                                   void* output, ULONG outputLength, ULONG& returned);

    // ---- plug and play (machine_boot.cpp, machine_power.cpp) -------------------------------------------
    // Plugs a disk in while the machine runs; `number` is its index from now on.
    [[nodiscard]] NTSTATUS AddDisk(MachineDisk disk, unsigned& number);
    // Asks and removes, as when a user ejects it: a refusal leaves everything in place. The file system is
    // dismounted between the question and the removal. A disk takes its volumes with it; when one refuses,
    // those asked before are told that nothing happens.
    [[nodiscard]] NTSTATUS RemoveVolume(unsigned number);
    [[nodiscard]] NTSTATUS RemoveDisk(unsigned number);

private:
    struct DiskSlot {
        std::shared_ptr<Disk> medium;
        bool removable = false;
        Completion completion = Completion::Immediate;
        unsigned firstVolume = 0;
        bool unplugged = false;
        std::unique_ptr<DiskDevice> device;  // null while the power is off
        bool tableKnown = false;
    };
    struct ThisBoot {
        PDRIVER_OBJECT driver = nullptr;
        PDRIVER_OBJECT diskDriver = nullptr;
        PDRIVER_OBJECT volumeDriver = nullptr;
        std::map<std::u16string, PDRIVER_OBJECT> fileSystemDrivers;
        unsigned lastVolume = 0;
        std::optional<VolumeNumbers> numbers;
        std::map<unsigned, std::unique_ptr<Volume>> volumes;  // by number
        // What was removed: open handles may still lead there.
        std::vector<std::unique_ptr<Volume>> removed;
        std::vector<std::unique_ptr<DiskDevice>> removedDisks;
        std::mutex rawLock;
        std::map<std::tuple<unsigned, std::u16string, ULONG>, std::unique_ptr<RawFile>> rawFiles;
    };

    void LoadDrivers();
    [[nodiscard]] NTSTATUS BootDisks(bool removable);
    [[nodiscard]] NTSTATUS StartDisk(unsigned number);
    [[nodiscard]] NTSTATUS StartVolumes(DiskDevice& disk);
    std::optional<unsigned> NextNumber(unsigned disk, const Partition& partition, unsigned index);
    [[nodiscard]] NTSTATUS StartVolume(DiskDevice& disk, unsigned number, std::uint64_t offset,
                                       std::uint64_t length);
    void MountVolumes(const std::vector<Volume*>& volumes);
    void Mount(Volume& volume);
    PDRIVER_OBJECT FileSystemDriverOf(const std::u16string& name);
    void Dismount(Volume& volume, NTSTATUS& result);
    std::vector<Volume*> VolumesOn(unsigned disk);
    [[nodiscard]] NTSTATUS QueryRemove(const std::vector<PDEVICE_OBJECT>& devices);
    void Remove(Volume& volume);
    void LetThreadsFinish();
    void SendPowerOff();
    void Reached(ShutdownStep step) const;
    void EndBoot(ShutdownReport& report);
    void StopDisks();
    void BeginStepping(unsigned disk);
    void EndStepping();

    MachineOptions options_;
    std::vector<DiskSlot> disks_;
    std::shared_ptr<PowerSwitch> power_;
    std::atomic<bool> on_{false};
    NTSTATUS driverStatus_ = STATUS_SUCCESS;
    std::unique_ptr<ThisBoot> boot_;
    std::shared_mutex use_;  // shared by users of the boot, exclusive for what begins, changes or ends it
};

}  // namespace machine
