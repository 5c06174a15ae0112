// The host kernel's declarations: the names of the Windows kernel that the driver uses, in user space.
#pragma once
#include "platform/host/nt/annotations.h"
#include "platform/host/nt/ntdef.h"
#include "platform/host/nt/ntstatus.h"
#include "platform/host/nt/ntke.h"
#include "platform/host/nt/ntex.h"
#include "platform/host/nt/ntrtl.h"
#include "platform/host/nt/ntio.h"
#include "platform/host/nt/ntzw.h"
#include "platform/host/nt/ntddctl.h"
#include "platform/host/nt/seam.h"
