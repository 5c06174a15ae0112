#include "machine/disk/image_disk.h"
#include <cerrno>
#include <cstring>
#include <utility>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>
#include "machine/disk/host_use.h"

namespace machine {
namespace {

// So much of what was written aside is under way to the medium at once.
constexpr std::uint64_t kUnderWay = 32 << 20;
constexpr int kDontCache = 0x80;  // RWF_DONTCACHE, which the system's headers may be too old for

// A host error is an error of this disk, whatever its cause: a full host disk in particular must not look
// to the driver like a full volume.
NTSTATUS DiskFailure() {
    return STATUS_IO_DEVICE_ERROR;
}

std::uint32_t SmallestSector(int file, const struct stat& info) {
    int logical = 0;
    const bool large = S_ISBLK(info.st_mode) && ioctl(file, BLKSSZGET, &logical) == 0 && logical > 512;
    return large ? 4096 : 512;
}

bool SizeOf(int file, std::uint64_t& size, std::uint32_t& sectorSize, std::string& why) {
    struct stat info;
    if (fstat(file, &info) != 0) {
        why = std::strerror(errno);
        return false;
    }
    if (sectorSize == 0) sectorSize = SmallestSector(file, info);
    if (S_ISBLK(info.st_mode)) {
        int logical = 0, readOnly = 0;
        if (ioctl(file, BLKGETSIZE64, &size) != 0 || ioctl(file, BLKSSZGET, &logical) != 0 ||
            ioctl(file, BLKROGET, &readOnly) != 0) {
            why = std::strerror(errno);
            return false;
        }
        if (readOnly != 0) {
            why = "it is read-only";
            return false;
        }
        if (static_cast<std::uint32_t>(logical) > sectorSize) {
            why = "its sectors of " + std::to_string(logical) + " bytes are larger than " +
                  std::to_string(sectorSize);
            return false;
        }
        return true;
    }
    if (!S_ISREG(info.st_mode)) {
        why = "it is neither a file nor a block device";
        return false;
    }
    size = static_cast<std::uint64_t>(info.st_size);
    return true;
}

// A block device is taken so that until it is closed nobody mounts it, swaps to it or makes something larger
// of it, and the open fails where somebody has.
posix::File OpenToHave(const std::string& path) {
    struct stat info {};
    const bool device = stat(path.c_str(), &info) == 0 && S_ISBLK(info.st_mode);
    return posix::File(open(path.c_str(), O_RDWR | O_CLOEXEC | (device ? O_EXCL : 0)));
}

// Why the host did not open it.
std::string WhyNotOpened(const std::string& path, int error) {
    const posix::File looked(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    int readOnly = 0;
    if (looked.IsOpen() && ioctl(looked.Get(), BLKROGET, &readOnly) == 0 && readOnly != 0)
        return "it is read-only";
    if (error != EBUSY) return std::strerror(error);
    const std::string user = looked.IsOpen() ? HostUserOf(looked.Get()) : std::string();
    return user.empty() ? "another program has it for itself" : user;
}

// For a file just opened, or not; `why` says what is wrong.
bool LockAndMeasure(const std::string& path, const posix::File& opened, std::uint32_t& sectorSize,
                    std::uint64_t& size, std::string& why) {
    const int file = opened.Get();
    if (file < 0) {
        why = WhyNotOpened(path, errno);
        return false;
    }
    why = HostUserOf(file);
    if (!why.empty()) return false;
    if (flock(file, LOCK_EX | LOCK_NB) != 0) {
        why = errno == EWOULDBLOCK ? "another program is using it" : std::strerror(errno);
        return false;
    }
    // Virtual machine monitors ask for this kind of lock.
    struct flock whole {};
    whole.l_type = F_WRLCK;
    whole.l_whence = SEEK_SET;
    if (fcntl(file, F_OFD_SETLK, &whole) != 0 && (errno == EAGAIN || errno == EACCES)) {
        why = "another program is using it";
        return false;
    }
    if (!SizeOf(file, size, sectorSize, why)) return false;
    if (size < sectorSize || size % sectorSize != 0) {
        why = size == 0 ? "it is empty"
                        : "its size of " + std::to_string(size) + " bytes is no whole number of sectors of " +
                              std::to_string(sectorSize) + " bytes";
        return false;
    }
    return true;
}

}  // namespace

std::unique_ptr<ImageDisk> ImageDisk::Open(const std::string& path, std::uint32_t sectorSize,
                                           std::string& error) {
    if (sectorSize != 0 && !IsValidSectorSize(sectorSize)) {
        error = "sector size " + std::to_string(sectorSize) + " is neither 512 nor 4096";
        return nullptr;
    }
    posix::File file = OpenToHave(path);
    std::uint64_t size = 0;
    std::string why;
    if (!LockAndMeasure(path, file, sectorSize, size, why)) {
        error = "cannot use disk image " + path + ": " + why;
        return nullptr;
    }
    return std::unique_ptr<ImageDisk>(new ImageDisk(std::move(file), path, size, sectorSize));
}

bool ImageDisk::Create(const std::string& path, std::uint64_t size, std::string& error) {
    const int file = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (file < 0) {
        error = "cannot create disk image " + path + ": " + std::strerror(errno);
        return false;
    }
    if (ftruncate(file, static_cast<off_t>(size)) != 0) {
        error = "cannot make disk image " + path + " " + std::to_string(size) +
                " bytes long: " + std::strerror(errno);
        close(file);
        unlink(path.c_str());
        return false;
    }
    close(file);
    return true;
}

ImageDisk::ImageDisk(posix::File file, std::string path, std::uint64_t size, std::uint32_t sectorSize)
    : file_(std::move(file)), path_(std::move(path)), size_(size), sectorSize_(sectorSize) {}

// Of what changes the image, with the host's errno.
NTSTATUS ImageDisk::Result(bool done) {
    if (done) return STATUS_SUCCESS;
    NoteFailure(errno);
    return DiskFailure();
}

NTSTATUS ImageDisk::Read(std::uint64_t offset, void* buffer, std::size_t length) {
    return posix::ReadAt(file_.Get(), buffer, length, offset) ? STATUS_SUCCESS : DiskFailure();
}

// An error is Read's, and so is all on a file system that cannot tell what it holds in memory.
NTSTATUS ImageDisk::ReadAtOnce(std::uint64_t offset, void* buffer, std::size_t length) {
    if (!tells_.load(std::memory_order_relaxed)) return Read(offset, buffer, length);
    const iovec whole{buffer, length};
    const ssize_t read = preadv2(file_.Get(), &whole, 1, static_cast<off_t>(offset), RWF_NOWAIT);
    if (read == static_cast<ssize_t>(length)) return STATUS_SUCCESS;
    if (read < 0 && errno != EAGAIN) {
        if (errno == EOPNOTSUPP) tells_.store(false, std::memory_order_relaxed);
        return Read(offset, buffer, length);
    }
    const std::size_t done = read < 0 ? 0 : static_cast<std::size_t>(read);
    const int told = posix_fadvise(file_.Get(), static_cast<off_t>(offset + done),
                                   static_cast<off_t>(length - done), POSIX_FADV_WILLNEED);
    return told == 0 ? STATUS_PENDING : Read(offset, buffer, length);
}

NTSTATUS ImageDisk::Write(std::uint64_t offset, const void* buffer, std::size_t length) {
    return Result(posix::WriteAt(file_.Get(), buffer, length, offset));
}

// The host's kernel may offer just this.
NTSTATUS ImageDisk::WriteAside(std::uint64_t offset, const void* buffer, std::size_t length) {
    const iovec whole{const_cast<void*>(buffer), length};  // which the call does not change
    if (pwritev2(file_.Get(), &whole, 1, static_cast<off_t>(offset), kDontCache) ==
        static_cast<ssize_t>(length))
        return STATUS_SUCCESS;
    const NTSTATUS status = Write(offset, buffer, length);
    if (!NT_SUCCESS(status) || offset < kUnderWay) return status;
    return Result(LetGo(offset, length));
}

// Starts the way of the range to the medium and waits for the end of an earlier one's, which then leaves the
// host's memory: the medium is never idle, and however much is written, little of it takes the place of other
// data. False for an error of the medium: the host tells it once, and the next flush would not learn of it.
bool ImageDisk::LetGo(std::uint64_t offset, std::size_t length) {
    const auto now = static_cast<off_t>(offset), before = static_cast<off_t>(offset - kUnderWay);
    const auto size = static_cast<off_t>(length);
    constexpr unsigned kWhole =
        SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER;
    if (sync_file_range(file_.Get(), now, size, SYNC_FILE_RANGE_WRITE) != 0 ||
        sync_file_range(file_.Get(), before, size, kWhole) != 0)
        return errno == ENOSYS || errno == EINVAL;
    (void)posix_fadvise(file_.Get(), before, size, POSIX_FADV_DONTNEED);  // what stays is only in the way
    return true;
}

NTSTATUS ImageDisk::Flush() {
    return Result(fdatasync(file_.Get()) == 0);
}

}  // namespace machine
