#include "tests/second_kernel/wine/proof_story.h"
#include "formats/proof_acts.h"
#include "formats/proof_disk.h"
#include "platform/host/object/namespace.h"
#include "tests/second_kernel/wine/native_program.h"
#include "tests/second_kernel/wine/volume_directory.h"

namespace {

#define WINDOWS DATA_VOLUME W("\\Windows")
#define ANSWERS_DISK W("\\Device\\Harddisk1\\Partition0")

constexpr ULONG kAnswersMedium = 2;
constexpr LONGLONG kStorage = 112 * kMiB;
const ComputerOptions kComputer = {.DataBytes = 240 * kMiB, .IsDataOnDisk = true};
const WCHAR* const kOwnFiles[] = {W("\\kvr.SWP"), W("\\kvr.MAP"), W("\\Windows\\System32\\drivers\\kvr.cfg")};

// The volume's own sectors when they were last the fixed state.
Bytes gFixed;

PUCHAR Answers() {
    return stage::Medium(kAnswersMedium, proof::kDiskBytes);
}

void Order(ULONG act) {
    proof::Order order{};
    order.magic = proof::kOrderMagic;
    order.version = proof::kVersion;
    order.act = act;
    order.run = 12;
    order.storageBytes = kStorage;
    order.checksum = proof::ChecksumOf(order);
    std::memcpy(Answers() + proof::kOrderAt, &order, sizeof order);
}

bool AddAnswersDisk(Computer* computer) {
    PDEVICE_OBJECT disk =
        MakeRamDevice({.Name = ANSWERS_DISK, .Sectors = Answers(), .Size = proof::kDiskBytes, .IsDisk = true});
    return disk != nullptr && AddAndStart(computer->Driver, disk) == STATUS_SUCCESS;
}

// By which the program finds the volume that the system runs from.
void MakeSystemFile() {
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, WINDOWS W("\\System32\\ntdll.dll"));
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    IO_STATUS_BLOCK io;
    HANDLE file = nullptr;
    stage::CheckStatus(
        ZwCreateFile(&file, FILE_WRITE_DATA | SYNCHRONIZE, &attributes, &io, nullptr, FILE_ATTRIBUTE_NORMAL, 0,
                     FILE_CREATE, FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0),
        STATUS_SUCCESS, "a file of the system's");
    ZwClose(file);
}

Computer* Boot() {
    Computer* computer = BootComputer(kComputer);
    if (computer == nullptr || !AddAnswersDisk(computer)) return nullptr;
    host::SetSystemRoot(WINDOWS);
    CloseTool(&computer->User);
    WakeComputer(computer);
    if (stage::IsFirstBoot())
        MakeSystemFile();
    else
        ReadDirectory(computer);
    WriteDirectory(computer);  // a mount notes on the volume that it is in use
    return computer;
}

// File systems write what they know as they end.
void AtShutdown(Computer* computer, ShutdownStep step) {
    if (step == ShutdownStep::RegistryWritten) WriteDirectory(computer);
}

void ShutDown(Computer* computer) {
    stage::CheckStatus(OpenTool(&computer->User, computer->Control), STATUS_SUCCESS, "the device is free");
    computer->AtShutdown = AtShutdown;
    EndComputer(computer);
    native::EndThreads();
}

void CheckAnswer(ULONG act) {
    proof::Order order;
    proof::Answer answer;
    std::memcpy(&order, Answers() + proof::kOrderAt, sizeof order);
    std::memcpy(&answer, Answers() + proof::kAnswerAt, sizeof answer);
    stage::Check(proof::IsAnswerTo(order, answer), "the answer is to this order", answer.act, act);
    stage::Check(answer.state == proof::State::Ended, "the answer is whole");
    stage::Check(answer.rows >= 5, "rows of the answer", answer.rows, 5);
    for (ULONG row = 0; row < answer.rows && row < proof::kMostRows; ++row)
        stage::Check(answer.row[row].passed == 1, answer.row[row].name,
                     static_cast<ULONG>(answer.row[row].status), answer.row[row].measured);
}

// But for the driver's own files.
bool IsFixed(Computer* computer) {
    Bytes now(computer->DataSectors, computer->DataSectors + kComputer.DataBytes);
    for (const WCHAR* path : kOwnFiles) {
        const PlayedFile* file = computer->DataFiles->Find(path);
        for (ULONG i = 0; file != nullptr && i < file->Extents.size(); ++i)
            std::memcpy(&now[static_cast<SIZE_T>(file->Extents[i].Offset)],
                        &gFixed[static_cast<SIZE_T>(file->Extents[i].Offset)],
                        static_cast<SIZE_T>(file->Extents[i].Length));
    }
    return now == gFixed;
}

void CheckSectors(Computer* computer, proof::Sectors must) {
    if (must != proof::Sectors::Free)
        stage::CheckEqual(IsFixed(computer), must == proof::Sectors::Same, "the volume's own sectors are kept");
    if (must != proof::Sectors::Same)
        gFixed.assign(computer->DataSectors, computer->DataSectors + kComputer.DataBytes);
}

void PlayAct(ULONG act) {
    if (stage::IsFirstBoot()) stage::SetDriverSwitch(u"Hardening", 1);
    Order(act);
    Computer* computer = Boot();
    if (computer == nullptr) return;
    stage::Step(proof::kActs[act - 1].what);
    NTSTATUS status = STATUS_SUCCESS;
    const native::End end = native::Run("kvrprove.exe", u"kvrprove", status);
    stage::Check(end == native::End::PowerOff, "it powers off", static_cast<ULONGLONG>(end),
                 static_cast<ULONG>(status));
    ShutDown(computer);
    CheckAnswer(act);
    CheckSectors(computer, proof::kActs[act - 1].sectors);
}

template <ULONG... act>
Story Acts(std::integer_sequence<ULONG, act...>) {
    return {"proof", "kvrprove.exe plays every act of its proof", {[] { PlayAct(act + 1); }...}};
}

}  // namespace

const Story kProofStory = Acts(std::make_integer_sequence<ULONG, proof::kActCount>());
