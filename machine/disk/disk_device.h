// A disk of the machine: the physical device object at the bottom of the disk's stack, over a medium. It
// answers as a disk driver does, and completes as its test asks: in the caller's thread, later on another
// one, or step by step when the test says so.
#pragma once
#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>
#include "machine/disk/disk.h"

namespace machine {

enum class Completion {
    Immediate,  // in the dispatch routine, but a read that waits for its medium when its sender waits
    Pended,     // marked pending and completed by a thread of the disk, at DISPATCH_LEVEL
    Stepped,    // marked pending and completed by Release(), in the order that the test chooses
};

class DiskDevice {
public:
    // Creates \Device\Harddisk<number>\DR<number> for `driver`, which Fill() made ready. The driver's device
    // object ends with IoDeleteDevice or the kernel's power, this object never before it.
    // STATUS_INVALID_PARAMETER for a medium whose sector size a disk cannot have.
    [[nodiscard]] static NTSTATUS Create(PDRIVER_OBJECT driver, std::shared_ptr<Disk> medium, unsigned number,
                                         bool removable, std::unique_ptr<DiskDevice>& disk);
    // Installs the disk's dispatch routines.
    static void Fill(PDRIVER_OBJECT driver);
    ~DiskDevice();
    DiskDevice(const DiskDevice&) = delete;
    DiskDevice& operator=(const DiskDevice&) = delete;

    PDEVICE_OBJECT Device() const { return device_; }
    unsigned Number() const { return number_; }
    bool Removable() const { return removable_; }
    Disk& Medium() const { return *medium_; }

    // Requests that wait keep waiting until they are released, except that leaving Stepped releases them.
    void SetCompletion(Completion mode);
    // Returns when at least `count` requests wait for Release().
    void WaitForWaiting(std::size_t count);
    // Carries out and completes the request that waits at `index` (0 came first). False when there is none.
    bool Release(std::size_t index = 0);
    void ReleaseAll();
    // From now on the disk forgets what it is told to forget, and reads zeros there; by itself it knows no such
    // request.
    void HonourTrim() { trims_ = true; }
    // Completes everything that waits and from now on completes at once; its threads end.
    void Stop();

private:
    DiskDevice(std::shared_ptr<Disk> medium, unsigned number, bool removable);

    static NTSTATUS DispatchTransfer(PDEVICE_OBJECT device, PIRP irp);
    static NTSTATUS DispatchControl(PDEVICE_OBJECT device, PIRP irp);
    static NTSTATUS DispatchPnp(PDEVICE_OBJECT device, PIRP irp);
    static NTSTATUS DispatchPower(PDEVICE_OBJECT device, PIRP irp);
    static NTSTATUS DispatchSucceed(PDEVICE_OBJECT device, PIRP irp);
    static DiskDevice& Of(PDEVICE_OBJECT device);

    bool Queue(PIRP irp);
    void Hold(PIRP irp);
    static void CarryOutHeld(PIRP irp, void* context);
    void CarryOut(PIRP irp, ReadUnderWay* begun = nullptr);
    // STATUS_PENDING only for a read that `mayWait`, for its medium; `begun`: it has, for this one.
    NTSTATUS Transfer(PIRP irp, bool mayWait, ReadUnderWay* begun, ULONG_PTR& information);
    NTSTATUS Control(PIRP irp, ULONG_PTR& information);
    NTSTATUS Trim(PIRP irp);
    void Work();

    PDEVICE_OBJECT device_ = nullptr;
    const std::shared_ptr<Disk> medium_;
    const unsigned number_;
    const bool removable_;
    std::atomic<bool> trims_{false};

    std::atomic<Completion> mode_{Completion::Immediate};
    std::mutex lock_;  // guards what follows
    std::condition_variable changed_;
    std::deque<PIRP> waiting_;
    std::vector<std::thread> workers_;
    bool stopping_ = false;
};

}  // namespace machine
