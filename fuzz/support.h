// fuzz/: targets that feed the driver, the machine and its server what an attacker or a damaged disk might:
// configuration text, saved maps, control requests, partition tables, the machine's own files, conversations
// with the server, damaged file systems. Each input starts from a fresh power-on and ends with a check that
// nothing is left over, so an input that fails alone fails again; only a served machine goes on from input to
// input while what an input left of it is as it was, or known. A target stops, and with it the run, at a
// sanitizer's finding, at a violation of the host kernel's rules, or when Require does not hold.
#pragma once
#include <fuzzer/FuzzedDataProvider.h>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>
#include "formats/kvr_ioctl.h"
#include "platform/host/kernel_host.h"
#include "platform/host/memory/pool.h"
#include "tests/support/driver_records.h"
#include "tool/kvrctl/config_writer.h"

// Freed blocks are held back for a few inputs, no longer: each input is a boot of its own.
extern "C" inline const char* __asan_default_options() __attribute__((used));
extern "C" inline const char* __asan_default_options() {
    return "quarantine_size_mb=32";
}

namespace fuzz {

inline void Require(bool holds, const std::string& what) {
    if (holds) return;
    std::fprintf(stderr, "fuzz: does not hold: %s\n", what.c_str());
    std::abort();
}

// A copy lies in a heap block of exactly its size, so that one byte read or written beyond it is caught.
using Bytes = std::vector<std::uint8_t>;

// ---- what programs hand to the driver ----------------------------------------------------------------------

inline const std::u16string kVolumes[] = {u"\\Device\\HarddiskVolume1", u"\\Device\\HarddiskVolume2",
                                          u"\\Device\\HarddiskVolume3", u"\\Device\\HarddiskVolume1000"};

template <class Record>
std::vector<std::uint8_t> BytesOf(const Record& record) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&record);
    return {bytes, bytes + sizeof record};
}

// One that protects the volume in some way.
inline std::vector<std::uint8_t> TakeConfig(FuzzedDataProvider& input, const std::u16string& name) {
    config::FixedVolumeText volume = {name};
    volume.bootMode = input.ConsumeIntegralInRange(0u, 2u);
    volume.action = input.ConsumeIntegralInRange(0u, 2u);
    return support::ConfigRecord(config::GlobalSection(true, input.ConsumeIntegralInRange(0u, 2u)) +
                                 config::FixedSection(volume, 1));
}

// The end of an input: no request may be outstanding. What the pool holds is what lives as long as a boot.
inline void EndPower() {
    const host::LeakReport left = host::PowerOff();
    Require(left.memory.irps == 0 && left.memory.mdls == 0 && left.memory.lockedMdls == 0,
            "every request and MDL of the input has ended");
    host::PoolReclaimAll();
}

}  // namespace fuzz
