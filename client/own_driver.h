// The control device of a driver on the kernel in this process, asked by a program of the machine.
#pragma once
#include <algorithm>
#include "client/control_client.h"
#include "client/failure.h"
#include "platform/host/io/user_mode.h"

namespace ctl {

class OwnDriver : public Driver {
public:
    // Throws Failure when it cannot be opened with that access.
    explicit OwnDriver(ACCESS_MASK access) {
        const NTSTATUS status = host::OpenDevice(u"\\DosDevices\\kvr", access, device_);
        if (!NT_SUCCESS(status)) throw Failure("the control device cannot be opened: " + StatusText(status));
    }
    ~OwnDriver() override { host::CloseDevice(device_); }
    OwnDriver(const OwnDriver&) = delete;
    OwnDriver& operator=(const OwnDriver&) = delete;

    Answer Control(std::uint32_t code, std::span<const std::uint8_t> input, Bytes& output) override {
        ULONG returned = 0;
        const NTSTATUS status = host::DeviceIoControl(
            device_, code, input.data(), static_cast<ULONG>(input.size()),
            output.empty() ? nullptr : output.data(), static_cast<ULONG>(output.size()), returned);
        output.resize(std::min<std::size_t>(returned, output.size()));
        return {status, {}};
    }

private:
    PFILE_OBJECT device_ = nullptr;
};

}  // namespace ctl
