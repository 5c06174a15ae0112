// The hosted computer that the demonstration uses: its disks are images in the scratch folder, the first one
// with the system volume, one of the others' volumes or the same disk's second one is the data volume that is
// to be protected. Its operations are what a person at it would do; one that does not work out throws
// StepFailed.
#pragma once
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>
#include "machine/files/guest_files.h"
#include "machine/boot/machine.h"
#include "client/control_client.h"
#include "tool/kvrctl/config_text.h"

namespace tool {

class LockableDisk;

using ctl::FixedVolume;
using ctl::StatusText;

// What went wrong in a step that the checks after it depend on.
struct StepFailed : std::runtime_error {
    using std::runtime_error::runtime_error;
};
// Throws StepFailed with `what` and the status unless it is a success.
void Require(NTSTATUS status, const std::string& what);

// A volume in a disk image.
struct Place {
    std::string image;
    std::uint64_t offset = 0;  // bytes
    std::uint64_t length = 0;  // bytes
    std::uint32_t sectorBytes = 512;
};

class Computer {
public:
    // The images of both places are disks of the machine; the system volume is the first volume of the first.
    Computer(const Place& system, const Place& data);
    ~Computer();
    Computer(const Computer&) = delete;
    Computer& operator=(const Computer&) = delete;

    // ---- power -----------------------------------------------------------------------------------------
    // Every boot ends by writing its line into the system volume's log, as operating systems do; the log is
    // on a volume that is not protected. It is over when the driver's threads of the boot have ended, so that
    // what they hold open is held.
    void Boot();
    // The data volume cannot be read, and does not mount, until Unlock.
    void BootLocked();
    void Unlock();
    void Shutdown();
    // Shuts down, with `work` behind that step. What the work throws is thrown when the power is off.
    void ShutdownDuring(machine::ShutdownStep step, const std::function<void()>& work);
    void Reboot();
    void PowerCut();
    bool IsOn() const { return machine_->IsOn(); }
    machine::Machine& Hardware() { return *machine_; }

    // The wall clock, which stands still between calls. UTC; the computer's local time is an hour ahead.
    void SetClock(int year, int month, int day, int hour, int minute);
    // The clock's local time as the configuration writes dates.
    std::string LocalDate() const;

    // ---- use -------------------------------------------------------------------------------------------
    machine::GuestFiles System() { return FilesOf(systemNumber_); }
    machine::GuestFiles Data() { return FilesOf(dataNumber_); }
    // Files of another volume, one that was plugged in for example.
    machine::GuestFiles FilesOf(unsigned volume) { return machine::GuestFiles(MountOn(volume)); }
    std::string WhyDataIsReadOnly() { return MountOn(dataNumber_).ReadOnlyReason(); }
    unsigned SystemNumber() const { return systemNumber_; }
    unsigned DataNumber() const { return dataNumber_; }
    // Of the present boot or the last one.
    const std::u16string& DataName() const { return dataName_; }

    // ---- its administrator's program, which opens the driver's control device each time ----------------
    void Configure(const std::u16string& configuration);
    std::u16string ConfigurationInForce();
    bool IsProtecting();
    // Starts the work and returns; DataStatus() tells how far it is.
    void MakeSwap(std::int64_t bytes);
    FixedVolume Status(unsigned volume);
    FixedVolume DataStatus() { return Status(dataNumber_); }

private:
    machine::GuestFileSystem& MountOn(unsigned volume);
    void Start();
    void EndStart();
    void FindDataVolume();
    void WriteBootLog();
    void Settle();

    Place data_;
    std::shared_ptr<LockableDisk> lock_;
    unsigned dataDisk_;
    std::unique_ptr<machine::Machine> machine_;
    unsigned systemNumber_ = 1;
    unsigned dataNumber_ = 0;
    std::u16string dataName_;
    unsigned boots_ = 0;
    std::function<void(machine::ShutdownStep)> atShutdown_;
};

}  // namespace tool
