// Driver entry, the control device, and the helpers with which every dispatch routine handles requests.
#pragma once
#include "platform/kernel.h"

extern BOOLEAN gControlOpen;  // under gControlLock
extern KSPIN_LOCK gControlLock;
extern RTL_OSVERSIONINFOEXW gVersionInfo;

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath);
NTSTATUS AddDeviceStandBy(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo);
NTSTATUS KvrCreate(PDEVICE_OBJECT device, PIRP request);
NTSTATUS KvrClose(PDEVICE_OBJECT device, PIRP request);
[[nodiscard]] NTSTATUS QueryOsVersion();
[[nodiscard]] BOOLEAN IsOsVersionSupported();
