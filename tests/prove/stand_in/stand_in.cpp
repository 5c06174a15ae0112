// A guest for `kvrhost prove` that plays no Windows: it answers the order on the answers' disk as if each act
// had passed, and does what must be seen at the act that it is told of.
//
//   prove_stand_in DISK ANSWERS FOLDER, with the environment
//   KVR_STAND_IN   MODE:ACT; MODE is honest, fails, hangs, fills, stops, lies, silent, torn, stale or crashes
//   KVR_STAND_IN_AT  byte of DISK that a merge, and a lie, change
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <unistd.h>
#include "formats/proof_acts.h"
#include "formats/proof_disk.h"

namespace {

template <class Record>
void Transfer(const std::string& path, std::uint64_t at, Record& record, bool write) {
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(static_cast<std::streamoff>(at));
    if (write)
        file.write(reinterpret_cast<const char*>(&record), sizeof record);
    else
        file.read(reinterpret_cast<char*>(&record), sizeof record);
}

void AddRow(proof::Answer& answer, const char* name, bool passed) {
    proof::Row& row = answer.row[answer.rows++];
    std::strncpy(row.name, name, sizeof row.name - 1);
    row.passed = passed ? 1 : 0;
    row.status = passed ? 0 : static_cast<std::int32_t>(0xC0000001);
}

void ChangeSector(const std::string& disk, const char* at, char with) {
    if (at != nullptr) Transfer(disk, std::strtoull(at, nullptr, 10), with, true);
}

// Until there is no room.
void Fill(const std::string& folder) {
    std::ofstream file(folder + "/filler", std::ios::binary);
    const std::string piece(1 << 20, 'f');
    while (file.write(piece.data(), static_cast<std::streamsize>(piece.size())).flush()) {
    }
}

}  // namespace

int main(int argc, char** argv) {
    const char* told = std::getenv("KVR_STAND_IN");
    if (argc != 4 || told == nullptr) return 2;
    proof::Order order{};
    Transfer(argv[2], proof::kOrderAt, order, false);
    if (!proof::IsOrder(order)) return 3;
    const std::string text = told, number = text.substr(text.find(':') + 1);
    const std::string mode = number == std::to_string(order.act) ? text.substr(0, text.find(':')) : "honest";
    if (mode == "silent" || mode == "crashes") return mode == "silent" ? 0 : 1;
    if (mode == "lies") ChangeSector(argv[1], std::getenv("KVR_STAND_IN_AT"), 'L');
    if (proof::kActs[order.act - 1].sectors == proof::Sectors::Changed)
        ChangeSector(argv[1], std::getenv("KVR_STAND_IN_AT"), 'M');

    proof::Answer answer{};
    answer.magic = proof::kAnswerMagic;
    answer.version = proof::kVersion;
    answer.act = order.act;
    answer.run = mode == "stale" ? order.run + 1 : order.run;
    answer.state =
        mode == "stops" || mode == "hangs" || mode == "fills" ? proof::State::Begun : proof::State::Ended;
    AddRow(answer, "the stand-in answers", true);
    if (mode == "fails") AddRow(answer, "something must work", false);
    answer.checksum = proof::ChecksumOf(answer) + (mode == "torn" ? 1 : 0);
    Transfer(argv[2], proof::kAnswerAt, answer, true);
    if (mode == "fills") Fill(argv[3]);
    if (mode == "hangs" || mode == "fills") sleep(600);
    return 0;
}
