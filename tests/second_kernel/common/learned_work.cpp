#include "tests/second_kernel/common/work.h"

namespace {

// One sector of the write, as it reads now.
struct Sector {
    LONGLONG Offset;
    ULONG Bytes;
    const UCHAR* Now;
    bool WasRedirected;
    bool IsNew;
    bool IsOld;
};

void CheckSector(const Sector& sector, NTSTATUS status, bool mayLose) {
    const auto place = static_cast<ULONGLONG>(sector.Offset);
    if (!NT_SUCCESS(status)) {
        // What was redirected already is overwritten in place, as far as the write got.
        stage::Check(sector.IsOld || (sector.WasRedirected && sector.IsNew),
                     "a failed write left nothing behind", place);
        return;
    }
    const bool lost = mayLose && !sector.WasRedirected && sector.IsOld;
    stage::Check(sector.IsNew || lost, "a write that succeeded is there", place);
}

void LearnSector(const Sector& sector) {
    if (!sector.IsNew) return;
    std::memcpy(Model() + sector.Offset, sector.Now, sector.Bytes);
    RedirectedSectors()[sector.Offset / sector.Bytes] = 1;
}

}  // namespace

void LearnWork(Computer* computer, LONGLONG offset, ULONG length, ULONG seed, NTSTATUS status, bool mayLose) {
    Bytes now(length);
    stage::CheckStatus(ReadAt(TopOfData(computer), offset, now.data(), length), STATUS_SUCCESS,
                       "the read afterwards");
    const ULONG bytes = computer->Options.DataSector;
    for (ULONG at = 0; at < length; at += bytes) {
        const LONGLONG place = offset + at;
        const UCHAR* data = now.data() + at;
        const Sector sector = {place,
                               bytes,
                               data,

                               RedirectedSectors()[place / bytes] != 0,
                               IsPattern(data, bytes, static_cast<ULONGLONG>(place), seed),
                               IsSame(data, Model() + place, bytes)};
        CheckSector(sector, status, mayLose);
        LearnSector(sector);
    }
    stage::Check(IsPattern(computer->DataSectors + offset, length, static_cast<ULONGLONG>(offset), kOwnSeed),
                 "the volume's own sectors are unchanged", static_cast<ULONGLONG>(offset));
}
