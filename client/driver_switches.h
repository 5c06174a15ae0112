// The driver's key in the registry, and the switches that each boot reads there: 32-bit numbers, on unless 0.
// One that is not there is off.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace ctl {

inline constexpr char16_t kDriverKey[] = u"\\Registry\\Machine\\System\\kvr";
inline constexpr char16_t kHardening[] = u"Hardening";
inline constexpr std::uint32_t kSwitchType = 4;  // REG_DWORD

inline bool IsDriverSwitch(std::u16string_view value) {
    return value == kHardening || value == u"ConfigShareRead";
}

// As the driver takes the value's data.
inline bool IsSwitchedOn(const std::vector<std::uint8_t>& data) {
    return data.size() >= 4 && (data[0] | data[1] | data[2] | data[3]) != 0;
}

// Sets the switch in a hosted machine's registry, a host::RegistryStore, and has it written out. Returns the
// store's status.
template <class Store>
[[nodiscard]] auto SetDriverSwitch(Store& registry, const std::u16string& value, bool on) {
    auto status = registry.CreateKey(kDriverKey);
    if (status >= 0)
        status = registry.Set(kDriverKey, value, {kSwitchType, {static_cast<std::uint8_t>(on), 0, 0, 0}});
    return status < 0 ? status : registry.Flush();
}

}  // namespace ctl
