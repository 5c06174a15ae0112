// Shared by the files that keep the tables of devices, drivers and shutdown registrations.
#pragma once
#include "platform/host/sync/host_lock.h"
#include "platform/host/nt/ntio.h"

namespace host {

// Guards who is attached to whom, each driver's list of devices, and the shutdown list. No device is
// dereferenced while holding it, as the last reference takes it. What it guards inside the platform's own
// records (AttachedDevice, NextDevice) carries no annotation: the routines that walk them require the lock
// instead.
extern HostLock gDeviceLock;

void DropProgramFiles();
void DropShutdownLists();
void DropAllDevices();
void DropAllDrivers();

}  // namespace host
