// The world of a hosted machine, behind its control socket.
#pragma once
#include <string>
#include "formats/control_wire.h"
#include "tool/kvrctl/world.h"

namespace ctl {

class HostedWorld : public World {
public:
    explicit HostedWorld(std::string folder);
    ~HostedWorld() override;

    std::unique_ptr<Driver> OpenDriver(Access access) override;
    std::optional<VolumeFacts> Facts(const std::u16string& volume) override;
    Bytes ReadSectors(const std::u16string& volume, std::uint64_t offset, std::uint32_t length) override;
    Bytes ReadPresent(const std::u16string& volume, std::uint64_t offset, std::uint32_t length) override;
    std::string BootMark() override;
    StorageFiles FilesOfStorage(const std::u16string& volume) override;
    std::optional<Bytes> ReadRegistry(const std::u16string& value) override;
    void WriteSwitch(const std::u16string& value, bool on) override;
    std::optional<bool> HardeningNow() override;
    int MinutesEast() override;
    // A network client's writes are made for no file: they get what is kept for metadata as well.
    std::uint64_t StorageReserve() const override { return kNoSpaceLimit; }
    std::string WhyUnfinished(const std::u16string& volume) override;
    MachineNotes Notes() override;
    std::string Name() const override;
    std::string NextBoot() const override;

private:
    class Connection;

    // For the machine's own facts, apart from the handles' connections.
    Answer Ask(tool::wire::Command command, std::span<const std::uint8_t> input, Bytes& output,
               std::uint32_t code = 0);
    // What the machine says of itself.
    std::string About();
    // Under that key of the first line; empty when it says nothing there.
    std::string About(const std::string& key);

    Bytes ReadWith(tool::wire::Command command, const std::u16string& volume, std::uint64_t offset,
                   std::uint32_t length);

    std::string folder_;
    std::unique_ptr<Connection> connection_;
};

}  // namespace ctl
