// The world of a hosted machine, behind its control socket.
#pragma once
#include <string>
#include "tool/kvrctl/wire_connection.h"
#include "tool/kvrctl/world.h"

namespace ctl {

class HostedWorld : public World {
public:
    explicit HostedWorld(std::string folder) : folder_(std::move(folder)) {}

    std::unique_ptr<Driver> OpenDriver(Access access) override;
    std::optional<VolumeFacts> Facts(const std::u16string& volume) override;
    Bytes ReadSectors(const std::u16string& volume, std::uint64_t offset, std::uint32_t length) override;
    std::optional<Bytes> ReadRegistry(const std::u16string& value) override;
    std::string NextBoot() const override;

private:
    // The connection for the machine's own facts, apart from the handles' ones.
    WireConnection& Connection();

    std::string folder_;
    std::unique_ptr<WireConnection> connection_;
};

}  // namespace ctl
