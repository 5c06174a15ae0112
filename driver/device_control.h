// The device-control filter: passes requests on, but for those that would change a protected disk or volume, or
// the place of the driver's own sectors, behind its back.
#pragma once
#include "platform/kernel.h"

NTSTATUS KvrDeviceControl(PDEVICE_OBJECT device, PIRP request);
