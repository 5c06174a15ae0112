// File systems that a damaged disk or a hostile guest left on a served machine's volumes, NTFS and ext4: the
// input damages the metadata, then the machine starts, clients come and go on every export, tools ask and make
// storage, it boots again and stops. It serves, or does not start and says why; a damaged volume harms nothing
// but itself.
#include "fuzz/served.h"
#include <fcntl.h>
#include "machine/partition/formatter.h"

namespace {

using tool::wire::Command;

constexpr std::uint64_t kMiB = 1 << 20;
constexpr std::uint64_t kDiskBytes = 24 * kMiB;

class Damage {
public:
    Damage(const std::string& image, FuzzedDataProvider& input)
        : image_(open(image.c_str(), O_RDWR | O_CLOEXEC)), input_(input) {
        std::string why;
        fuzz::Require(machine::ReadImagePartitions(image, 512, table_, why), why);
    }
    void Do() {
        for (int count = input_.ConsumeIntegralInRange(1, 12); count > 0; --count) One();
    }

private:
    // A sector that holds something, counted from the begin of the volume.
    std::uint64_t Place(const machine::Partition& partition) {
        std::uint64_t sector = input_.ConsumeIntegralInRange<std::uint64_t>(0, partition.length / 512 - 1);
        for (unsigned tries = 0; tries < 4096; ++tries, sector = (sector + 1) % (partition.length / 512)) {
            std::uint8_t bytes[512];
            const std::uint64_t offset = partition.offset + sector * 512;
            fuzz::Require(posix::ReadAt(image_.Get(), bytes, sizeof bytes, offset), "the image can be read");
            if (std::any_of(bytes, bytes + 512, [](std::uint8_t b) { return b != 0; })) return offset;
        }
        return partition.offset;
    }
    void One() {
        const machine::Partition& partition =
            table_.partitions.at(input_.ConsumeIntegralInRange<std::size_t>(0, 1));
        const std::uint64_t offset = Place(partition) + input_.ConsumeIntegralInRange<std::uint64_t>(0, 511);
        std::vector<std::uint8_t> bytes =
            input_.ConsumeBytes<std::uint8_t>(input_.ConsumeIntegralInRange<std::size_t>(1, 16));
        if (bytes.empty()) bytes.push_back(0xFF);
        fuzz::Require(
            posix::WriteAt(image_.Get(), bytes.data(), bytes.size(), std::min(offset, kDiskBytes - 16)),
            "the image can be written");
    }

    const posix::File image_;
    FuzzedDataProvider& input_;
    machine::PartitionTable table_;
};

// A client of each export, one after the other: it reads, and writes what it read.
void Visit(nbd::Server& server) {
    using Action = nbd::Server::Action;
    std::uint8_t bytes[4096];
    for (const auto& line : server.Exports()) {
        try {
            auto client = server.Connect(*nbd::Export::Parse(line.name), "the fuzzer");
            if (NT_SUCCESS(server.Transfer(*client, Action::Read, 4096, sizeof bytes, bytes)))
                KVR_DISCARD(server.Transfer(*client, Action::Write, 4096, sizeof bytes, bytes),
                            "storage may be full or not usable");
            fuzz::Require(NT_SUCCESS(server.Transfer(*client, Action::Flush, 0, 0, nullptr)),
                          "a flush is done");
            server.Disconnect(std::move(client));
        } catch (const nbd::Error& error) {
            fuzz::Require(*error.what() != 0, "who is refused is told why");
        }
    }
}

NTSTATUS Control(nbd::Server& server, std::uint32_t code, std::vector<std::uint8_t> input, std::size_t room) {
    nbd::Server::Handle handle = 0;
    fuzz::Require(NT_SUCCESS(server.OpenControl(GENERIC_READ | FILE_WRITE_DATA, handle)),
                  "the driver can be asked");
    nbd::Server::ControlCall call{code, std::move(input), std::vector<std::uint8_t>(room), {}};
    const NTSTATUS status = server.Control(handle, call);
    server.CloseControl(handle);
    return status;
}

void AskAll(fuzz::Served& served, bool makeStorage) {
    for (const std::u16string& volume : {fuzz::kVolumes[0], fuzz::kVolumes[1]}) {
        const auto facts = served.Ask({Command::Facts, 0, fuzz::BytesOf(fuzz::NameOf(volume)), 64});
        KVR_DISCARD(facts, "answered is enough");
        if (!makeStorage) continue;
        KVR_DISCARD(Control(served.Machine(), IOCTL_KVR_ALLOCATE_SWAP,
                            fuzz::BytesOf(support::StorageRequest(volume, kMiB)), 0),
                    "a damaged volume may refuse it");
        KVR_DISCARD(Control(served.Machine(), IOCTL_KVR_STOP_SWAP_THREAD, {}, 0), "none may run");
    }
    fuzz::Require(NT_SUCCESS(Control(served.Machine(), IOCTL_KVR_GET_FIXED_VOLUMES, {}, 8192)),
                  "the driver answers");
}

// Serves and ends the machine.
void Serve(const std::string& folder, bool makesStorage, bool boots) {
    fuzz::Served served(folder);
    std::string why;
    if (!served.Start(why)) return;
    Visit(served.Machine());
    AskAll(served, makesStorage);
    if (boots && !served.Machine().Reboot(why)) fuzz::Require(!why.empty(), "a boot that fails says why");
    if (boots) Visit(served.Machine());
    fuzz::Require(served.Ask({Command::About, 0, {}, 0}).text.starts_with("on="), "the server answers");
}

void Prepare(const std::string& path) {
    machine::NewDisk disk;
    disk.path = path + "/disk0.img";
    disk.size = kDiskBytes;
    disk.table = machine::TableKind::Mbr;
    disk.volumes.resize(2);
    disk.volumes[1].fileSystem = FileSystemKind::Ext;
    std::string why;
    std::filesystem::remove(disk.path);
    fuzz::Require(machine::CreateDisk(disk, why), why);
    fuzz::Served served(path);
    served.MustStart();
    fuzz::Protect(2, kMiB, config::kBootModeKeep);
}

nbd::NewMachine Small() {
    nbd::NewMachine machine;
    machine.size = kDiskBytes;
    return machine;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::Folder folder(Small(), Prepare);
    FuzzedDataProvider input(data, size);
    const bool makesStorage = input.ConsumeBool();
    const bool boots = input.ConsumeBool();
    Damage(folder.File("disk0.img"), input).Do();
    Serve(folder.Path(), makesStorage, boots);
    folder.Restore();
    return 0;
}
