// The reserved sectors through which a host and the program inside a guest prove the driver: on a small disk
// of their own, without a partition table, so that the protected volume's fate does not matter to the answers.
// The host writes the order between two boots; the guest reads it, plays that act and writes the answer, anew
// behind every row, so that a guest that stops leaves the rows that it came to. All integers are little-endian.
#pragma once
#include <cstddef>
#include <cstdint>

namespace proof {

inline constexpr std::uint64_t kDiskBytes = 16 * 1024 * 1024;
// Behind whatever a system may take for a partition table.
inline constexpr std::uint64_t kOrderAt = 1024 * 1024;            // bytes on the disk
inline constexpr std::uint64_t kAnswerAt = kOrderAt + 64 * 1024;  // bytes on the disk

inline constexpr std::uint64_t kOrderMagic = 0x314452504B52564BULL;   // "KVRKPRD1"
inline constexpr std::uint64_t kAnswerMagic = 0x314E41504B52564BULL;  // "KVRKPAN1"
inline constexpr std::uint32_t kVersion = 1;

struct Order {
    std::uint64_t magic;
    std::uint32_t version;
    std::uint32_t act;           // its number, as formats/proof_acts.h has it
    std::uint64_t run;           // of this proof; an answer carries it, so that an old one is none
    std::uint64_t storageBytes;  // that the guest has made for the volume's changes
    std::uint8_t reserved[476];
    std::uint32_t checksum;  // of what stands before it
};
static_assert(sizeof(Order) == 512 && offsetof(Order, checksum) == 508);

enum class State : std::uint32_t {
    Begun = 1,  // the rows so far
    Ended = 2,  // all rows; the guest shuts down next
};

inline constexpr std::uint32_t kMostRows = 30;
inline constexpr std::uint32_t kNameBytes = 96;

struct Row {
    char name[kNameBytes];   // ASCII, ends at a 0
    std::uint32_t passed;    // 0 or 1
    std::int32_t status;     // NTSTATUS of what was tried
    std::uint64_t measured;  // a number that the name speaks of; 0 where there is none
};
static_assert(sizeof(Row) == 112);

struct Answer {
    std::uint64_t magic;
    std::uint32_t version;
    std::uint32_t act;
    std::uint64_t run;
    State state;
    std::uint32_t rows;  // that follow; kMostRows at most
    Row row[kMostRows];
    std::uint8_t reserved[4096 - 32 - 112 * 30 - 4];
    std::uint32_t checksum;  // of what stands before it
};
static_assert(sizeof(Answer) == 4096 && offsetof(Answer, row) == 32 && offsetof(Answer, checksum) == 4092);

// FNV-1a, over whole records but for their checksum, which is last: it tells a torn or foreign record, and is
// no protection against one that was made up.
template <class Record>
[[nodiscard]] std::uint32_t ChecksumOf(const Record& record) {
    std::uint32_t sum = 2166136261u;
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&record);
    for (std::size_t i = 0; i < offsetof(Record, checksum); ++i) sum = (sum ^ bytes[i]) * 16777619u;
    return sum;
}

[[nodiscard]] inline bool IsOrder(const Order& order) {
    return order.magic == kOrderMagic && order.version == kVersion && order.checksum == ChecksumOf(order);
}

[[nodiscard]] inline bool IsAnswerTo(const Order& order, const Answer& answer) {
    return answer.magic == kAnswerMagic && answer.version == kVersion &&
           answer.checksum == ChecksumOf(answer) && answer.act == order.act && answer.run == order.run &&
           answer.rows <= kMostRows;
}

}  // namespace proof
