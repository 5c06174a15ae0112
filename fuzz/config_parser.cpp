// The configuration text, as a tool or a damaged disk may give it: any bytes, any length, odd ones too.
#include "fuzz/support.h"
#include "platform/host/sync/clock.h"
#include "config/parser.h"
#include "config/protected_volumes.h"
#include "driver/globals.h"

namespace {

// The first byte says how the rest becomes text: as it is, or each byte widened to a character, which lets the
// fuzzer work with words.
std::vector<std::uint8_t> TextOf(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return {};
    if ((data[0] & 1) != 0) return {data + 1, data + size};
    std::vector<std::uint8_t> text;
    for (std::size_t i = 1; i < size; ++i) {
        text.push_back(data[i]);
        text.push_back(0);
    }
    if ((data[0] & 2) != 0 && !text.empty()) text.pop_back();
    return text;
}

constexpr ULONG kAllFlags = PV_PROTECTED | PV_INVISIBLE | PV_ACTION_DISCARD | PV_ACTION_MERGE | PV_EXPLICIT;

void CheckList() {
    for (const PROTECTED_VOLUME* entry = gProtectedVolumeList; entry; entry = entry->Next) {
        fuzz::Require(
            entry->Name.Length <= sizeof(entry->NameBuffer) && entry->Name.Length % sizeof(WCHAR) == 0,
            "a name fits its entry");
        fuzz::Require((entry->Flags & ~kAllFlags) == 0, "flags are flags");
        fuzz::Require(
            (entry->Flags & (PV_ACTION_DISCARD | PV_ACTION_MERGE)) != (PV_ACTION_DISCARD | PV_ACTION_MERGE),
            "one action at most");
    }
}

// What the parser changes in the text are characters of values: digits become digits.
void CheckChanges(const std::vector<std::uint8_t>& before, const std::uint8_t* after) {
    for (std::size_t i = 0; i < before.size(); ++i) {
        if (before[i] == after[i]) continue;
        fuzz::Require(after[i] == '0' || after[i] == 0, "the parser writes nothing but the digit 0");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    host::PowerOn();
    host::SetSystemTime(host::TimeOf(2026, 11, 22, 12));
    InitializeGlobals();
    const std::vector<std::uint8_t> bytes = TextOf(data, size);
    fuzz::Bytes text = bytes;
    ParseConfig(reinterpret_cast<PWCHAR>(text.data()), static_cast<ULONG>(text.size()));
    CheckList();
    CheckChanges(bytes, text.data());
    fuzz::EndPower();
    return 0;
}
