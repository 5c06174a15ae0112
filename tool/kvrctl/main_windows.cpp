#include <fcntl.h>
#include <io.h>
#include <iostream>
#include "tool/kvrctl/command_line.h"
#include "tool/kvrctl/host.h"
#include "tool/kvrctl/unicode.h"

extern "C" int wmain(int argc, wchar_t** argv) {
    // The configuration's text keeps its own line ends.
    _setmode(_fileno(stdin), _O_BINARY);
    _setmode(_fileno(stdout), _O_BINARY);
    std::vector<std::string> words;
    for (int i = 1; i < argc; ++i) {
        const std::wstring word = argv[i];
        words.push_back(ctl::ToUtf8(std::u16string(word.begin(), word.end())));
    }
    ctl::HostTerminal terminal(std::cout, std::cerr);
    return ctl::RunCommandLine(std::move(words), terminal, ctl::MakeWorld);
}
