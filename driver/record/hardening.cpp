#include "driver/record/hardening.h"
#include "driver/record/names.h"
#include "driver/record/registry.h"

namespace {

struct SYSTEM_TEXT {
    explicit SYSTEM_TEXT(PCWSTR name) {
        ULONG bytes = 0;
        const NTSTATUS status = ReadSystemValue(name, &m_data, &bytes);
        IsKnown = NT_SUCCESS(status) || IsValueAbsent(status);
        if (!NT_SUCCESS(status) || bytes > kMost) return;
        Text = {static_cast<USHORT>(bytes), static_cast<USHORT>(bytes), reinterpret_cast<PWSTR>(m_data.Get())};
    }
    bool IsKnown;           // what the registry says
    UNICODE_STRING Text{};  // empty: it is not told

private:
    static constexpr ULONG kMost = 0xFFFE;
    PoolPtr<UCHAR> m_data;
};

// The system tells from which partition the firmware started and on which one it lies itself. The store is the
// first one's; on the other anybody may make a folder that is called like the store's. `elsewhere` is FALSE
// where that is not told. False when it is not known yet.
bool FindBootStore(BOOLEAN* elsewhere) {
    const SYSTEM_TEXT firmware(W("FirmwareBootDevice")), system(W("SystemBootDevice"));
    *elsewhere = firmware.Text.Length != 0 && system.Text.Length != 0 &&
                 CompareNames(&firmware.Text, &system.Text, TRUE) != 0;
    return firmware.IsKnown && system.IsKnown;
}

}  // namespace

void LoadHardening() {
    if (gHardeningKnown) return;
    BOOLEAN on = FALSE;
    BOOLEAN elsewhere = FALSE;
    const bool isRead = NT_SUCCESS(ReadDriverSwitch(W("Hardening"), &on));
    const bool isFound = (isRead && !on) || FindBootStore(&elsewhere);
    gHardening = on || !isRead;
    gBootStoreElsewhere = elsewhere;
    gHardeningKnown = isRead && isFound;
}
