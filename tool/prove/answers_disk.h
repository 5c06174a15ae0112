// The small disk through which the guest is told its act and answers.
#pragma once
#include <optional>
#include <string>
#include "formats/proof_disk.h"
#include "posix/file_io.h"

namespace tool {

class AnswersDisk {
public:
    // Makes the image file. Throws Error, as the others do.
    AnswersDisk(std::string path, std::uint64_t storageBytes);

    const std::string& Path() const { return path_; }
    // For the next boot; answers to earlier orders count no more.
    void Order(std::uint32_t act);
    // To the last order; nothing while there is none that is whole. Names end at a zero character.
    std::optional<proof::Answer> Answer() const;

private:
    std::string path_;
    posix::File file_;
    proof::Order order_{};
};

}  // namespace tool
