// The device-control filter: passes requests on, but for those that would change a protected disk or volume, or
// the place of the driver's own sectors, behind its back. Requests for the control device go to control/.
#pragma once
#include "platform/kernel.h"

// Dispatch routine of IRP_MJ_DEVICE_CONTROL and IRP_MJ_INTERNAL_DEVICE_CONTROL. A refusal is
// STATUS_MEDIA_WRITE_PROTECTED, for a command handed through STATUS_ACCESS_DENIED, and for a deallocation or an
// offloaded copy (under gHardening) STATUS_NOT_SUPPORTED. IRQL: PASSIVE_LEVEL for the control
// device, at most APC_LEVEL while a request is looked at.
NTSTATUS KvrDeviceControl(PDEVICE_OBJECT device, PIRP request);
