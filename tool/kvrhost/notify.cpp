#include "tool/kvrhost/notify.h"
#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include "posix/file_io.h"

namespace tool {
namespace {

constexpr std::string_view kReady = "READY=1";

// An address of the abstract kind is written with "@" in the place of its first byte, which is zero.
bool Send(const std::string& where) {
    sockaddr_un address{};
    if (where.size() >= sizeof address.sun_path) return false;
    address.sun_family = AF_UNIX;
    std::copy(where.begin(), where.end(), address.sun_path);
    if (where[0] == '@') address.sun_path[0] = 0;
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + where.size());
    const posix::File socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    return socket.IsOpen() && sendto(socket.Get(), kReady.data(), kReady.size(), MSG_NOSIGNAL,
                                     reinterpret_cast<const sockaddr*>(&address), length) > 0;
}

}  // namespace

void NotifyReady() {
    const char* const where = std::getenv("NOTIFY_SOCKET");
    if (where == nullptr || *where == 0) return;
    if (!Send(where))
        std::fprintf(stderr, "kvrhost: the service manager cannot be told that the machine is on: %s\n",
                     std::strerror(errno));
    unsetenv("NOTIFY_SOCKET");
}

}  // namespace tool
