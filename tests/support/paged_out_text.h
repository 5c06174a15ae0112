// A counted string whose characters are paged out: the first access faults, as one to pageable memory does on
// the platform, and the page is there again afterwards. What matters is what the thread holds when that
// happens, for the fault is served by a read that may need it.
#pragma once
#include <gtest/gtest.h>
#include <csignal>
#include <cstring>
#include <string_view>
#include <sys/mman.h>
#include "platform/host/sync/current_thread.h"

namespace support {

// One at a time.
class PagedOutText {
public:
    explicit PagedOutText(std::u16string_view text) {
        void* page = mmap(nullptr, kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        std::memcpy(page, text.data(), text.size() * sizeof(WCHAR));
        const USHORT length = static_cast<USHORT>(text.size() * sizeof(WCHAR));
        string = {length, length, static_cast<PWSTR>(page)};
        // Made before the fault: not by a signal handler.
        EXPECT_EQ(0, host::CurrentThread()->HeldCount);
        current = this;
        struct sigaction action {};
        action.sa_flags = SA_NODEFER;  // a raised exception leaves the handler for good
        action.sa_handler = [](int) { current->PageIn(); };
        sigaction(SIGSEGV, &action, &before_);
        PageOut();
    }
    ~PagedOutText() {
        sigaction(SIGSEGV, &before_, nullptr);
        munmap(string.Buffer, kPage);
    }
    PagedOutText(const PagedOutText&) = delete;
    PagedOutText& operator=(const PagedOutText&) = delete;

    // As it was at first.
    void PageOut() {
        faults = 0;
        mprotect(string.Buffer, kPage, PROT_NONE);
    }

    UNICODE_STRING string;
    int faults = 0;
    int locksHeld = 0;                 // by the thread that met the fault
    NTSTATUS raises = STATUS_SUCCESS;  // what the access ends with, as one to memory that is gone does

private:
    static constexpr size_t kPage = 4096;
    static inline PagedOutText* current = nullptr;

    void PageIn() {
        if (faults++ != 0) abort();  // no page of ours
        locksHeld = host::gCurrentThread->HeldCount;
        mprotect(string.Buffer, kPage, PROT_READ | PROT_WRITE);
        if (raises != STATUS_SUCCESS) ExRaiseStatus(raises);
    }

    struct sigaction before_ {};
};

}  // namespace support
