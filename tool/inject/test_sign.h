// A driver that a Windows in test mode loads: a certificate of one's own, the driver signed with it, the
// certificate trusted by the machine, and the boot store's switch for the test mode.
#pragma once
#include <cstdint>
#include <string>
#include <vector>
#include "tool/inject/registration.h"

namespace tool {

// The driver's image carries a signature; whose is not looked at.
bool IsSigned(const std::vector<std::uint8_t>& image);

// Makes a certificate for signing programs and its key, both in the one PEM file, which must not exist. Throws
// Error.
void MakeCertificate(const std::string& pemFile);
// The image, signed with SHA-256 by the certificate and key of the PEM file; a signature that it has is
// replaced. Throws Error.
std::vector<std::uint8_t> Sign(const std::vector<std::uint8_t>& image, const std::string& pemFile);

// Puts the PEM file's certificate among the machine's trusted roots and publishers, and notes that. Throws
// Error.
void Trust(Installation& windows, const std::string& pemFile, Report& report);
// Sets `testsigning` for every Windows that the boot store starts, and notes for which it was off. Throws Error
// when there is no such store.
void SetTestMode(ImageEdit& image, Installation& windows, Report& report);

// For a copy that proves the driver, whose starts all end before a log-on: Windows would take that for
// failures, and begin to repair itself. Nothing takes it back. Throws Error as SetTestMode does.
void IgnoreFailedStarts(ImageEdit& image, Installation& windows, Report& report);

// Take back what the two noted; nothing where they noted nothing.
void Distrust(Installation& windows, Report& report);
void ClearTestMode(ImageEdit& image, Installation& windows, Report& report);

}  // namespace tool
