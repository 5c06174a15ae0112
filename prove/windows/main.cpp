// kvrprove.exe: Windows starts it at boot, before anybody logs in. With a disk that holds an order it plays
// that act and powers the machine off; without one it ends at once and Windows goes on.
//
//   kvrprove [DISK VOLUME ROOT]
//
// The names in the object manager of the answers' disk, of a volume, and of the folder in which files are made:
// for trying it out in a running system, which then stays on.
#include "prove/acts.h"
#include "prove/windows/nt_guest.h"

namespace proof {
namespace {

constexpr std::uint32_t kArguments = 4;  // the program's own name first
constexpr std::uint32_t kLatePiece = 64 * 1024, kLatePieces = 1024;

const HANDLE kThisProcess = reinterpret_cast<HANDLE>(-1);

char16_t gArguments[kArguments][kPathUnits];
std::uint8_t gLate[kLatePiece];

// Apart by blanks. How many there are.
std::uint32_t ReadArguments(const UNICODE_STRING& line) {
    std::uint32_t count = 0, units = 0;
    for (USHORT i = 0; i < line.Length / sizeof(wchar_t); ++i) {
        const auto unit = static_cast<char16_t>(line.Buffer[i]);
        if (unit == ' ' || unit == 0) {
            units = 0;
            continue;
        }
        if (units == 0 && ++count > kArguments) return count - 1;
        if (units + 1 < kPathUnits) gArguments[count - 1][units++] = unit;
    }
    return count;
}

// Until the power goes, or there is no room.
DWORD WINAPI WriteLate(void* path) {
    NtFile file;
    if (!Succeeded(file.Open(static_cast<const char16_t*>(path), NtFile::Use::Write))) return 0;
    for (std::uint32_t piece = 0; piece < kLatePieces; ++piece) {
        if (!Succeeded(file.Write(std::uint64_t{piece} * kLatePiece, gLate, kLatePiece))) return 0;
        Pause(1);
    }
    return 0;
}

void PowerOff(const char16_t* late) {
    HANDLE thread = nullptr;
    if (late[0] != 0) {
        RtlCreateUserThread(kThisProcess, nullptr, FALSE, 0, 0, 0, WriteLate, const_cast<char16_t*>(late),
                            &thread, nullptr);
        Pause(200);
    }
    BOOLEAN before = FALSE;
    RtlAdjustPrivilege(kShutdownPrivilege, TRUE, FALSE, &before);
    NtShutdownSystem(kShutdownPowerOff);
}

NTSTATUS Run(const UNICODE_STRING& line) {
    const bool tried = ReadArguments(line) == kArguments;
    NtFile disk;
    Order order{};
    if (!FindOrder(tried ? gArguments[1] : nullptr, &disk, &order)) return 1;
    NtGuest guest(disk, order);
    const Status status = guest.UseVolume(tried ? gArguments[2] : nullptr, tried ? gArguments[3] : nullptr);
    guest.Report("the volume of Windows is found", Succeeded(status), status, 0);
    Play(guest, order.act, order.storageBytes);
    guest.End();
    if (!tried) PowerOff(guest.LateFile());
    return 0;
}

}  // namespace
}  // namespace proof

extern "C" void NtProcessStartup(PPEB environment) {
    NtTerminateProcess(proof::kThisProcess, proof::Run(environment->ProcessParameters->CommandLine));
}
