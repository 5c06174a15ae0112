// The Windows kernel's own declarations, from the DDK headers, and the seam's names over them.
#pragma once
extern "C" {
#include <ntifs.h>
#include <ntddk.h>
#include <ntdddisk.h>
#include <ntddvol.h>
#include <ntddscsi.h>
#include <mountmgr.h>
}
#undef min
#undef max

// Codes that these headers lack.
#ifndef IOCTL_MOUNTDEV_LINK_CREATED
#define IOCTL_MOUNTDEV_LINK_CREATED \
    CTL_CODE(MOUNTDEVCONTROLTYPE, 4, METHOD_BUFFERED, FILE_READ_ACCESS | FILE_WRITE_ACCESS)
#endif
#ifndef IOCTL_MOUNTDEV_LINK_DELETED
#define IOCTL_MOUNTDEV_LINK_DELETED \
    CTL_CODE(MOUNTDEVCONTROLTYPE, 5, METHOD_BUFFERED, FILE_READ_ACCESS | FILE_WRITE_ACCESS)
#endif
#ifndef IOCTL_VOLUME_PREPARE_FOR_SHRINK
#define IOCTL_VOLUME_PREPARE_FOR_SHRINK \
    CTL_CODE(IOCTL_VOLUME_BASE, 23, METHOD_BUFFERED, FILE_READ_ACCESS | FILE_WRITE_ACCESS)
#endif
#ifndef IOCTL_SCSI_PASS_THROUGH_EX
#define IOCTL_SCSI_PASS_THROUGH_EX \
    CTL_CODE(IOCTL_SCSI_BASE, 0x0411, METHOD_BUFFERED, FILE_READ_ACCESS | FILE_WRITE_ACCESS)
#endif
#ifndef IOCTL_SCSI_PASS_THROUGH_DIRECT_EX
#define IOCTL_SCSI_PASS_THROUGH_DIRECT_EX \
    CTL_CODE(IOCTL_SCSI_BASE, 0x0412, METHOD_BUFFERED, FILE_READ_ACCESS | FILE_WRITE_ACCESS)
#endif
#ifndef IOCTL_STORAGE_PROTOCOL_COMMAND
#define IOCTL_STORAGE_PROTOCOL_COMMAND \
    CTL_CODE(IOCTL_STORAGE_BASE, 0x04F0, METHOD_BUFFERED, FILE_READ_ACCESS | FILE_WRITE_ACCESS)
#endif
#ifndef IOCTL_STORAGE_REINITIALIZE_MEDIA
#define IOCTL_STORAGE_REINITIALIZE_MEDIA \
    CTL_CODE(IOCTL_STORAGE_BASE, 0x0590, METHOD_BUFFERED, FILE_WRITE_ACCESS)
#endif
#ifndef IOCTL_STORAGE_REMOVE_ELEMENT_AND_TRUNCATE
#define IOCTL_STORAGE_REMOVE_ELEMENT_AND_TRUNCATE \
    CTL_CODE(IOCTL_STORAGE_BASE, 0x0730, METHOD_BUFFERED, FILE_ANY_ACCESS)
#endif
#ifndef IOCTL_DISK_REASSIGN_BLOCKS_EX
#define IOCTL_DISK_REASSIGN_BLOCKS_EX \
    CTL_CODE(IOCTL_DISK_BASE, 0x0029, METHOD_BUFFERED, FILE_READ_ACCESS | FILE_WRITE_ACCESS)
#endif
#ifndef MdlMappingNoExecute
#define MdlMappingNoExecute 0x40000000
#endif

// The header's macro reads the page that the kernel shares with every process in whatever form the compiler
// likes; kernels that emulate the access know the plain load only.
#undef KeQuerySystemTime
inline void KeQuerySystemTime(PLARGE_INTEGER time) {
    const volatile LONGLONG* shared = reinterpret_cast<const volatile LONGLONG*>(0xFFFFF78000000014ull);
    __asm__ volatile("movq %1, %0" : "=r"(time->QuadPart) : "m"(*shared));
}

#define KVR_WIDE(text) L##text
#define W(text) KVR_WIDE(text)

#define KVR_CAPABILITY(name)
#define KVR_SCOPED
#define KVR_GUARDED_BY(lock)
#define KVR_ACQUIRE(...)
#define KVR_RELEASE(...)
#define KVR_REQUIRES(...)
#define KVR_NO_ANALYSIS

// Structured exception handling (seh.cpp). The code that may raise stands in called functions, as the
// compiler asks.
void SehTryFinally(void (*body)(const void*), const void* bodyContext, void (*cleanup)(const void*),
                   const void* cleanupContext);
NTSTATUS SehTryExcept(NTSTATUS (*body)(const void*), const void* context);

template <class Body, class Cleanup>
void TryFinally(const Body& body, const Cleanup& cleanup) {
    SehTryFinally([](const void* b) { (*static_cast<const Body*>(b))(); }, &body,
                  [](const void* c) { (*static_cast<const Cleanup*>(c))(); }, &cleanup);
}

template <class Body>
[[nodiscard]] NTSTATUS TryExcept(const Body& body) {
    return SehTryExcept([](const void* b) -> NTSTATUS { return (*static_cast<const Body*>(b))(); }, &body);
}

[[noreturn]] void KvrFastFail(ULONG code);
PKTHREAD KvrCurrentThread();
POBJECT_TYPE KvrThreadObjectType();
inline void KvrAnnounceHold(PFAST_MUTEX) {}
inline void KvrAnnounceRelease(PFAST_MUTEX) {}
