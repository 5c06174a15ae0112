// The stricter rules: which files pass, and what a volume takes that is to be protected and cannot be.
#include "platform/host/memory/paging_files.h"
#include "tests/second_kernel/common/saved_map.h"
#include "tests/second_kernel/common/work.h"
#include "tests/second_kernel/stories/list.h"

namespace {

const WCHAR kText[] =
    W("[Global]\r\nProtection=1\r\n[FV 1]\r\nID=") DATA_VOLUME W("\r\nProtectionMode=1\r\nBootMode=1\r\n");
const ComputerOptions kOptions = {.DataBytes = 72 * kMiB};
constexpr LONGLONG kStorage = 52 * kMiB;  // with less, no file gets any
constexpr LONGLONG kPlace = 64 * kKiB;

// Writes a sector for the file and takes the volume's own sector back; whether the write reached that.
bool ReachesVolume(Computer* computer, FILE_OBJECT* file, UCHAR fill) {
    const Bytes data(512, fill);
    Bytes before(computer->DataSectors + kPlace, computer->DataSectors + kPlace + 512), back(512);
    stage::CheckStatus(WriteAt(TopOfData(computer), kPlace, data.data(), 512, file), STATUS_SUCCESS, "a write");
    const bool reached = IsSame(computer->DataSectors + kPlace, data.data(), 512);
    stage::CheckStatus(SendTransfer(TopOfData(computer), {IRP_MJ_READ, kPlace, back.data(), 512, file}).status,
                       STATUS_SUCCESS, "its read");
    stage::Check(back == data, "the file's own read sees it");
    std::memcpy(computer->DataSectors + kPlace, before.data(), 512);
    return reached;
}

void InstallHardened() {
    stage::SetDriverSwitch(u"Hardening", 1);
    Computer* computer = BootComputer(kOptions);
    if (!computer) return;
    Install(computer, kText, kStorage);
    EndComputer(computer);
}

// What a user can name a file passes nothing; what pages memory passes under any name.
void NamesPassNothing() {
    Computer* computer = BootComputer(kOptions);
    if (!computer) return;
    WakeComputer(computer);
    CheckProtected(computer, kStorage);
    stage::Step("files with the names of the system's own");
    FILE_OBJECT file;  // at one address, one file after another
    for (const WCHAR* name : {W("\\x\\bootstat.dat"), W("\\Windows\\bootstat.dat"), W("\\pagefile.sys"),
                              W("\\hiberfil.sys"), W("\\Boot\\BCD"), W("\\x\\system32\\drivers\\kvr.cfg")}) {
        InitializeFile(&file, computer->Data, name);
        stage::Check(!ReachesVolume(computer, &file, 0x11), "the write is redirected");
    }
    InitializeFile(&file, computer->Data, W("\\swapfile.sys"));
    host::AddPagingFile(&file);
    stage::Check(ReachesVolume(computer, &file, 0x22), "a paging file is written where it lies");
    host::RemovePagingFile(&file);
    CheckHeld(computer);
    EndComputer(computer);
    DamageSavedMap(computer);
}

// Protection that cannot be had is no licence to write; whoever makes the storage anew gets it back.
void BadMapTakesNoWrites(Computer* computer) {
    WakeComputer(computer);
    stage::Step("a damaged map");
    Bytes data(512, 0x33);
    stage::CheckStatus(ReadAt(TopOfData(computer), kPlace, data.data(), 512), STATUS_SUCCESS, "a read");
    stage::CheckStatus(WriteAt(TopOfData(computer), kPlace, data.data(), 512), STATUS_MEDIA_WRITE_PROTECTED,
                       "a write");
    stage::Step("storage made anew");
    stage::CheckStatus(StartStorage(&computer->User, DATA_VOLUME, kStorage), STATUS_SUCCESS, "the request");
    stage::CheckEqual(WaitForStorage(&computer->User, DATA_VOLUME).SwapTotalBytes, kStorage, "the storage");
    stage::CheckStatus(ReadAt(TopOfData(computer), kPlace, data.data(), 512), STATUS_SUCCESS, "a read");
    stage::Check(IsConfig(&computer->User, kText), "the tool reads the configuration");
    CheckHeld(computer);  // the new files: the old ones were held before
}

void ProtectedAgain(Computer* computer) {
    WakeComputer(computer);
    CheckProtected(computer, kStorage);
    CheckOwnSectors(computer);
}

}  // namespace

const Story kHardenedStory = {"hardened",
                              "what the stricter rules pass and refuse",
                              {InstallHardened, NamesPassNothing, InBoot<kOptions, BadMapTakesNoWrites>,
                               InBoot<kOptions, ProtectedAgain>}};
