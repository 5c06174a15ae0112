// A powered-on machine and those who use it: network block device clients and control tools.
//
// A client works below the file systems that the machine itself has mounted. While one is connected to a
// volume, through the volume's export or its disk's, the machine's own file system there stands back (nothing
// is cached, nothing written), and what would need it is refused with a line that says who is connected.
//
// A reboot takes place under the clients' feet: their requests wait for its end.
#pragma once
#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>
#include "client/control_client.h"
#include "machine/boot/machine.h"
#include "nbd/boot_deeds.h"
#include "nbd/clients.h"
#include "nbd/fair_lock.h"
#include "nbd/log.h"
#include "nbd/machine_folder.h"
#include "nbd/seal_keeper.h"
#include "nbd/served_disk.h"
#include "nbd/storage_watch.h"
#include "formats/control_wire.h"

namespace nbd {

inline constexpr std::u16string_view kControlDevice = u"\\DosDevices\\kvr";

class Server {
public:
    // Opens what the folder names and marks the disks as its machine's; changes nothing else yet. The lock
    // stays with the server. Throws Error, for a disk of another machine too.
    Server(MachineFolder folder, FolderLock lock);
    ~Server();  // stops
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Powers on. A process that serves may fork before it but not after. Throws Error.
    void Start();
    // Shuts down in order; every request from then on fails. Does nothing when the machine is off.
    void Stop();
    // False with a sentence in `why` when the machine did not come up again; it is off then.
    bool Reboot(std::string& why);
    // Reboots unless a client is connected or storage is being made; which of these it was. None comes between.
    enum class Idle { Rebooted, InUse, Busy };
    Idle RebootWhenIdle();

    const MachineFolder& Folder() const { return folder_; }
    nbd::Log& Log() { return log_; }
    // Notes that something could not be done for want of memory, if that can be noted. Never throws.
    void NoMemory(const char* whose) noexcept;

    // ---- clients ---------------------------------------------------------------------------------------
    struct ExportLine {
        std::string name;
        std::string description;
    };
    std::vector<ExportLine> Exports();
    // What a client's connection stands for from Connect to Disconnect.
    struct Connection {
        Export target;
        ServedDisk* disk = nullptr;
        std::uint64_t size = 0;  // bytes, as the client was told
        Clients::Place client;
        mutable std::atomic<bool> hasWritten{false};
    };
    // Throws Error when there is no such export or the volume cannot be had now.
    std::unique_ptr<Connection> Connect(const Export& target, const std::string& who);
    void Disconnect(std::unique_ptr<Connection> connection) noexcept;

    enum class Action { Read, Write, Zero, Flush };
    // A byte range of the connection's export, inside the size that the client was told; a buffer for Read and
    // Write. Any number of threads may call at once.
    [[nodiscard]] NTSTATUS Transfer(const Connection& connection, Action action, std::uint64_t offset,
                                    std::uint64_t length, void* buffer);

    // ---- control tools ---------------------------------------------------------------------------------
    // A handle to the driver's control device is a number; a reboot closes it. At most one is open.
    using Handle = std::uint64_t;
    [[nodiscard]] NTSTATUS OpenControl(ACCESS_MASK access, Handle& handle);
    void CloseControl(Handle handle);
    struct ControlCall {
        std::uint32_t code;
        std::vector<std::uint8_t> input;
        std::vector<std::uint8_t> output;  // in: the room that there is; out: the answer
        std::string text;                  // why the machine itself refused
    };
    [[nodiscard]] NTSTATUS Control(Handle handle, ControlCall& call);
    [[nodiscard]] NTSTATUS Facts(const std::u16string& volume, tool::wire::VolumeFacts& facts,
                                 std::string& clients);
    // Of the volumes of this boot, as it found them or they were first mounted; the system disk's last.
    std::vector<tool::wire::VolumeText> Descriptions();
    // As the disk below the driver holds them (server_sectors.cpp).
    [[nodiscard]] NTSTATUS ReadSectors(const std::u16string& volume, std::uint64_t offset,
                                       std::vector<std::uint8_t>& bytes);
    // As the top of the volume's stack gives them.
    [[nodiscard]] NTSTATUS ReadPresent(const std::u16string& volume, std::uint64_t offset,
                                       std::vector<std::uint8_t>& bytes);
    // As Command::StorageRuns has it.
    [[nodiscard]] NTSTATUS StorageRuns(const std::u16string& volume, std::vector<tool::wire::StorageRun>& runs);
    [[nodiscard]] NTSTATUS ReadRegistry(const std::u16string& key, const std::u16string& name,
                                        std::vector<std::uint8_t>& data);
    // Of the driver's switches in the registry only; STATUS_INVALID_PARAMETER otherwise.
    [[nodiscard]] NTSTATUS SetSwitch(const std::u16string& name, bool on);
    // One line of key=value pairs, behind it a line "warning: ..." for each thing that is not as configured,
    // and a line "note: ..." for what else its user should know.
    std::string About();

private:
    // server_boot.cpp
    void OpenDisks();
    void PowerOn(unsigned attempts);
    void PowerOff();
    bool RebootAlone(std::string& why);
    void BootOnce();
    bool BootWithinMemory();
    void EndFailedBoot(const char* why);
    void NoteHardening();
    void WriteBootLog();
    void Settle();
    void SaveRegistryNowAndThen();

    // server_judge.cpp
    void RequireBoot(NTSTATUS booted);
    void JudgeVolumes();
    void MissVolume(const std::u16string& name);
    void JudgeVolume(const std::u16string& name, const std::vector<ctl::FixedVolume>& present);
    void Warn(const std::string& sentence);

    // server_seals.cpp
    std::set<unsigned> NumbersOf(const std::vector<std::u16string>& names);
    std::set<unsigned> MergesDue();
    void TakeSealsAlong(const std::set<unsigned>& due);

    // server_clients.cpp
    ServedDisk* DiskOf(const Export& target, std::uint64_t& offset, std::uint64_t& size);
    void LendVolumes(const Export& target);
    void TakeBackVolumes(const Export& target);
    void Redescribe(machine::Volume& volume);
    template <class Each>
    void ForEachVolumeOf(const Export& target, const Each& each);
    bool IsMakingStorage(const Export& target);

    // server_storage.cpp
    std::optional<std::vector<ctl::FixedVolume>> AskVolumes();
    bool IsOutOfRoom(const ServedDisk& disk, std::uint64_t offset, std::uint64_t length);
    void WatchStorage();
    std::string StorageNotes();

    // server_audit.cpp
    void FollowDriver();
    void TellBoot(const std::vector<ctl::FixedVolume>& report);
    void AuditConfiguration(const std::vector<std::uint8_t>& image);
    void Audit(const ControlCall& call, NTSTATUS status);
    void NoteWriter(const Connection& connection);
    bool Overlap(const Export& one, const Export& other);
    std::string SharedWriters();

    // server_control.cpp
    [[nodiscard]] NTSTATUS CheckUsable(const ControlCall& call, std::string& text, unsigned& volume);
    void BeginStorage(unsigned volume);
    std::string StorageFailure();
    [[nodiscard]] NTSTATUS Send(ControlCall& call);
    void CloseHandle();

    const MachineFolder folder_;
    FolderLock lock_;
    nbd::Log log_;
    std::shared_ptr<machine::RegistryFile> registry_;
    SealKeeper seals_{folder_, log_};
    std::vector<std::unique_ptr<ServedDisk>> disks_;
    std::unique_ptr<machine::Machine> machine_;
    unsigned boots_ = 0;

    // Shared by whoever uses the boot, alone for what begins or ends one. Before clientsLock_.
    FairLock boot_;
    bool on_ = false;                    // guarded by boot_
    bool hardening_ = false;             // the driver read so at this boot; guarded by boot_
    int minutesEast_ = 0;                // of UTC, the machine's clock; guarded by boot_
    std::vector<std::string> warnings_;  // what is not as configured, one sentence each; guarded by boot_
    std::vector<std::string> notes_;     // what this boot found that its user should know; guarded by boot_

    BootDeeds bootDeeds_;
    std::vector<BootDeed> deeds_;  // of this boot; guarded by boot_
    StorageWatch storage_;

    std::mutex auditLock_;                         // guards what follows
    std::optional<std::u16string> configuration_;  // as it was last stored

    std::mutex clientsLock_;  // guards what follows, and every volume's `files`
    Clients clients_;
    std::map<unsigned, tool::wire::VolumeText> descriptions_;  // by number
    PFILE_OBJECT control_ = nullptr;                           // the one handle that is open
    Handle handle_ = 0;
    Handle lastHandle_ = 0;
    unsigned storageVolume_ = 0;  // where storage was last asked for in this boot
    bool isMaking_ = false;       // ... and not yet seen to be finished

    std::mutex stopLock_;  // held by whoever stops the server; before all others
    std::mutex savingLock_;
    std::condition_variable savingEnds_;
    bool saving_ = false;  // guarded by savingLock_
    std::thread saver_;
};

}  // namespace nbd
