#include "driver/pass_through.h"
#include "driver/record/hardening.h"

namespace {

constexpr NTSTATUS kPass = STATUS_SUCCESS;

// ---- SCSI --------------------------------------------------------------------------------------------------

// Commands that write, erase or format, by their operation code.
constexpr UCHAR kRefusedCommands[] = {
    0x04,  // FORMAT UNIT
    0x0A,  // WRITE(6)
    0x10,  // WRITE FILEMARKS(6)
    0x19,  // ERASE(6)
    0x2A,  // WRITE(10)
    0x2E,  // WRITE AND VERIFY(10)
    0x3B,  // WRITE BUFFER
    0x5B,  // CLOSE TRACK/SESSION
    0x8A,  // WRITE(16)
    0x8E,  // WRITE AND VERIFY(16)
    0xA1,  // BLANK, and ATA PASS-THROUGH(12)
    0xAA,  // WRITE(12)
    0xAE,  // WRITE AND VERIFY(12)
};

// Under gHardening these as well: the rest of what changes, forgets or moves sectors.
constexpr UCHAR kHardeningCommands[] = {
    0x07,  // REASSIGN BLOCKS
    0x18,  // COPY
    0x38,  // FORMAT WITH PRESET
    0x3A,  // COPY AND VERIFY
    0x3F,  // WRITE LONG(10)
    0x41,  // WRITE SAME(10)
    0x42,  // UNMAP
    0x48,  // SANITIZE
    0x50,  // XDWRITE(10)
    0x51,  // XPWRITE(10)
    0x53,  // XDWRITEREAD(10)
    0x7F,  // commands of variable length: WRITE(32), WRITE SAME(32), ATA PASS-THROUGH(32)
    0x80,  // XDWRITE EXTENDED(16)
    0x81,  // REBUILD(16)
    0x82,  // REGENERATE(16)
    0x83,  // EXTENDED COPY, WRITE USING TOKEN
    0x85,  // ATA PASS-THROUGH(16)
    0x89,  // COMPARE AND WRITE
    0x8B,  // ORWRITE(16)
    0x93,  // WRITE SAME(16)
    0x94,  // ZBC OUT, which resets zones
    0x9A,  // WRITE STREAM(16)
    0x9C,  // WRITE ATOMIC(16)
    0x9D,  // service actions in both directions
    0x9F,  // service actions out: WRITE LONG(16)
    0xA9,  // service actions out(12)
};

// ---- ATA ---------------------------------------------------------------------------------------------------

// Under gHardening only these pass, and only without data for the disk: what reads or asks. Too many others
// write, and makers add their own.
constexpr UCHAR kHarmlessAtaCommands[] = {
    0x20,  // READ SECTORS
    0x24,  // READ SECTORS EXT
    0x25,  // READ DMA EXT
    0x27,  // READ NATIVE MAX ADDRESS EXT
    0x29,  // READ MULTIPLE EXT
    0x2F,  // READ LOG EXT
    0x40,  // READ VERIFY SECTORS
    0x42,  // READ VERIFY SECTORS EXT
    0x47,  // READ LOG DMA EXT
    0xA1,  // IDENTIFY PACKET DEVICE
    0xB0,  // SMART
    0xC4,  // READ MULTIPLE
    0xC8,  // READ DMA
    0xE0,  // STANDBY IMMEDIATE
    0xE1,  // IDLE IMMEDIATE
    0xE2,  // STANDBY
    0xE3,  // IDLE
    0xE5,  // CHECK POWER MODE
    0xE7,  // FLUSH CACHE
    0xEA,  // FLUSH CACHE EXT
    0xEC,  // IDENTIFY DEVICE
    0xF8,  // READ NATIVE MAX ADDRESS
};
constexpr ULONG kAtaCommandRegister = 6;  // in CurrentTaskFile

// ---- layouts -----------------------------------------------------------------------------------------------

// Where a request of one code has what is looked at, in bytes of its input.
struct LAYOUT {
    ULONG Length;
    ULONG Command;
};
// The two forms of each request begin alike, the command included; pointers are shorter in a 32-bit program.
static_assert(sizeof(SCSI_PASS_THROUGH) == sizeof(SCSI_PASS_THROUGH_DIRECT) &&
              FIELD_OFFSET(SCSI_PASS_THROUGH, Cdb) == FIELD_OFFSET(SCSI_PASS_THROUGH_DIRECT, Cdb));
constexpr LAYOUT kScsi = {sizeof(SCSI_PASS_THROUGH), FIELD_OFFSET(SCSI_PASS_THROUGH, Cdb)};
constexpr LAYOUT kScsi32 = {sizeof(SCSI_PASS_THROUGH32), FIELD_OFFSET(SCSI_PASS_THROUGH32, Cdb)};
constexpr LAYOUT kAta = {sizeof(ATA_PASS_THROUGH_EX),
                         FIELD_OFFSET(ATA_PASS_THROUGH_EX, CurrentTaskFile) + kAtaCommandRegister};
constexpr LAYOUT kAta32 = {sizeof(ATA_PASS_THROUGH_EX32),
                           FIELD_OFFSET(ATA_PASS_THROUGH_EX32, CurrentTaskFile) + kAtaCommandRegister};
static_assert(kScsi.Command == 36 && kScsi32.Command == 28 && kAta.Command == 46 && kAta32.Command == 38);

template <SIZE_T Count>
bool Contains(const UCHAR (&commands)[Count], UCHAR command) {
    for (UCHAR each : commands) {
        if (each == command) return true;
    }
    return false;
}

const LAYOUT& LayoutOf(PIRP request, const LAYOUT& own, const LAYOUT& of32) {
    return gHardening && IoIs32bitProcess(request) ? of32 : own;
}

NTSTATUS CheckScsi(PIRP request, ULONG inputLength, PCSTR passed, PCSTR blocked) {
    const LAYOUT& layout = LayoutOf(request, kScsi, kScsi32);
    const auto* input = static_cast<const UCHAR*>(request->AssociatedIrp.SystemBuffer);
    if (inputLength < layout.Length || !input) return STATUS_INVALID_PARAMETER;
    const UCHAR operation = input[layout.Command];
    const bool refused =
        Contains(kRefusedCommands, operation) || (gHardening && Contains(kHardeningCommands, operation));
    DbgPrint(refused ? blocked : passed, operation);
    return refused ? STATUS_ACCESS_DENIED : kPass;
}

NTSTATUS CheckAta(PIRP request, ULONG code, ULONG inputLength) {
    if (!gHardening) return kPass;
    const LAYOUT& layout = LayoutOf(request, kAta, kAta32);
    const auto* input = static_cast<const UCHAR*>(request->AssociatedIrp.SystemBuffer);
    if (inputLength < layout.Length || !input) return STATUS_INVALID_PARAMETER;
    const bool sends = (input[FIELD_OFFSET(ATA_PASS_THROUGH_EX, AtaFlags)] & ATA_FLAGS_DATA_OUT) != 0;
    if (!sends && Contains(kHarmlessAtaCommands, input[layout.Command])) return kPass;
    DbgPrint("Kvr!KvrDeviceControl: ATA command %d BLOCKED IoControlCode = 0x%08x\n", input[layout.Command],
             code);
    return STATUS_ACCESS_DENIED;
}

}  // namespace

BOOLEAN IsPassThrough(ULONG code) {
    return code == IOCTL_SCSI_PASS_THROUGH || code == IOCTL_SCSI_PASS_THROUGH_DIRECT ||
           code == IOCTL_ATA_PASS_THROUGH || code == IOCTL_ATA_PASS_THROUGH_DIRECT;
}

NTSTATUS CheckPassThrough(PIRP request, ULONG code, ULONG inputLength) {
    switch (code) {
        case IOCTL_SCSI_PASS_THROUGH:
            return CheckScsi(request, inputLength, "Kvr!KvrDeviceControl: IOCTL_SCSI_PASS_THROUGH, %d\n",
                             "Kvr!KvrDeviceControl: IOCTL_SCSI_PASS_THROUGH BLOCKED, %d\n");
        case IOCTL_SCSI_PASS_THROUGH_DIRECT:
            return CheckScsi(request, inputLength, "Kvr!KvrDeviceControl: IOCTL_SCSI_PASS_THROUGH_DIRECT, %d\n",
                             "Kvr!KvrDeviceControl: IOCTL_SCSI_PASS_THROUGH_DIRECT BLOCKED, %d\n");
        default:
            return CheckAta(request, code, inputLength);
    }
}
