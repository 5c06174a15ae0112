#include "tool/prove/answers_disk.h"
#include <cerrno>
#include <cstring>
#include <random>
#include <utility>
#include <fcntl.h>
#include <unistd.h>
#include "tool/error.h"

namespace tool {
namespace {

[[noreturn]] void Fail(const std::string& what) {
    throw Error(what + ": " + std::strerror(errno));
}

std::uint64_t AnyRun() {
    std::random_device device;
    return std::uint64_t{device()} << 32 | device();
}

}  // namespace

AnswersDisk::AnswersDisk(std::string path, std::uint64_t storageBytes)
    : path_(std::move(path)), file_(open(path_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600)) {
    if (!file_.IsOpen() || ftruncate(file_.Get(), proof::kDiskBytes) != 0) Fail("cannot make " + path_);
    order_.magic = proof::kOrderMagic;
    order_.version = proof::kVersion;
    order_.run = AnyRun();
    order_.storageBytes = storageBytes;
}

void AnswersDisk::Order(std::uint32_t act) {
    order_.act = act;
    order_.checksum = proof::ChecksumOf(order_);
    if (!posix::WriteAt(file_.Get(), &order_, sizeof order_, proof::kOrderAt)) Fail("cannot write " + path_);
}

std::optional<proof::Answer> AnswersDisk::Answer() const {
    proof::Answer answer;
    if (!posix::ReadAt(file_.Get(), &answer, sizeof answer, proof::kAnswerAt)) Fail("cannot read " + path_);
    if (!proof::IsAnswerTo(order_, answer)) return {};
    for (proof::Row& row : answer.row) row.name[proof::kNameBytes - 1] = 0;
    return answer;
}

}  // namespace tool
