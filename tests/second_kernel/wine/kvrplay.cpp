// Plays one boot of a story: starts the harness driver, has it play the boot, prints what came of it, and ends
// the process in which the drivers live, so that the next boot finds fresh ones.
//
//   kvrplay FOLDER STORY BOOT    FOLDER holds the drivers; BOOT counts from 1; the first begins on empty ground
//   kvrplay FOLDER STORY BOOT stay
//                                leaves what the boot left in place until standard input ends
//
// Prints a line for each failed check. Exit status 0: every check held. 1: one failed. 2: the boot was not
// played to its end. The last line of a boot that was is "boots N, checks N, failures N", N boots being the
// story's.
#include <windows.h>
#include <winioctl.h>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <string>
#include <vector>
#include "protocol.h"

namespace {

constexpr wchar_t kGroup[] = L"KvrStory";  // both drivers in one process
constexpr wchar_t kDriverKey[] = L"System\\kvr";
constexpr DWORD kAnswerBytes = 256 << 10;

int gFailure = 3;  // the exit status: from the story's begin on it is 2

[[noreturn]] void Fail(const char* what) {
    std::printf("kvrplay: %s: error %lu\n", what, GetLastError());
    std::exit(gFailure);
}

void RemoveFolder(const std::wstring& folder) {
    WIN32_FIND_DATAW found;
    HANDLE search = FindFirstFileW((folder + L"\\*").c_str(), &found);
    if (search == INVALID_HANDLE_VALUE) return;
    do {
        const std::wstring name = found.cFileName;
        if (name == L"." || name == L"..") continue;
        if (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
            RemoveFolder(folder + L"\\" + name);
        } else if (!DeleteFileW((folder + L"\\" + name).c_str())) {
            Fail("a file of an earlier story stays");
        }
    } while (FindNextFileW(search, &found));
    FindClose(search);
    RemoveDirectoryW(folder.c_str());
}

// What survives boots is as before a story's first.
void ClearGround() {
    const LSTATUS status = RegDeleteTreeW(HKEY_LOCAL_MACHINE, kDriverKey);
    if (status != ERROR_SUCCESS && status != ERROR_FILE_NOT_FOUND) Fail("the driver's key stays");
    RemoveFolder(STORY_FOLDER);
    for (const wchar_t* folder : {L"", L"\\root", L"\\root\\system32", L"\\root\\system32\\drivers"})
        if (!CreateDirectoryW((std::wstring(STORY_FOLDER) + folder).c_str(), nullptr)) Fail("a folder");
}

// An earlier session's service of that name gives way.
SC_HANDLE MakeService(SC_HANDLE manager, const wchar_t* name, const std::wstring& image) {
    if (SC_HANDLE old = OpenServiceW(manager, name, DELETE)) {
        DeleteService(old);
        CloseServiceHandle(old);
    }
    SC_HANDLE made =
        CreateServiceW(manager, name, name, SERVICE_ALL_ACCESS, SERVICE_KERNEL_DRIVER, SERVICE_DEMAND_START,
                       SERVICE_ERROR_NORMAL, image.c_str(), kGroup, nullptr, nullptr, nullptr, nullptr);
    if (!made) Fail("a driver's service");
    return made;
}

// The driver under test is loaded by the story.
void StartHarness(const std::wstring& folder) {
    SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
    if (!manager) Fail("the service manager");
    SC_HANDLE driver = MakeService(manager, kDriverService, folder + L"\\kvr64.sys");
    SC_HANDLE harness = MakeService(manager, kStoryService, folder + L"\\kvrstory.sys");
    if (!StartServiceW(harness, 0, nullptr)) Fail("the harness driver does not start");
    for (SC_HANDLE handle : {harness, driver, manager}) CloseServiceHandle(handle);
}

// The answer to IOCTL_STORY_PLAY, as it lies in `room`.
const STORY_OUTCOME* Play(STORY_PLAY play, std::vector<char>& room) {
    HANDLE device =
        CreateFileW(L"\\\\.\\kvrstory", GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    if (device == INVALID_HANDLE_VALUE) Fail("the harness driver's device");
    gFailure = 2;
    DWORD bytes = 0;
    const BOOL played = DeviceIoControl(device, IOCTL_STORY_PLAY, &play, sizeof(play), room.data(),
                                        static_cast<DWORD>(room.size()), &bytes, nullptr);
    if (!played || bytes < sizeof(STORY_OUTCOME)) Fail("the drivers' process ended in the middle of the boot");
    CloseHandle(device);
    return reinterpret_cast<const STORY_OUTCOME*>(room.data());
}

}  // namespace

int wmain(int count, wchar_t** arguments) {
    const bool stay = count == 5 && std::wcscmp(arguments[4], L"stay") == 0;
    if (count != 4 && !stay) {
        std::printf("usage: kvrplay FOLDER STORY BOOT [stay]\n");
        return 2;
    }
    const std::wstring folder = arguments[1];
    STORY_PLAY play{};
    std::snprintf(play.Name, sizeof(play.Name), "%ls", arguments[2]);
    play.Boot = static_cast<unsigned>(std::wcstoul(arguments[3], nullptr, 10)) - 1;
    if (play.Boot == 0) ClearGround();

    StartHarness(folder);
    std::vector<char> room(kAnswerBytes);
    const STORY_OUTCOME* outcome = Play(play, room);
    if (outcome->Boots == 0) {
        std::printf("there is no such boot of a story\n");
        return 2;
    }
    std::printf("%.*s", static_cast<int>(outcome->TextLength), reinterpret_cast<const char*>(outcome + 1));
    std::printf("boots %u, checks %u, failures %u\n", outcome->Boots, outcome->Checks, outcome->Failures);
    if (stay) {
        std::fflush(stdout);
        while (std::getchar() != EOF) continue;
    }
    return outcome->Failures == 0 && outcome->Checks != 0 ? 0 : 1;
}
