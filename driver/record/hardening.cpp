#include "driver/record/hardening.h"
#include "driver/record/names.h"
#include "driver/record/registry.h"

namespace {

struct SYSTEM_TEXT {
    explicit SYSTEM_TEXT(PCWSTR name) {
        ULONG bytes = 0;
        if (!NT_SUCCESS(ReadSystemValue(name, &m_data, &bytes)) || bytes > kMost) return;
        Text = {static_cast<USHORT>(bytes), static_cast<USHORT>(bytes), reinterpret_cast<PWSTR>(m_data.Get())};
    }
    UNICODE_STRING Text{};  // empty: it is not told

private:
    static constexpr ULONG kMost = 0xFFFE;
    PoolPtr<UCHAR> m_data;
};

// The system tells from which partition the firmware started and on which one it lies itself. The store is the
// first one's; on the other anybody may make a folder that is called like the store's. False where that is not
// told.
BOOLEAN IsBootStoreElsewhere() {
    const SYSTEM_TEXT firmware(W("FirmwareBootDevice")), system(W("SystemBootDevice"));
    if (firmware.Text.Length == 0 || system.Text.Length == 0) return FALSE;
    return CompareNames(&firmware.Text, &system.Text, TRUE) != 0;
}

}  // namespace

void LoadHardening() {
    if (gHardeningKnown) return;
    gHardening = ReadDriverSwitch(W("Hardening"));
    gBootStoreElsewhere = gHardening && IsBootStoreElsewhere();
    gHardeningKnown = TRUE;
}
