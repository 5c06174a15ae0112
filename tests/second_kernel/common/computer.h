// The computer of most stories: a small system volume that holds the configuration file, and a data volume, on
// its own or on a disk, whose files are placed behind the first bytes; the driver in every stack. Media 0 and 1
// are its own, the others the story's.
#pragma once
#include "tests/second_kernel/common/pattern.h"
#include "tests/doubles/played_files.h"
#include "tests/second_kernel/common/ram_device.h"
#include "tests/second_kernel/common/tool.h"
#include "tests/second_kernel/stage.h"

#define SYSTEM_VOLUME W("\\Device\\StoryVolume1")
#define DATA_VOLUME W("\\Device\\StoryVolume2")
#define DATA_DISK W("\\Device\\Harddisk7\\DR7")

inline constexpr ULONG kSystemBytes = 2 * kMiB;
inline constexpr ULONG kRegion = 8 * kMiB;    // of the data volume: the story's, below its files
inline constexpr LONGLONG kDataStart = kMiB;  // of the data volume on its disk

struct ComputerOptions {
    ULONG DataBytes = 68 * kMiB;
    USHORT DataSector = 512;
    bool IsDataOnDisk = false;
    ULONG PieceBytes = 0;  // how the data volume's files are laid out
    ULONG GapBytes = 0;
};

// What a shutdown has just done, in its order.
enum class ShutdownStep {
    Notified,         // the driver knows
    RegistryWritten,  // its last values are on disk
    Flushed,          // file systems have written what they had
    Dismounted,       // and told their volumes so; the last chance comes
};

struct Computer {
    ComputerOptions Options;
    void (*AtShutdown)(Computer*, ShutdownStep);  // what somebody still does then; null: nothing
    PDRIVER_OBJECT Driver;
    PDEVICE_OBJECT Control;
    Tool User;
    PDEVICE_OBJECT System;  // physical devices
    PDEVICE_OBJECT Disk;
    PDEVICE_OBJECT Data;
    PUCHAR DataSectors;  // what the volume really holds
    PlayedFiles* SystemFiles;
    PlayedFiles* DataFiles;
};

// Loads the driver, makes and starts the devices, mounts the files and opens the control device. Null, with
// failed checks, when it could not. The computer is one object, made anew in each boot.
[[nodiscard]] Computer* BootComputer(const ComputerOptions& options = {});
// The first reads of both volumes, as mounting them makes: they bring the driver to life.
void WakeComputer(Computer* computer);
// Shuts down in the platform's order, waits for the driver's threads and checks that no rule was broken. The
// tool is closed before. The data volume's file system says its own shutdown down the stack as it ends.
void EndComputer(Computer* computer);
// Sends the system's power state down every stack, the volumes' first; while asleep the media take no transfer.
void SetPower(Computer* computer, SYSTEM_POWER_STATE state);
// A boot of a story: the computer is booted, played with and shut down.
template <const ComputerOptions& options, void (*play)(Computer*)>
void InBoot() {
    Computer* computer = BootComputer(options);
    if (!computer) return;
    play(computer);
    EndComputer(computer);
}
[[nodiscard]] PDEVICE_OBJECT TopOfData(Computer* computer);
[[nodiscard]] PDEVICE_OBJECT TopOfSystem(Computer* computer);

// Offers the device to the driver and starts it; the status of its start.
[[nodiscard]] NTSTATUS AddAndStart(PDRIVER_OBJECT driver, PDEVICE_OBJECT device);

// Where the story plays no files of its own: the system's root leads to files that the kernel keeps, on a
// volume without the driver; they survive boots.
void MountKernelFiles();
// Removes the data volume's storage; the request carries no more than the volume's name. No storage, no files,
// no location in the registry and no thread are left, and so many pool blocks of the driver.
void RemoveStorage(Computer* computer, LONG blocks);
