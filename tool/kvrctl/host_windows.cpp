// What the tool needs of the computer on which it runs, where that is a Windows one.
#include <windows.h>
#include <cstdlib>
#include <filesystem>
#include <process.h>
#include "client/failure.h"
#include "tool/kvrctl/host.h"
#include "tool/kvrctl/unicode.h"

namespace ctl {
namespace {

// Set by Ctrl-C; made on first use and left to the end of the process.
HANDLE InterruptEvent() {
    static const HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    return event;
}

BOOL WINAPI OnInterrupt(DWORD) {
    SetEvent(InterruptEvent());
    return TRUE;
}

}  // namespace

HostTerminal::HostTerminal(std::ostream& output, std::ostream& errors) : Terminal(output, errors) {
    SetConsoleOutputCP(CP_UTF8);
    const HANDLE console = GetStdHandle(STD_OUTPUT_HANDLE);
    DWORD mode = 0;
    CONSOLE_SCREEN_BUFFER_INFO info{};
    canAsk = GetConsoleMode(GetStdHandle(STD_INPUT_HANDLE), &mode) &&
             GetConsoleMode(GetStdHandle(STD_ERROR_HANDLE), &mode);
    // Without the screen's control sequences there is no redrawing.
    isTerminal =
        GetConsoleMode(console, &mode) && SetConsoleMode(console, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
    wchar_t plain[2];
    colour = isTerminal && GetEnvironmentVariableW(L"NO_COLOR", plain, 2) == 0;
    if (isTerminal && GetConsoleScreenBufferInfo(console, &info)) {
        const int columns = info.srWindow.Right - info.srWindow.Left + 1;
        if (columns >= 20) width = static_cast<unsigned>(columns);
    }
}

void HostTerminal::CatchInterrupt() {
    InterruptEvent();
    SetConsoleCtrlHandler(OnInterrupt, TRUE);
}

bool HostTerminal::Pause(std::chrono::milliseconds time) {
    return WaitForSingleObject(InterruptEvent(), static_cast<DWORD>(time.count())) == WAIT_TIMEOUT;
}

// The user's own temporary folder is closed to others.
std::string MakePrivateFolder() {
    const std::filesystem::path parent = std::filesystem::temp_directory_path();
    for (unsigned attempt = 0; attempt < 100; ++attempt) {
        const std::filesystem::path folder =
            parent / ("kvrctl." + std::to_string(GetCurrentProcessId()) + "." + std::to_string(attempt));
        std::error_code error;
        if (!std::filesystem::create_directory(folder, error)) continue;
        const std::u16string name = folder.u16string();
        return ToUtf8(name);
    }
    throw Failure("no temporary folder can be made in " + ToUtf8(parent.u16string()));
}

void RunEditor(const std::string& path) {
    const wchar_t* chosen = _wgetenv(L"EDITOR");
    const std::wstring editor = chosen && *chosen ? chosen : L"notepad.exe";
    const std::u16string wide = FromUtf8(path, "the file's name");
    const std::wstring quoted = L"\"" + std::wstring(wide.begin(), wide.end()) + L"\"";
    const intptr_t result = _wspawnlp(_P_WAIT, editor.c_str(), editor.c_str(), quoted.c_str(), nullptr);
    if (result != 0)
        throw Failure("the editor '" + ToUtf8(std::u16string(editor.begin(), editor.end())) +
                      "' failed; nothing was stored");
}

}  // namespace ctl
