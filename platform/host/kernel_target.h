// The host kernel's declarations: the names of the Windows kernel that the driver uses, in user space.
#pragma once
#include "annotations.h"
#include "ntdef.h"
#include "ntstatus.h"
#include "ntke.h"
#include "ntex.h"
#include "ntrtl.h"
#include "ntio.h"
#include "ntzw.h"
#include "ntddctl.h"
#include "seam.h"
