// driver/: the driver's frame. Its entry and dispatch table, the control device's handle, the life of a filter
// device (attach.h, start.h, remove.h, shutdown.h) and the filtering of device-control requests. Start with
// entry.cpp.
#pragma once
#include "platform/kernel.h"

extern RTL_OSVERSIONINFOEXW gVersionInfo;  // as the system told it at the driver's load

// Makes the control device and its link and installs the dispatch table. A failure to make either is the
// result, and nothing is left; a system that does not tell its version leaves a driver that passes everything
// on. IRQL: PASSIVE_LEVEL, before any request.
extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath);
// Stands in for AddDevice until the version is known: STATUS_SUCCESS, without a filter.
NTSTATUS AddDeviceStandBy(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo);
// Fills gVersionInfo; the system's status.
[[nodiscard]] NTSTATUS QueryOsVersion();
[[nodiscard]] BOOLEAN IsOsVersionSupported();
