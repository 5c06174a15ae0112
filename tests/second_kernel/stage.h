// What a story plays on, beyond the host kernel itself: the driver under test, what survives a boot, and who
// notes what went wrong.
//
// A story is a list of boots; each boot finds a kernel without the driver, and every call here belongs to the
// present boot unless it says otherwise. One story runs at a time, on a thread at PASSIVE_LEVEL.
#pragma once
#include <string>
#include <vector>
#include "platform/kernel.h"

// A story: what it proves, and its boots in their order. Defined in stories/, listed in stories/list.h.
struct Story {
    const char* name;  // letters, digits and underscores
    const char* proves;
    std::vector<void (*)()> boots;
};

namespace stage {

// ---- the driver under test -----------------------------------------------------------------------------
// Its entry, every global of the driver having its load value. Null when there is none.
[[nodiscard]] PDRIVER_INITIALIZE DriverToLoad();
// A story that only this kind of driver can be played with, besides those of the list; null when there is none.
[[nodiscard]] const Story* OwnStory();
// Loads the driver as a boot does. Once in a boot. `driver` is the object that its entry received; null on
// failure.
[[nodiscard]] NTSTATUS LoadDriver(PDRIVER_OBJECT& driver);
// Waits, 30 seconds at most, until every thread that the driver started has ended; how many still run.
ULONG WaitForDriverThreads();
// The whole lines that the driver printed since this boot began; how many contain `part`.
ULONG TimesSaid(const char* part);
// Pool blocks with the driver's tag that are outstanding.
LONG PoolBlocks();
// The driver object for devices that the story makes; the story fills its dispatch table.
PDRIVER_OBJECT OwnDriver();

// ---- what survives a boot ------------------------------------------------------------------------------
// The bytes of medium `number`, zero before the story's first boot. Each boot asks with the same size.
PUCHAR Medium(ULONG number, SIZE_T bytes);
// What the driver stored under that name, empty when there is nothing.
[[nodiscard]] std::vector<UCHAR> RegistryValue(const std::u16string& name);
// Stores one of the driver's switches, as an administrator does; it holds from the driver's next load.
void SetDriverSwitch(const std::u16string& name, ULONG value);
[[nodiscard]] bool IsFirstBoot();

// ---- the outcome ---------------------------------------------------------------------------------------
// Names what the story does next; failures are reported with it.
void Step(const char* what);
// Notes a check. A failed one is reported with the story, its boot, the step, `what` and both values, and fails
// the story, which goes on. Any IRQL up to DISPATCH_LEVEL, any thread. Returns whether it holds.
bool Check(bool holds, const char* what, ULONGLONG got = 0, ULONGLONG expected = 0);
template <class Got, class Expected>
bool CheckEqual(const Got& got, const Expected& expected, const char* what) {
    const auto wide = static_cast<ULONGLONG>(expected);
    return Check(static_cast<ULONGLONG>(got) == wide, what, static_cast<ULONGLONG>(got), wide);
}
inline bool CheckStatus(NTSTATUS got, NTSTATUS expected, const char* what) {
    return Check(got == expected, what, static_cast<ULONG>(got), static_cast<ULONG>(expected));
}
// Whether a check of this boot has failed: for what makes no sense to go on with.
bool Failed();

// ---- for the runner ------------------------------------------------------------------------------------
// Everything before the story's first boot: media and registry empty.
void BeginStory();
// A kernel that is on, without the driver.
void BeginBoot(ULONG index);
// Waits for what still runs, looks for what the boot left behind, and turns the kernel off.
void EndBoot();
// The failed checks of the story, a line each; empty when it holds.
[[nodiscard]] const std::string& Failures();
// The driver's last diagnostics before the first failure.
[[nodiscard]] const std::string& Diagnostics();

}  // namespace stage
