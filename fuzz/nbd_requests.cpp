// What clients may ask of a served machine through nbdkit, by the plugin's own calls: several connections to
// its disk and its volumes, one of them protected, requests of any place and length inside the export with any
// flags. What was written is read back, by whichever export.
#include "fuzz/served.h"
#define NBDKIT_API_VERSION 2
#include <nbdkit-plugin.h>
#include "machine/partition/formatter.h"

// ---- what nbdkit offers its plugin, as far as ours asks for it ----------------------------------------------

extern "C" nbdkit_plugin* plugin_init();

namespace {

thread_local std::string tExportName;
thread_local int tError = 0;
thread_local bool tSaid = false;  // the last failure came with a sentence

}  // namespace

extern "C" {
__attribute__((used)) void nbdkit_error(const char*, ...) {
    tSaid = true;
}
__attribute__((used)) void nbdkit_set_error(int error) {
    tError = error;
}
__attribute__((used)) char* nbdkit_realpath(const char* path) {
    return realpath(path, nullptr);
}
__attribute__((used)) int nbdkit_parse_int(const char*, const char*, int*) {
    return -1;
}
__attribute__((used)) void nbdkit_shutdown() {}
__attribute__((used)) int nbdkit_peer_name(sockaddr*, socklen_t*) {
    return -1;
}
__attribute__((used)) int64_t nbdkit_peer_pid() {
    return -1;
}
__attribute__((used)) const char* nbdkit_export_name() {
    return tExportName.c_str();
}
__attribute__((used)) int nbdkit_add_export(nbdkit_exports*, const char*, const char*) {
    return 0;
}
}

// ---- the machine and its clients
// -----------------------------------------------------------------------------

namespace {

constexpr std::uint64_t kMiB = 1 << 20;
constexpr unsigned kMostSteps = 24;
constexpr std::uint32_t kMostBytes = 96 * 1024;

// What the disk holds as far as it was written here, for all inputs.
class Disk {
public:
    explicit Disk(std::uint64_t size) : bytes_(size), known_(size, false) {}
    std::uint64_t Size() const { return bytes_.size(); }
    void Write(std::uint64_t offset, const std::uint8_t* data, std::size_t length) {
        std::copy_n(data, length, bytes_.begin() + static_cast<std::ptrdiff_t>(offset));
        Mark(offset, length, true);
    }
    // Of a write that failed nothing is known.
    void Forget(std::uint64_t offset, std::size_t length) { Mark(offset, length, false); }
    void Check(std::uint64_t offset, const std::vector<std::uint8_t>& read) const {
        for (std::size_t i = 0; i < read.size(); ++i)
            if (known_[offset + i] && bytes_[offset + i] != read[i])
                fuzz::Require(false, "byte " + std::to_string(offset + i) + " is read as it was written");
    }

private:
    void Mark(std::uint64_t offset, std::size_t length, bool known) {
        std::fill_n(known_.begin() + static_cast<std::ptrdiff_t>(offset), length, known);
    }
    std::vector<std::uint8_t> bytes_;
    std::vector<bool> known_;
};

// The machine's first volume is protected, with little storage.
class Computer {
public:
    Computer() : folder_(Made()), plugin_(*plugin_init()) {
        fuzz::Require(plugin_.config("machine", folder_.Path().c_str()) == 0 &&
                          plugin_.config_complete() == 0 && plugin_.get_ready() == 0 &&
                          plugin_.after_fork() == 0,
                      "the machine is served");
        machine::PartitionTable table;
        std::string why;
        fuzz::Require(machine::ReadImagePartitions(folder_.File("disk0.img"), 512, table, why), why);
        places_ = table.partitions;
        Protect();
    }
    ~Computer() { plugin_.cleanup(); }
    Computer(const Computer&) = delete;
    Computer& operator=(const Computer&) = delete;

    // As nbdkit does, a caller hands on only requests inside the export's size.
    const nbdkit_plugin& Calls() const { return plugin_; }
    Disk& Contents() { return disk_; }
    const std::vector<machine::Partition>& Places() const { return places_; }
    // Where an export begins on the disk.
    std::uint64_t Begin(const std::string& name) const {
        return name.starts_with("Harddisk") ? places_.at(static_cast<unsigned>(name.back() - '1')).offset : 0;
    }

private:
    static nbd::NewMachine Made() {
        nbd::NewMachine machine;
        machine.size = 16 * kMiB;
        machine.volumes = 2;
        return machine;
    }
    void Protect() {
        fuzz::Protect(1, 2 * kMiB, config::kBootModeDiscard);
        tool::wire::Response response;
        tool::wire::Channel channel(tool::wire::ConnectToServer(folder_.Path()));
        fuzz::Require(channel.Call({tool::wire::Command::Reboot, 0, {}, 0}, response) && response.status == 0,
                      "the machine boots again");
        ctl::Client driver(std::make_unique<ctl::OwnDriver>(GENERIC_READ));
        bool isProtected = false;
        for (const ctl::FixedVolume& volume : driver.FixedVolumes())
            isProtected = isProtected || (volume.name == fuzz::kVolumes[0] && volume.state != 0);
        fuzz::Require(isProtected, "the first volume is protected");
    }

    const fuzz::Folder folder_;
    const nbdkit_plugin& plugin_;
    std::vector<machine::Partition> places_;
    Disk disk_{16 * kMiB};
};

class Client {
public:
    Client(Computer& computer, FuzzedDataProvider& input)
        : computer_(computer), calls_(computer.Calls()), input_(input) {
        name_ = input.PickValueInArray(
            {"disk0", "HarddiskVolume1", "HarddiskVolume2", "", "disk1", "HarddiskVolume0"});
        if (input.ConsumeIntegral<std::uint8_t>() == 3) name_ = input.ConsumeBytesAsString(12);
        tExportName = name_;
        handle_ = calls_.open(0);
        if (handle_ != nullptr) Greet();
    }
    ~Client() {
        if (handle_ != nullptr) calls_.close(handle_);
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    void Step() {
        if (handle_ == nullptr) return;
        const int kind = input_.ConsumeIntegralInRange(0, 7);
        const std::uint32_t flags = input_.ConsumeBool() ? NBDKIT_FLAG_FUA : 0;
        if (kind == 0) return static_cast<void>(Done(calls_.flush(handle_, 0)));
        const std::uint64_t offset = Place();
        const auto length = static_cast<std::uint32_t>(std::min<std::uint64_t>(Length(), size_ - offset));
        const std::uint64_t at = begin_ + offset;
        if (kind < 4) return Read(at, offset, length);
        if (kind < 7) return Write(at, offset, length, flags);
        const std::vector<std::uint8_t> zeros(length);
        Note(Done(calls_.zero(handle_, length, offset, flags | NBDKIT_FLAG_MAY_TRIM)), at, zeros);
    }

private:
    void Greet() {
        if (name_.empty()) name_ = calls_.default_export(0, 0);
        begin_ = computer_.Begin(name_);
        size_ = static_cast<std::uint64_t>(calls_.get_size(handle_));
        std::uint32_t least = 0, liked = 0, most = 0;
        fuzz::Require(begin_ + size_ <= computer_.Contents().Size(), "the export lies on the disk");
        fuzz::Require(calls_.block_size(handle_, &least, &liked, &most) == 0 && least == 1,
                      "any part may be asked for");
    }
    // Whether it was done. What fails says so: storage is full, or the driver refuses all writes to a volume
    // whose first sector was overwritten, where its storage lies in no file system any more.
    static bool Done(int result) {
        fuzz::Require(result == 0 || (tSaid && (tError == ENOSPC || tError == EPERM)),
                      "a request fails for no other reason, and says so: " + std::to_string(tError));
        tSaid = false, tError = 0;
        return result == 0;
    }
    // Around the places where something changes: volumes' ends, the disk's end, stripes of locks.
    std::uint64_t Place() {
        const auto& places = computer_.Places();
        const std::uint64_t marks[] = {0,
                                       places[0].offset,
                                       places[0].offset + places[0].length - 4096,
                                       places[1].offset,
                                       places[1].offset + places[1].length,
                                       6 * kMiB,
                                       5 * kMiB + 300,
                                       computer_.Contents().Size()};
        const std::uint64_t mark = input_.PickValueInArray(marks);
        const std::uint64_t near = input_.ConsumeIntegralInRange<std::uint64_t>(0, 16384);
        const std::uint64_t at = mark + near < 8192 ? 0 : mark + near - 8192;
        return at < begin_ ? 0 : std::min(at - begin_, size_ - 1);
    }
    std::uint64_t Length() {
        static constexpr std::uint32_t kLengths[] = {1, 511, 512, 513, 4096, 5000, 65536};
        return input_.ConsumeBool() ? input_.PickValueInArray(kLengths)
                                    : input_.ConsumeIntegralInRange<std::uint32_t>(1, kMostBytes);
    }
    void Read(std::uint64_t at, std::uint64_t offset, std::uint32_t length) {
        fuzz::Bytes buffer(length, 0xEE);
        if (Done(calls_.pread(handle_, buffer.data(), length, offset, 0)))
            computer_.Contents().Check(at, buffer);
    }
    void Write(std::uint64_t at, std::uint64_t offset, std::uint32_t length, std::uint32_t flags) {
        std::vector<std::uint8_t> data(length);
        std::uint32_t state = input_.ConsumeIntegral<std::uint16_t>() | 0x10000u;
        for (std::uint8_t& byte : data)
            byte = static_cast<std::uint8_t>((state = state * 1664525 + 1013904223) >> 24);
        Note(Done(calls_.pwrite(handle_, data.data(), length, offset, flags)), at, data);
    }
    void Note(bool done, std::uint64_t at, const std::vector<std::uint8_t>& data) {
        if (done)
            computer_.Contents().Write(at, data.data(), data.size());
        else
            computer_.Contents().Forget(at, data.size());
    }

    Computer& computer_;
    const nbdkit_plugin& calls_;
    FuzzedDataProvider& input_;
    std::string name_;
    void* handle_ = nullptr;
    std::uint64_t begin_ = 0, size_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Computer computer;
    FuzzedDataProvider input(data, size);
    std::unique_ptr<Client> clients[3];
    for (unsigned step = 0; step < kMostSteps && input.remaining_bytes() != 0; ++step) {
        std::unique_ptr<Client>& client = clients[input.ConsumeIntegralInRange(0, 2)];
        if (client == nullptr) client = std::make_unique<Client>(computer, input);
        client->Step();
        if (input.ConsumeIntegral<std::uint8_t>() == 9) client.reset();
    }
    return 0;
}
