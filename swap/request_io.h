// What the reading and the writing of segments share; for swap/ only.
#pragma once
#include "redirect/swap_file.h"
#include "swap/sector_io.h"

// The swap's lower device, looked up when the first run needs it. It has no destructor: an exception may cross
// the frame that holds it, so the owner calls Release in its cleanup.
class LazySwapDevice {
public:
    PDEVICE_OBJECT Get(PVOLUME_EXTENSION volume);  // null when there is none
    void Release();

private:
    alignas(SwapDevice) UCHAR m_storage[sizeof(SwapDevice)];
    SwapDevice* m_device = nullptr;
};

// The lower transfers of one request: one event and one status block for all, as they follow each other.
struct RUN_TRANSFERS {
    RUN_TRANSFERS();
    // STATUS_NO_SUCH_DEVICE for no device. Success adds to `transferred`.
    [[nodiscard]] NTSTATUS Transfer(ULONG major, PDEVICE_OBJECT device, UCHAR* buffer, ULONG length,
                                    LARGE_INTEGER offset);

    LazySwapDevice swap;
    KEVENT event;
    IO_STATUS_BLOCK iosb{};
    ULONG_PTR transferred = 0;
};

// body(), then cleanup() however the body ends; an exception of the kernel becomes the status.
template <class Body, class Cleanup>
[[nodiscard]] NTSTATUS RunWithCleanup(const Body& body, const Cleanup& cleanup) {
    return TryExcept([&]() -> NTSTATUS {
        NTSTATUS status = STATUS_UNSUCCESSFUL;
        TryFinally([&] { status = body(); }, cleanup);
        return status;
    });
}

// A request that fails reports no bytes.
inline NTSTATUS FinishRequest(PIRP request, NTSTATUS status, ULONG_PTR information) {
    request->IoStatus.Status = status;
    request->IoStatus.Information = status == STATUS_SUCCESS ? information : 0;
    IofCompleteRequest(request, IO_NO_INCREMENT);
    return status;
}
