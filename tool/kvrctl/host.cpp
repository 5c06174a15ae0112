#include "tool/kvrctl/host.h"
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include "client/failure.h"

namespace ctl {
namespace {

std::filesystem::path PathOf(const std::string& utf8) {
    return std::filesystem::path(std::u8string(utf8.begin(), utf8.end()));
}

[[noreturn]] void Fail(const std::string& path) {
    throw Failure("'" + path + "': " + std::strerror(errno));
}

}  // namespace

bool HostTerminal::AskYes(const std::string& question) {
    err << question << " [y/N] " << std::flush;
    std::string answer;
    if (!std::getline(std::cin, answer)) err << "\n";
    return answer == "y" || answer == "Y" || answer == "yes";
}

void RequireConsent(Terminal& terminal, bool given, const std::string& why, const std::string& option) {
    if (given) return;
    if (!terminal.canAsk) throw Failure(why + "; say " + option + " if that is meant");
    if (!terminal.AskYes("kvrctl: " + why + ". Go on?")) throw Failure("nothing was changed");
}

std::string ReadFile(const std::string& path) {
    if (std::filesystem::is_directory(PathOf(path))) throw Failure("'" + path + "' is a folder");
    errno = 0;
    std::ifstream file(PathOf(path), std::ios::binary);
    if (!file) Fail(path);
    std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (file.bad()) Fail(path);
    return bytes;
}

std::string ReadStandardInput() {
    return std::string((std::istreambuf_iterator<char>(std::cin)), std::istreambuf_iterator<char>());
}

void WriteFile(const std::string& path, const std::string& bytes) {
    errno = 0;
    std::ofstream file(PathOf(path), std::ios::binary | std::ios::trunc);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    file.close();
    if (!file) Fail(path);
}

TemporaryFile::TemporaryFile(const std::string& name, const std::string& bytes)
    : folder_(MakePrivateFolder()), path_(folder_ + "/" + name) {
    WriteFile(path_, bytes);
}

TemporaryFile::~TemporaryFile() {
    std::error_code ignored;
    if (!keep_) std::filesystem::remove_all(PathOf(folder_), ignored);
}

}  // namespace ctl
