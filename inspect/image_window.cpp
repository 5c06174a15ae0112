#include "inspect/image_window.h"
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace inspect {

std::uint64_t SizeOfImage(const std::string& path) {
    const posix::File file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    const off_t size = file.IsOpen() ? lseek(file.Get(), 0, SEEK_END) : -1;
    if (size < 0) throw Error("cannot read " + path + ": " + std::strerror(errno));
    return static_cast<std::uint64_t>(size);
}

ImageWindow::ImageWindow(const std::string& path, std::uint64_t offset, std::uint64_t length)
    : path_(path), file_(open(path.c_str(), O_RDONLY | O_CLOEXEC)), offset_(offset), length_(length) {
    if (!file_.IsOpen()) throw Error("cannot read " + path + ": " + std::strerror(errno));
}

bool ImageWindow::Read(std::uint64_t offset, void* buffer, std::size_t length) {
    return posix::ReadAt(file_.Get(), buffer, length, offset_ + offset);
}

bool ImageWindow::IsHole(std::uint64_t offset, std::uint64_t length) const {
    const off_t data = lseek(file_.Get(), static_cast<off_t>(offset_ + offset), SEEK_DATA);
    if (data < 0) return errno == ENXIO;  // no data up to the end; a device that knows no holes says EINVAL
    return static_cast<std::uint64_t>(data) >= offset_ + offset + length;
}

}  // namespace inspect
