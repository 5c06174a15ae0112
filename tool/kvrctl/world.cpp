#include "tool/kvrctl/world.h"
#include <thread>
#include "client/failure.h"

namespace ctl {
namespace {

constexpr std::chrono::milliseconds kRetryPause{100};

}  // namespace

Bytes World::ReadPresent(const std::u16string&, std::uint64_t, std::uint32_t) {
    throw Failure("this computer does not show a volume's fixed state beside its present one");
}

std::string World::BootMark() {
    return {};
}

Client OpenClient(World& world, Terminal& terminal, Access access, Patience patience) {
    const bool insist = patience == Patience::Insistent;
    for (int left = insist ? 300 : 20; left != 0; --left) {
        if (auto driver = world.OpenDriver(access)) return Client(std::move(driver));
        if (insist)
            std::this_thread::sleep_for(kRetryPause);
        else if (!terminal.Pause(kRetryPause))
            throw Failure("stopped while another program held the driver's control device", kExitStopped);
    }
    throw Failure("another program holds the driver's control device; only one can at a time", kExitBusy);
}

}  // namespace ctl
