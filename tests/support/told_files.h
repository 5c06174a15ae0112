// A file system that only remembers: files open, answer and grow as they are told.
#pragma once
#include <functional>
#include <map>
#include <string>
#include <vector>
#include "platform/host/object/file_provider.h"
#include "platform/host/object/namespace.h"
#include "platform/host/object/object.h"
#include "swap/provision.h"
#include "tests/support/loaded_driver.h"

class ToldFiles : public host::FileProvider {
public:
    struct Opening {
        std::u16string path;
        ULONG disposition, share;
        bool operator==(const Opening&) const = default;
    };

    NTSTATUS Open(const host::FileOpen& request, std::unique_ptr<host::OpenFile>& file,
                  ULONG_PTR& information) override {
        if (onOpen) onOpen(request.path);
        opens.push_back({request.path, request.disposition, request.share});
        const auto told = statuses.find(request.path);
        const NTSTATUS result = told != statuses.end() ? told->second : status;
        if (NT_SUCCESS(result)) file = std::make_unique<File>(*this, request.path);
        information = FILE_OPENED;
        return result;
    }
    NTSTATUS Delete(const std::u16string& path) override {
        if (onDelete) onDelete(path);
        deleted.push_back(path);
        return STATUS_SUCCESS;
    }

    std::vector<Opening> opens;
    std::vector<std::u16string> deleted;
    std::map<std::u16string, LONGLONG> written;   // bytes
    std::map<std::u16string, NTSTATUS> statuses;  // of opens, before `status`
    NTSTATUS status = STATUS_SUCCESS, io = STATUS_SUCCESS;
    LONGLONG limit = 0x7FFFFFFF;  // of a file's bytes; behind it the disk is full
    ULONG bytes = 0;              // that a read returns
    std::function<void(const std::u16string&)> onOpen, onDelete, onWrite;

private:
    struct File : host::OpenFile {
        File(ToldFiles& files, std::u16string name) : told(files), path(std::move(name)) {}
        NTSTATUS Read(LONGLONG, void*, ULONG, ULONG& done) override {
            done = told.bytes;
            return told.io;
        }
        NTSTATUS Write(LONGLONG offset, const void*, ULONG length, ULONG& done) override {
            if (offset + length > told.limit) return STATUS_DISK_FULL;
            if (told.onWrite) told.onWrite(path);
            told.written[path] += length;
            done = length;
            return told.io;
        }
        ToldFiles& told;
        std::u16string path;
    };
};

// The driver with such files on its volume.
class DriverFiles : public LoadedDriver {
protected:
    void SetUp() override {
        LoadedDriver::SetUp();
        host::MountProvider(device->pdo.object, &files);
        host::SetSystemRoot(std::u16string(kName) + u"\\Windows");
    }
    void TearDown() override {
        host::JoinSystemThreads();
        EXPECT_EQ(nullptr, gProvisionThread.load());
        CloseHeldFiles(volume);
        CloseFiles();
        EXPECT_TRUE(host::OpenHandles().empty()) << "thread handles are closed";
        host::SetSystemRoot({});
        LoadedDriver::TearDown();
    }
    // The configuration's and the driver's.
    void CloseFiles() {
        KernelHandle(gConfigFileHandle.exchange(nullptr)).Reset();
        KernelHandle(gDriverFileHandle.exchange(nullptr)).Reset();
        files.opens.clear();
    }

    ToldFiles files;
};
