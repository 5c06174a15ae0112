#include <iostream>
#include "tool/kvrctl/command_line.h"
#include "tool/kvrctl/host.h"

int main(int argc, char** argv) {
    ctl::HostTerminal terminal(std::cout, std::cerr);
    return ctl::RunCommandLine(std::vector<std::string>(argv + 1, argv + argc), terminal, ctl::MakeWorld);
}
